// Shared pieces of the picker tests: requests (a shared context with input items), extensions
// made directly, a controller that records which presentation it chose and which activities it
// performed, and a menu presenter that records without showing.
#pragma once

#include <QString>
#include <QVariantMap>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "platform/appkit/NSMenuPresenter.h"
#include "platform/log/os_log.h"

namespace lumaro::test {

// The first input item of a request: user info with the texts and numbers of the request.
NSExtensionItemPtr requestItem(const QVariantMap& userInfo);
// A titled item (one kUTTypeData attachment holding `value`).
NSExtensionItemPtr titledItem(const QString& title, const QVariant& value);
// A host-information item holding `hostInfo`.
NSExtensionItemPtr hostInfoItem(const QVariant& hostInfo);

// Makes a new shared context with these input items (it replaces the shared one).
std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext> makeRequest(
    std::vector<NSExtensionItemPtr> items, const QUuid& uuid = QUuid::createUuid());

// An installed extension record, made without a registry.
NSExtensionPtr makeExtension(const QString& identifier, const QString& displayName = "Service");
// Activities for `identifiers`, in order, with no delegate.
LMStreamingActivityArray makeActivities(const QStringList& identifiers);

// Records the activities performed instead of performing them, and, while
// `interceptPresentations` is on, the presentation chosen instead of presenting it.
class RecordingController : public LMBroadcastActivityExtensionNSViewController {
public:
    explicit RecordingController(bool interceptPresentations = true)
        : interceptPresentations_(interceptPresentations) {}

    struct Call {
        QString method;  // "single", "menu" or "notInstalled"
        QStringList arguments;
        size_t activityCount = 0;
    };
    void setupSingleExtensionViewWithHostBundleID(
        const QString& hostBundleID, const QString& preferredExtension,
        const std::shared_ptr<NSImage>& iconImage, const QString& appName,
        const LMStreamingActivityArray& activities) override;
    void setupActivityViewController(const QString& appName, const QString& hostBundleID,
                                     const std::shared_ptr<NSImage>& iconImage,
                                     const LMStreamingActivityArray& activities) override;
    void showNotInstalledAlertWithAppName(const QString& appName, const QString& title,
                                          const QString& message) override;
    void performActionWithStreamingActivity(
        const std::shared_ptr<LMStreamingActivity>& activity) override;

    std::vector<Call> calls() const;
    std::vector<LMStreamingActivity*> performed() const;
    std::atomic<int> callCount{0};
    std::shared_ptr<NSImage> lastIcon;

private:
    const bool interceptPresentations_;
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
    std::vector<LMStreamingActivity*> performed_;
};

// Installs an automation presenter with `choice` for the life of the object and records every
// menu shown.
class MenuRecorder {
public:
    explicit MenuRecorder(const QString& choice = QStringLiteral("none"));
    ~MenuRecorder();
    MenuRecorder(const MenuRecorder&) = delete;
    MenuRecorder& operator=(const MenuRecorder&) = delete;
    std::vector<platform::appkit::MenuRecord> records() const;
    // Whether every menu was presented on the main thread.
    bool allOnMainThread() const;
    // Runs the main loop until `count` menus were shown; answers whether they were.
    bool waitFor(size_t count) const;

private:
    struct State {
        std::mutex mutex;
        std::vector<platform::appkit::MenuRecord> records;
        std::vector<bool> onMainThread;
    };
    std::shared_ptr<platform::appkit::AutomationMenuPresenter> presenter_;
    std::shared_ptr<State> state_;
};

}  // namespace lumaro::test
