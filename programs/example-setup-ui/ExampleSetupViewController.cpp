#include "ExampleSetupViewController.h"

#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QUrl>
#include <QWidget>
#include <cstdlib>

#include "discovery/LMExtensions.h"
#include "platform/appkit/NSStoryboard.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionContext.h"
#include "platform/extension/UTType.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/log/os_log.h"

namespace {

const QString kAppName = QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoAppName");
const QString kBundleID = QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoBundleID");
const QString kAppIcon = QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoAppIcon");

const QString kBundleIdentifierKey =
    QStringLiteral("LMBroadcastExtensionKeyExtensionBundleIdentifier");
const QString kConfigurationKey = QStringLiteral("LMBroadcastExtensionKeyBroadcastConfiguration");
const QString kUserInfoKey = QStringLiteral("LMBroadcastExtensionKeyExtensionUserInfo");
const QString kServiceURLKey = QStringLiteral("kLMBroadcastExtensionKeyExtensionServiceURL");

struct Settings {
    ExampleSetupViewController::Mode mode = ExampleSetupViewController::Mode::Interactive;
    ExampleSetupViewController::ActWhen when = ExampleSetupViewController::ActWhen::Shown;
    QString serviceIdentifier = QStringLiteral("com.example.setupui");
    QString startWhen;
};
Settings& settings() {
    static Settings s;
    return s;
}

// The broadcast extension that belongs to a setup UI: "<service>.setupui" -> "<service>.broadcast".
QString broadcastExtensionIdentifier(const QString& setupIdentifier) {
    QString base = setupIdentifier;
    if (base.endsWith(QLatin1String(".setupui"))) {
        base.chop(int(qstrlen(".setupui")));
    }
    return base + QStringLiteral(".broadcast");
}

}  // namespace

void ExampleSetupViewController::configure(Mode mode, ActWhen when, QString serviceIdentifier) {
    settings().mode = mode;
    settings().when = when;
    if (!serviceIdentifier.isEmpty()) {
        settings().serviceIdentifier = std::move(serviceIdentifier);
    }
}

void ExampleSetupViewController::startWhenFileExists(QString path) {
    settings().startWhen = std::move(path);
}

bool ExampleSetupViewController::modeFromString(const QString& text, Mode* mode) {
    static const QList<std::pair<QString, Mode>> names{
        {QStringLiteral("interactive"), Mode::Interactive},
        {QStringLiteral("complete"), Mode::Complete},
        {QStringLiteral("cancel"), Mode::Cancel},
        {QStringLiteral("fail-item"), Mode::FailItem},
        {QStringLiteral("crash"), Mode::Crash}};
    for (const auto& [name, value] : names) {
        if (text == name) {
            *mode = value;
            return true;
        }
    }
    return false;
}

void ExampleSetupViewController::registerClass() {
    const auto make = [] {
        return std::make_shared<ExampleSetupViewController>();
    };
    for (const char* name : {"ExampleSetupViewController", "NorthwindSetupViewController",
                             "TidecastBroadcastSetupViewController"}) {
        NSStoryboard::registerViewControllerClass(QString::fromLatin1(name), make);
    }
}

void ExampleSetupViewController::loadView() {
    auto view = NSView::initWithFrame(NSMakeRect(0, 0, 360, 160));
    setView(view);
    QWidget* widget = view->widget();
    if (widget == nullptr) {
        return;  // no widgets without a QApplication: the view is geometry only
    }
    widget->setWindowTitle(QStringLiteral("Broadcast setup"));
    auto* form = new QFormLayout(widget);
    serviceName_ = new QLineEdit(QStringLiteral("Example Live"), widget);
    streamTitle_ = new QLineEdit(widget);
    streamTitle_->setPlaceholderText(QStringLiteral("My stream"));
    form->addRow(QStringLiteral("Service name"), serviceName_);
    form->addRow(QStringLiteral("Stream title"), streamTitle_);
    auto* buttons = new QHBoxLayout();
    auto* cancelButton = new QPushButton(QStringLiteral("Cancel"), widget);
    auto* startButton = new QPushButton(QStringLiteral("Start"), widget);
    startButton->setDefault(true);
    buttons->addStretch();
    buttons->addWidget(cancelButton);
    buttons->addWidget(startButton);
    form->addRow(buttons);
    QObject::connect(startButton, &QPushButton::clicked, widget, [this] { start(); });
    QObject::connect(cancelButton, &QPushButton::clicked, widget, [this] { cancel(); });
}

void ExampleSetupViewController::viewDidLoad() {
    auto context = extensionContext();
    if (!context) {
        return;
    }
    // The application-info item: a data attachment holding the keyed archive of the host's
    // name, bundle identifier and icon.
    for (const NSExtensionItemPtr& item : context->inputItems()) {
        if (item->attachments().empty() ||
            !item->attachments()[0]->hasItemConformingToTypeIdentifier(kUTTypeData)) {
            continue;
        }
        std::weak_ptr<NSViewController> weak = weak_from_this();
        item->attachments()[0]->loadItemForTypeIdentifier(
            kUTTypeData, {}, [weak](const QVariant& value, const NSErrorPtr& error) {
                NSErrorPtr archiveError;
                const QVariant info = error ? QVariant()
                                            : NSKeyedUnarchiver::unarchiveObjectWithData(
                                                  value.toByteArray(), &archiveError);
                if (error || archiveError) {
                    os_log_error(OS_LOG_DEFAULT, "example-setup-ui: unreadable host info: %@",
                                 error ? error : archiveError);
                }
                const QVariantMap map = info.toMap();
                dispatch_async(dispatch_get_main_queue(), [weak, map] {
                    if (auto self =
                            std::static_pointer_cast<ExampleSetupViewController>(weak.lock())) {
                        self->hostInfoLoaded(map);
                    }
                });
            });
        return;
    }
    os_log_error(OS_LOG_DEFAULT, "example-setup-ui: no application-info item");
    hostInfoLoaded({});
}

void ExampleSetupViewController::hostInfoLoaded(const QVariantMap& info) {
    hostAppName_ = info.value(kAppName).toString();
    hostBundleID_ = info.value(kBundleID).toString();
    hostIcon_ = QImage::fromData(info.value(kAppIcon).toByteArray());
    hostInfoRead_ = true;
    os_log(OS_LOG_DEFAULT, "example-setup-ui: setting up a broadcast for %{public}s (%{public}s)",
           qPrintable(hostAppName_), qPrintable(hostBundleID_));
    if (streamTitle_ && !hostAppName_.isEmpty()) {
        streamTitle_->setText(QStringLiteral("%1 live").arg(hostAppName_));
    }
    actIfDue(ActWhen::Loaded);
    startIfTold();
}

void ExampleSetupViewController::viewDidAppear() {
    shown_ = true;
    actIfDue(ActWhen::Shown);
    const QString trigger = settings().startWhen;
    QWidget* widget = view()->widget();
    if (trigger.isEmpty() || widget == nullptr || answered_) {
        return;
    }
    auto* watcher = new QFileSystemWatcher({QFileInfo(trigger).absolutePath()}, widget);
    std::weak_ptr<NSViewController> weak = weak_from_this();
    QObject::connect(watcher, &QFileSystemWatcher::directoryChanged, widget, [weak] {
        if (auto self = std::static_pointer_cast<ExampleSetupViewController>(weak.lock())) {
            self->startIfTold();
        }
    });
    startIfTold();
}

void ExampleSetupViewController::startIfTold() {
    const QString trigger = settings().startWhen;
    if (!trigger.isEmpty() && shown_ && hostInfoRead_ && QFileInfo::exists(trigger)) {
        start();
    }
}

void ExampleSetupViewController::actIfDue(ActWhen moment) {
    const Settings& s = settings();
    if (s.mode == Mode::Interactive || answered_ || !hostInfoRead_) {
        return;
    }
    if (s.when == ActWhen::Shown && !shown_) {
        return;
    }
    (void)moment;
    switch (s.mode) {
        case Mode::Cancel:
            cancel();
            break;
        case Mode::Crash:
            os_log_error(OS_LOG_DEFAULT, "example-setup-ui: aborting as asked");
            std::abort();
        default:
            start();
    }
}

void ExampleSetupViewController::start() {
    auto context = extensionContext();
    if (answered_ || !context) {
        return;
    }
    answered_ = true;
    const QString serviceName =
        serviceName_ ? serviceName_->text() : QStringLiteral("Example Live");
    const QString title = streamTitle_ && !streamTitle_->text().isEmpty()
                              ? streamTitle_->text()
                              : QStringLiteral("%1 live").arg(hostAppName_);
    const QVariantMap configuration{{QStringLiteral("serviceName"), serviceName},
                                    {QStringLiteral("streamTitle"), title},
                                    {QStringLiteral("hostBundleID"), hostBundleID_}};
    QVariantMap userInfo{{QStringLiteral("serviceName"), serviceName},
                         {QStringLiteral("hostAppName"), hostAppName_}};
    if (hostAppClientParameters().typeId() == QMetaType::QVariantMap) {
        userInfo.insert(QStringLiteral("hostAppClientParameters"), hostAppClientParameters());
    }
    const QUrl serviceURL(QStringLiteral("https://live.example.com/%1/%2")
                              .arg(settings().serviceIdentifier,
                                   QString::fromLatin1(QUrl::toPercentEncoding(title))));

    std::vector<NSExtensionItemPtr> items{
        LMExtensions::itemWithTitle(kBundleIdentifierKey,
                                    broadcastExtensionIdentifier(settings().serviceIdentifier)),
        LMExtensions::itemWithTitle(kConfigurationKey,
                                    NSKeyedArchiver::archivedDataWithRootObject(configuration)),
        LMExtensions::itemWithTitle(kUserInfoKey, userInfo),
        LMExtensions::itemWithTitle(kServiceURLKey, serviceURL)};
    if (settings().mode == Mode::FailItem) {
        // The configuration carried by an attachment that is not data: the reader cannot load it.
        items[1]->setAttachments({NSItemProvider::initWithItem(
            items[1]->attachments()[0]->toPlainValue().value(QStringLiteral("item")),
            QStringLiteral("com.example.setupui.opaque"))});
    }
    context->completeRequestReturningItems(std::move(items), nullptr);
}

void ExampleSetupViewController::cancel() {
    auto context = extensionContext();
    if (answered_ || !context) {
        return;
    }
    answered_ = true;
    context->completeRequestReturningItems({}, nullptr);
}
