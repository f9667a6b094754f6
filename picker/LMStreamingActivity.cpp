#include "picker/LMStreamingActivity.h"

#include <QGuiApplication>
#include <QKeySequence>
#include <QPainter>
#include <QPixmap>

#include "platform/appkit/NSWorkspace.h"

namespace {
constexpr int kActivityImagePoints = 16;
}

LMStreamingActivity::LMStreamingActivity() = default;

LMStreamingActivity::~LMStreamingActivity() {
    // The delegate goes first, then the extension.
    delegate_.reset();
    applicationExtension_.reset();
}

std::shared_ptr<LMStreamingActivity> LMStreamingActivity::initWithApplicationExtension(
    const NSExtensionPtr& applicationExtension) {
    // 1. The title: the display name only, never the plain bundle name.
    const QString title =
        applicationExtension
            ? applicationExtension->infoDictionary().value(kCFBundleDisplayNameKey).toString()
            : QString();
    // 2. The menu entry: title, action performAction:, no key equivalent.
    std::shared_ptr<LMStreamingActivity> activity(new LMStreamingActivity());
    activity->setText(title);
    activity->setShortcut(QKeySequence());
    LMStreamingActivity* raw = activity.get();
    QObject::connect(activity.get(), &QAction::triggered, activity.get(),
                     [raw](bool /*checked*/) { raw->performAction(QVariant()); });
    // 3. Nothing to return nil for: the entry is always made.
    // 4. The image, asked while the extension is not yet stored: the icon for no path.
    activity->image_ = activity->activityImage();
    if (qobject_cast<QGuiApplication*>(QCoreApplication::instance()) != nullptr) {
        activity->setIcon(QIcon(QPixmap::fromImage(activity->image_)));
    }
    // 5. The target is the entry itself (the connection above). 6. Only now the extension.
    activity->applicationExtension_ = applicationExtension;
    return activity;
}

void LMStreamingActivity::performAction(const QVariant& /*sender*/) {
    // Keep the delegate alive for the call even if it replaces itself meanwhile.
    const std::shared_ptr<LMStreamingActivityDelegate> delegate = delegate_;
    if (delegate) {
        delegate->performActionWithStreamingActivity(shared_from_this());
    }
}

QString LMStreamingActivity::activityType() const {
    return applicationExtension_ ? applicationExtension_->identifier() : QString();
}

QString LMStreamingActivity::activityTitle() const {
    if (!applicationExtension_) {
        return {};
    }
    const QVariant name = applicationExtension_->infoDictionary().value(kCFBundleDisplayNameKey);
    return name.isValid() ? name.toString() : QString();
}

QImage LMStreamingActivity::activityImage() const {
    QString containingPath;
    if (applicationExtension_ && applicationExtension_->_plugIn()) {
        containingPath = applicationExtension_->_plugIn()->containingUrl().toLocalFile();
    }
    const QImage icon = NSWorkspace::sharedWorkspace()->iconForFile(containingPath);
    // 16 by 16 exactly: a wide or tall icon is fitted and centred on a transparent square.
    const QImage fitted = icon.scaled(kActivityImagePoints, kActivityImagePoints,
                                      Qt::KeepAspectRatio, Qt::SmoothTransformation);
    if (fitted.size() == QSize(kActivityImagePoints, kActivityImagePoints)) {
        return fitted;
    }
    QImage square(kActivityImagePoints, kActivityImagePoints, QImage::Format_ARGB32_Premultiplied);
    square.fill(Qt::transparent);
    QPainter painter(&square);
    painter.drawImage((kActivityImagePoints - fitted.width()) / 2,
                      (kActivityImagePoints - fitted.height()) / 2, fitted);
    painter.end();
    return square;
}

void LMStreamingActivity::setDelegate(std::shared_ptr<LMStreamingActivityDelegate> delegate) {
    delegate_ = std::move(delegate);
}
