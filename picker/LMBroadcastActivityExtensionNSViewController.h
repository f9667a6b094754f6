// The picker controller: the extension's principal view controller.
//
// It loads its view from the host request (the first input item's sizes and texts, or, for a
// remote view of a host that passes parameters instead, an embedded controller from the
// storyboard "BroadcastSetup"); gathers the host's information and the installed setup-UI
// extensions as streaming activities; and shows one of three presentations: the preferred
// extension performed at once, the activity menu, or the not-installed menu. It relays the two
// host messages to the shared extension context's remote proxy.
//
// Selector to member:
//   -loadHostApplicationInfo:                       loadHostApplicationInfo
//   -loadStreamingActivitiesWithHandler:            loadStreamingActivitiesWithHandler
//   -loadItems:withHandler:                         loadItems
//   -archiveHostData:hostBundleID:iconImage:        archiveHostData
//   -setupSingleExtensionViewWithHostBundleID:preferredExtension:iconImage:appName:activities:
//                                                   setupSingleExtensionViewWithHostBundleID
//   -setupActivityViewController:hostBundleID:iconImage:activities:
//                                                   setupActivityViewController
//   -showNotInstalledAlertWithAppName:broadcastActivitiesNotInstalledAlertTitle:
//    broadcastActivitiesNotInstalledAlertMessage:   showNotInstalledAlertWithAppName
//   -extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:
//                                                   extensionDidFinishWithLaunchURL
//
// Ownership: the controller keeps its activities, and each activity keeps the controller as its
// delegate; both live until the controller's array is dropped (setActivities({})). Callbacks
// that outlive a step (the activity load) hold the controller weakly and skip their work once
// it is gone; main-queue hops hold it strongly.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "picker/LMStreamingActivity.h"
#include "platform/appkit/NSImage.h"
#include "platform/appkit/NSViewController.h"
#include "platform/extension/NSExtensionItem.h"
#include "service/LMBroadcastActivityViewServiceExtensionContext.h"

using LMStreamingActivityArray = std::vector<std::shared_ptr<LMStreamingActivity>>;

class LMBroadcastActivityExtensionNSViewController : public NSServiceViewController,
                                                     public LMStreamingActivityDelegate {
public:
    LMBroadcastActivityExtensionNSViewController();
    ~LMBroadcastActivityExtensionNSViewController() override;

    // --- Properties.
    LMStreamingActivityArray activities() const;
    void setActivities(LMStreamingActivityArray activities);
    NSExtensionItemPtr applicationInfoExtensionItem() const;
    void setApplicationInfoExtensionItem(NSExtensionItemPtr item);
    QString localizedNoServiceMessage() const;
    void setLocalizedNoServiceMessage(const QString& text);
    QString localizedBroadcastTitle() const;
    void setLocalizedBroadcastTitle(const QString& text);
    QString localizedFindBroadcastApps() const;
    void setLocalizedFindBroadcastApps(const QString& text);
    QString hostBundleID() const;
    void setHostBundleID(const QString& hostBundleID);

    // --- The view service and the host.
    // The host interface; the controller is the exported object of the view-service channel.
    std::shared_ptr<NSXPCInterface> exportedInterface() const override;
    // The shared context, whatever context the controller was begun with.
    std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext> broadcastExtensionContext()
        const;
    std::shared_ptr<NSExtensionContext> extensionContext() const override;
    // Relays to the shared context's remote proxy; nothing happens without a context or
    // connection. Both return at once.
    void presentBroadcastActivitySheet();
    void extensionDidFinishWithLaunchURL(const QUrl& launchURL, const QUrl& broadcastURL,
                                         const QString& extensionBundleID, bool cancelled);

    // --- View loading.
    void loadView() override;
    void viewDidLoad() override;

    // --- Loaders. Handlers run on the queue the platform delivers the load on.
    using HostApplicationInfoHandler = std::function<void(
        const QString& hostBundleID, const QString& appName, const std::shared_ptr<NSImage>& icon,
        const QString& preferredExtension, const QString& notInstalledAlertTitle,
        const QString& notInstalledAlertMessage)>;
    // Called once per host-information item that loads (none: never called).
    void loadHostApplicationInfo(HostApplicationInfoHandler handler);

    using StreamingActivitiesHandler = std::function<void(const LMStreamingActivityArray&)>;
    // Every installed setup-UI extension as an activity whose delegate is this controller, in
    // the registry's order; called also when there are none and after an error.
    void loadStreamingActivitiesWithHandler(StreamingActivitiesHandler handler);

    using SetupResultHandler =
        std::function<void(const QString& extensionBundleID, const QByteArray& configuration,
                           const QVariantMap& userInfo, const QUrl& serviceURL)>;
    // Called exactly once, by the load that brings the count of loaded items to the number of
    // items; never when an item fails to load or has no data attachment, nor for no items.
    void loadItems(const std::vector<NSExtensionItemPtr>& items, SetupResultHandler withHandler);

    // --- Presentations.
    // Builds applicationInfoExtensionItem: the keyed archive of the host's name, bundle
    // identifier and (when given) TIFF icon, as one kUTTypeData attachment.
    void archiveHostData(const QString& appName, const QString& hostBundleID,
                         const std::shared_ptr<NSImage>& iconImage);
    // Performs every activity whose extension identifier is the preferred extension, in order.
    virtual void setupSingleExtensionViewWithHostBundleID(
        const QString& hostBundleID, const QString& preferredExtension,
        const std::shared_ptr<NSImage>& iconImage, const QString& appName,
        const LMStreamingActivityArray& activities);
    // The activity menu, popped up on the main queue. The first argument is the app name.
    virtual void setupActivityViewController(const QString& appName, const QString& hostBundleID,
                                             const std::shared_ptr<NSImage>& iconImage,
                                             const LMStreamingActivityArray& activities);
    // The not-installed menu, popped up on the main queue; the three arguments are not used:
    // the menu shows the controller's localized texts.
    virtual void showNotInstalledAlertWithAppName(
        const QString& appName, const QString& broadcastActivitiesNotInstalledAlertTitle,
        const QString& broadcastActivitiesNotInstalledAlertMessage);

    // --- Performing a chosen activity (LMStreamingActivityDelegate).
    void performActionWithStreamingActivity(
        const std::shared_ptr<LMStreamingActivity>& activity) override;

    // The point the menus open at: the first input item's source X and Y, each through single
    // precision, in screen coordinates.
    NSPoint menuAnchor() const;

private:
    std::shared_ptr<LMBroadcastActivityExtensionNSViewController> strongSelf();
    void loadViewFromInputItem(const NSExtensionItemPtr& item);
    void loadViewFromParameters(const QVariantMap& parameters);
    void popUp(const std::shared_ptr<class NSMenu>& menu) const;

    mutable std::mutex mutex_;  // guards the properties below
    LMStreamingActivityArray activities_;
    NSExtensionItemPtr applicationInfoExtensionItem_;
    QString localizedNoServiceMessage_;
    QString localizedBroadcastTitle_;
    QString localizedFindBroadcastApps_;
    QString hostBundleID_;
};

// Registers the controller class under its name with the storyboard registry (the storyboard
// "BroadcastSetup" and the manifest's principal class name it), and the extension context class
// with the runtime. The picker's program calls it before NSExtensionMain; calling it again is
// harmless.
void LMBroadcastPickerRegisterClasses();
