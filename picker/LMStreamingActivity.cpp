#include "picker/LMStreamingActivity.h"

#include <QPainter>

#include "platform/appkit/NSWorkspace.h"

namespace {

constexpr int kActivityImagePoints = 16;

// The menu entry's action: the sender is the activity itself (it is its own target).
void sendToActivity(const NSMenuItemPtr& sender) {
    if (auto* activity = dynamic_cast<LMStreamingActivity*>(sender.get())) {
        activity->performAction(QVariant());
    }
}

// `icon` fitted into a 16 by 16 square, centred on transparency when it is not square.
QImage fittedIcon(const QImage& icon) {
    const QImage fitted = icon.scaled(kActivityImagePoints, kActivityImagePoints,
                                      Qt::KeepAspectRatio, Qt::SmoothTransformation);
    if (fitted.size() == QSize(kActivityImagePoints, kActivityImagePoints)) {
        return fitted;
    }
    QImage square(kActivityImagePoints, kActivityImagePoints, QImage::Format_ARGB32_Premultiplied);
    square.fill(Qt::transparent);
    if (!fitted.isNull()) {
        QPainter painter(&square);
        painter.drawImage((kActivityImagePoints - fitted.width()) / 2,
                          (kActivityImagePoints - fitted.height()) / 2, fitted);
    }
    return square;
}

}  // namespace

LMStreamingActivity::LMStreamingActivity(const QString& title)
    : NSMenuItem(title, &sendToActivity, QString()) {}

LMStreamingActivity::~LMStreamingActivity() {
    // The delegate goes first, then the extension.
    delegate_.reset();
    applicationExtension_.reset();
}

std::shared_ptr<LMStreamingActivity> LMStreamingActivity::initWithApplicationExtension(
    const NSExtensionPtr& applicationExtension) {
    // 1. The title: the display name only, never the plain bundle name.
    const QVariant displayName =
        applicationExtension ? applicationExtension->infoDictionary().value(kCFBundleDisplayNameKey)
                             : QVariant();
    const QString title = displayName.isValid() ? displayName.toString() : QString();
    // 2. The menu entry: title, action performAction:, empty key equivalent.
    std::shared_ptr<LMStreamingActivity> activity(new LMStreamingActivity(title));
    // 3. A menu item is always made here: nothing to answer nil for.
    // 4. The image, asked while the extension is not yet stored: the icon for no path.
    activity->setImage(activity->activityImage());
    // 5. The entry is its own target.
    activity->setTarget(activity);
    // 6. Only now the extension (and the identifier automation chooses it by).
    activity->applicationExtension_ = applicationExtension;
    activity->setIdentifier(activity->activityType());
    return activity;
}

void LMStreamingActivity::performAction(const QVariant& /*sender*/) {
    // Keep the delegate alive for the call even if it replaces itself meanwhile.
    const std::shared_ptr<LMStreamingActivityDelegate> delegate = delegate_;
    if (delegate) {
        delegate->performActionWithStreamingActivity(
            std::static_pointer_cast<LMStreamingActivity>(shared_from_this()));
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

std::shared_ptr<NSImage> LMStreamingActivity::activityImage() const {
    QString containingPath;
    if (applicationExtension_ && applicationExtension_->_plugIn()) {
        containingPath = applicationExtension_->_plugIn()->containingUrl().toLocalFile();
    }
    auto image = std::make_shared<NSImage>(
        fittedIcon(NSWorkspace::sharedWorkspace()->iconForFile(containingPath)));
    image->setSize(NSMakeSize(kActivityImagePoints, kActivityImagePoints));
    return image;
}

void LMStreamingActivity::setDelegate(std::shared_ptr<LMStreamingActivityDelegate> delegate) {
    delegate_ = std::move(delegate);
}
