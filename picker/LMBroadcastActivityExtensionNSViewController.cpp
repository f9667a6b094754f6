#include "picker/LMBroadcastActivityExtensionNSViewController.h"

#include <QUuid>

#include "logging/LMLog.h"
#include "picker/LMBroadcastActivityKeys.h"
#include "picker/LMBroadcastValues.h"
#include "platform/appkit/NSLayoutConstraint.h"
#include "platform/appkit/NSStoryboard.h"
#include "platform/log/os_log.h"
#include "platform/xpc/NSXPCValue.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"

namespace {

constexpr const char* kLoadViewMethod = "-[LMBroadcastActivityExtensionNSViewController loadView]";
constexpr int kLoadViewLine = 42;
constexpr int kNoStoryboardLine = 72;
constexpr int kNoChildControllerLine = 79;

// The request identifier as the context vendor takes it: a UUID, or its text. Anything else finds
// no context.
QUuid requestIdentifier(const QVariant& value) {
    if (value.typeId() == QMetaType::QUuid) {
        return value.toUuid();
    }
    if (value.typeId() == QMetaType::QString || value.typeId() == QMetaType::QByteArray) {
        return QUuid::fromString(value.toString());
    }
    return {};
}

}  // namespace

LMBroadcastActivityExtensionNSViewController::LMBroadcastActivityExtensionNSViewController() =
    default;
LMBroadcastActivityExtensionNSViewController::~LMBroadcastActivityExtensionNSViewController() =
    default;

// --- Properties.

LMStreamingActivityArray LMBroadcastActivityExtensionNSViewController::activities() const {
    const std::lock_guard lock(mutex_);
    return activities_;
}
void LMBroadcastActivityExtensionNSViewController::setActivities(
    LMStreamingActivityArray activities) {
    LMStreamingActivityArray old;
    {
        const std::lock_guard lock(mutex_);
        old.swap(activities_);
        activities_ = std::move(activities);
    }
    // `old` goes here, outside the lock: its activities may hold the last reference to us.
}
NSExtensionItemPtr LMBroadcastActivityExtensionNSViewController::applicationInfoExtensionItem()
    const {
    const std::lock_guard lock(mutex_);
    return applicationInfoExtensionItem_;
}
void LMBroadcastActivityExtensionNSViewController::setApplicationInfoExtensionItem(
    NSExtensionItemPtr item) {
    const std::lock_guard lock(mutex_);
    applicationInfoExtensionItem_ = std::move(item);
}
QString LMBroadcastActivityExtensionNSViewController::localizedNoServiceMessage() const {
    const std::lock_guard lock(mutex_);
    return localizedNoServiceMessage_;
}
void LMBroadcastActivityExtensionNSViewController::setLocalizedNoServiceMessage(
    const QString& text) {
    const std::lock_guard lock(mutex_);
    localizedNoServiceMessage_ = text;
}
QString LMBroadcastActivityExtensionNSViewController::localizedBroadcastTitle() const {
    const std::lock_guard lock(mutex_);
    return localizedBroadcastTitle_;
}
void LMBroadcastActivityExtensionNSViewController::setLocalizedBroadcastTitle(const QString& text) {
    const std::lock_guard lock(mutex_);
    localizedBroadcastTitle_ = text;
}
QString LMBroadcastActivityExtensionNSViewController::localizedFindBroadcastApps() const {
    const std::lock_guard lock(mutex_);
    return localizedFindBroadcastApps_;
}
void LMBroadcastActivityExtensionNSViewController::setLocalizedFindBroadcastApps(
    const QString& text) {
    const std::lock_guard lock(mutex_);
    localizedFindBroadcastApps_ = text;
}
QString LMBroadcastActivityExtensionNSViewController::hostBundleID() const {
    const std::lock_guard lock(mutex_);
    return hostBundleID_;
}
void LMBroadcastActivityExtensionNSViewController::setHostBundleID(const QString& hostBundleID) {
    const std::lock_guard lock(mutex_);
    hostBundleID_ = hostBundleID;
}

std::shared_ptr<LMBroadcastActivityExtensionNSViewController>
LMBroadcastActivityExtensionNSViewController::strongSelf() {
    return std::static_pointer_cast<LMBroadcastActivityExtensionNSViewController>(
        weak_from_this().lock());
}

// --- The view service and the host.

std::shared_ptr<NSXPCInterface> LMBroadcastActivityExtensionNSViewController::exportedInterface()
    const {
    return BroadcastActivityViewServiceExtension::__LMBroadcastActivity_viewServiceHostInterface();
}

std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext>
LMBroadcastActivityExtensionNSViewController::broadcastExtensionContext() const {
    return LMBroadcastActivityViewServiceExtensionContext::sharedInstance();
}

std::shared_ptr<NSExtensionContext> LMBroadcastActivityExtensionNSViewController::extensionContext()
    const {
    return LMBroadcastActivityViewServiceExtensionContext::sharedInstance();
}

void LMBroadcastActivityExtensionNSViewController::presentBroadcastActivitySheet() {
    const auto context = LMBroadcastActivityViewServiceExtensionContext::sharedInstance();
    if (const auto proxy = context ? context->remoteProxy() : nullptr) {
        proxy->send(kLMPresentBroadcastActivitySheetSelector, {});
    }
}

void LMBroadcastActivityExtensionNSViewController::extensionDidFinishWithLaunchURL(
    const QUrl& launchURL, const QUrl& broadcastURL, const QString& extensionBundleID,
    bool cancelled) {
    const auto context = broadcastExtensionContext();
    if (const auto proxy = context ? context->remoteProxy() : nullptr) {
        proxy->send(kLMExtensionDidFinishSelector,
                    {platform::xpc::argument(launchURL), platform::xpc::argument(broadcastURL),
                     platform::xpc::argument(extensionBundleID),
                     QVariant(static_cast<int>(cancelled ? 1 : 0))});
    }
}

// --- View loading.

void LMBroadcastActivityExtensionNSViewController::loadView() {
    LM_LOG_INFO_AT(kLoadViewMethod, kLoadViewLine, "%p", static_cast<const void*>(this));

    const auto context = LMBroadcastActivityViewServiceExtensionContext::sharedInstance();
    NSExtensionItemPtr firstItem;
    if (context && !context->inputItems().empty()) {
        firstItem = context->inputItems().front();
    }

    const QVariant parameters = hostAppClientParameters();
    const bool parametersAreDictionary = parameters.typeId() == QMetaType::QVariantMap;
    QString isPrismApp = QStringLiteral("YES");
    if (parametersAreDictionary) {
        const QVariant flag = parameters.toMap().value(kLMParameterIsPrismApp);
        if (flag.typeId() == QMetaType::QString) {
            isPrismApp = flag.toString();
        }
    }

    // An input item always wins over the flag; without one, only exactly "NO" selects the
    // remote-parameters form.
    if (firstItem || isPrismApp != QLatin1String("NO")) {
        loadViewFromInputItem(firstItem);
    } else {
        loadViewFromParameters(parametersAreDictionary ? parameters.toMap() : QVariantMap());
    }
}

void LMBroadcastActivityExtensionNSViewController::loadViewFromInputItem(
    const NSExtensionItemPtr& item) {
    using LMBroadcastValues::floatValue;
    using LMBroadcastValues::textValue;
    const QVariantMap userInfo = item ? item->userInfo() : QVariantMap();
    setLocalizedNoServiceMessage(
        textValue(userInfo.value(kLMBroadcastActivityExtensionLedraKeyLocalizedNoService)));
    setLocalizedBroadcastTitle(
        textValue(userInfo.value(kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle)));
    setLocalizedFindBroadcastApps(
        textValue(userInfo.value(kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps)));
    const float width = floatValue(userInfo.value(kLMBroadcastActivityExtensionLedraKeyWidth));
    const float height = floatValue(userInfo.value(kLMBroadcastActivityExtensionLedraKeyHeight));
    setView(NSView::initWithFrame(
        NSMakeRect(0, 0, static_cast<double>(width), static_cast<double>(height))));
}

void LMBroadcastActivityExtensionNSViewController::loadViewFromParameters(
    const QVariantMap& parameters) {
    const float width = LMBroadcastValues::floatValue(parameters.value(kLMParameterViewWidth));
    const float height = LMBroadcastValues::floatValue(parameters.value(kLMParameterViewHeight));
    const QUuid identifier = requestIdentifier(parameters.value(kLMParameterRequestIdentifier));

    const auto view = NSView::initWithFrame(
        NSMakeRect(0, 0, static_cast<double>(width), static_cast<double>(height)));
    setView(view);

    const std::shared_ptr<NSExtensionContext> requestContext =
        _NSExtensionContextVendor::_sharedExtensionContextVendor()->_extensionContextForUUID(
            identifier);

    const auto storyboard = NSStoryboard::storyboardWithName(kLMBroadcastSetupStoryboardName);
    if (!storyboard) {
        LM_LOG_ERROR_AT(kLoadViewMethod, kNoStoryboardLine,
                        "No storyboard found matching BroadcastSetup");
        return;
    }
    const std::shared_ptr<NSViewController> child = storyboard->instantiateInitialController();
    if (child) {
        child->beginRequestWithExtensionContext(requestContext);
    }
    if (!child || !child->extensionContext()) {
        LM_LOG_ERROR_AT(kLoadViewMethod, kNoChildControllerLine,
                        "App extension view controller failed to instantiate with extension "
                        "context");
        return;
    }

    const std::shared_ptr<NSView> childView = child->view();
    view->addSubview(childView);
    NSLayoutConstraint::activateConstraints({
        childView->leftAnchor().constraintEqualToAnchor(view->leftAnchor()),
        childView->topAnchor().constraintEqualToAnchor(view->topAnchor()),
        childView->rightAnchor().constraintEqualToAnchor(view->rightAnchor()),
        childView->bottomAnchor().constraintEqualToAnchor(view->bottomAnchor()),
    });
    childView->setTranslatesAutoresizingMaskIntoConstraints(false);
    addChildViewController(child);
}

void LMBroadcastActivityExtensionNSViewController::viewDidLoad() {
    NSServiceViewController::viewDidLoad();

    const auto self = strongSelf();
    if (!self) {
        os_log_error(OS_LOG_DEFAULT,
                     "LMBroadcastActivityExtensionNSViewController: not held by a shared pointer, "
                     "nothing gathered");
        return;
    }
    const std::weak_ptr<LMBroadcastActivityExtensionNSViewController> weakSelf = self;
    loadHostApplicationInfo([self, weakSelf](const QString& hostBundleID, const QString& appName,
                                             const std::shared_ptr<NSImage>& icon,
                                             const QString& preferredExtension,
                                             const QString& alertTitle,
                                             const QString& alertMessage) {
        self->setHostBundleID(hostBundleID);
        self->loadStreamingActivitiesWithHandler([weakSelf, hostBundleID, appName, icon,
                                                  preferredExtension, alertTitle, alertMessage](
                                                     const LMStreamingActivityArray& activities) {
            const auto controller = weakSelf.lock();
            if (!controller) {
                return;  // gone: a late result revives nothing
            }
            if (!preferredExtension.isNull()) {
                controller->setupSingleExtensionViewWithHostBundleID(
                    hostBundleID, preferredExtension, icon, appName, activities);
            } else if (!activities.empty()) {
                controller->setupActivityViewController(appName, hostBundleID, icon, activities);
            } else {
                controller->showNotInstalledAlertWithAppName(appName, alertTitle, alertMessage);
            }
        });
    });
}

// --- Registration.

void LMBroadcastPickerRegisterClasses() {
    NSStoryboard::registerViewControllerClass(
        kLMBroadcastActivityExtensionNSViewControllerClassName,
        [] { return std::make_shared<LMBroadcastActivityExtensionNSViewController>(); });
    LMBroadcastActivityViewServiceExtensionContextRegisterClass();
}
