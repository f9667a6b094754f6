// The picker's presentations: the application-info item, the single-extension path, the
// activity menu and the not-installed menu.
#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "picker/LMBroadcastActivityKeys.h"
#include "picker/LMBroadcastValues.h"
#include "platform/appkit/NSMenu.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/UTType.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/log/os_log.h"

namespace {

constexpr const char* kSingleExtensionMethod =
    "-[LMBroadcastActivityExtensionNSViewController setupSingleExtensionViewWithHostBundleID:"
    "preferredExtension:iconImage:appName:activities:]";
const QString kMenuTitle = QStringLiteral("Screen Broadcast");

// A required entry of the host-info archive: a missing one is archived as an empty text, so that
// the archive can still be made.
QString requiredHostValue(const QString& value) {
    return value.isNull() ? QStringLiteral("") : value;
}

// A disabled line of text with no action and no key equivalent.
NSMenuItemPtr textLine(const QString& text) {
    auto item = NSMenuItem::initWithTitle(text, {}, QStringLiteral(""));
    item->setEnabled(false);
    return item;
}

}  // namespace

void LMBroadcastActivityExtensionNSViewController::archiveHostData(
    const QString& appName, const QString& hostBundleID,
    const std::shared_ptr<NSImage>& iconImage) {
    QVariantMap hostInfo{
        {LMBroadcastExtensionKeyExtensionHostInfoAppName, requiredHostValue(appName)},
        {LMBroadcastExtensionKeyExtensionHostInfoBundleID, requiredHostValue(hostBundleID)},
    };
    if (iconImage) {
        hostInfo.insert(LMBroadcastExtensionKeyExtensionHostInfoAppIcon,
                        iconImage->TIFFRepresentation());
    }
    // Strings and data always archive.
    const QByteArray archive = NSKeyedArchiver::archivedDataWithRootObject(hostInfo);
    auto item = std::make_shared<NSExtensionItem>();
    setApplicationInfoExtensionItem(item);
    item->setAttachments({NSItemProvider::initWithItem(archive, kUTTypeData)});
}

void LMBroadcastActivityExtensionNSViewController::setupSingleExtensionViewWithHostBundleID(
    const QString& hostBundleID, const QString& preferredExtension,
    const std::shared_ptr<NSImage>& iconImage, const QString& appName,
    const LMStreamingActivityArray& activities) {
    archiveHostData(appName, hostBundleID, iconImage);
    // Every match is performed, in list order: the walk does not stop at the first.
    bool found = false;
    for (const auto& activity : activities) {
        if (!activity || !activity->applicationExtension() ||
            activity->applicationExtension()->identifier() != preferredExtension) {
            continue;
        }
        os_log(OS_LOG_DEFAULT, "%s found extension", kSingleExtensionMethod);
        found = true;
        activity->performAction(QVariant(QStringLiteral("")));
    }
    if (!found) {
        os_log(OS_LOG_DEFAULT, "%s did not find extension", kSingleExtensionMethod);
    }
}

void LMBroadcastActivityExtensionNSViewController::setupActivityViewController(
    const QString& appName, const QString& hostBundleID, const std::shared_ptr<NSImage>& iconImage,
    const LMStreamingActivityArray& activities) {
    archiveHostData(appName, hostBundleID, iconImage);
    setActivities(activities);
    const auto self = strongSelf();
    if (!self) {
        os_log_error(OS_LOG_DEFAULT,
                     "The activity menu needs a controller held by a shared pointer");
        return;
    }
    dispatch_async(dispatch_get_main_queue(), [self, activities, appName] {
        auto menu = NSMenu::initWithTitle(kMenuTitle);
        std::vector<NSMenuItemPtr> items;
        items.reserve(activities.size() + 1);
        items.push_back(textLine(
            LMBroadcastValues::formatWithObject(self->localizedBroadcastTitle(), appName)));
        for (const auto& activity : activities) {
            if (activity) {
                items.push_back(activity);
            }
        }
        menu->setItemArray(items);
        menu->setAutoenablesItems(false);
        self->popUp(menu);
    });
}

void LMBroadcastActivityExtensionNSViewController::showNotInstalledAlertWithAppName(
    const QString& /*appName*/, const QString& /*broadcastActivitiesNotInstalledAlertTitle*/,
    const QString& /*broadcastActivitiesNotInstalledAlertMessage*/) {
    // The texts are the controller's own localized ones, not the arguments.
    const auto self = strongSelf();
    if (!self) {
        os_log_error(OS_LOG_DEFAULT,
                     "The not-installed menu needs a controller held by a shared pointer");
        return;
    }
    dispatch_async(dispatch_get_main_queue(), [self] {
        auto menu = NSMenu::initWithTitle(kMenuTitle);
        menu->setItemArray({textLine(self->localizedNoServiceMessage()),
                            textLine(self->localizedFindBroadcastApps())});
        menu->setAutoenablesItems(false);
        self->popUp(menu);
    });
}

NSPoint LMBroadcastActivityExtensionNSViewController::menuAnchor() const {
    const auto context = broadcastExtensionContext();
    QVariantMap userInfo;
    if (context && !context->inputItems().empty() && context->inputItems().front()) {
        userInfo = context->inputItems().front()->userInfo();
    }
    // Through single precision on purpose: the point is where the float values put it.
    const float x =
        LMBroadcastValues::floatValue(userInfo.value(kLMBroadcastActivityExtensionLedraKeySourceX));
    const float y =
        LMBroadcastValues::floatValue(userInfo.value(kLMBroadcastActivityExtensionLedraKeySourceY));
    return NSMakePoint(static_cast<double>(x), static_cast<double>(y));
}

void LMBroadcastActivityExtensionNSViewController::popUp(
    const std::shared_ptr<NSMenu>& menu) const {
    const NSPoint anchor = menuAnchor();
    NSMenu::setMenuBarVisible(true);
    (void)menu->popUpMenuPositioningItem(nullptr, anchor, nullptr);
}
