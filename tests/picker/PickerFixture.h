// Shared pieces of the picker tests: requests (a shared context with input items), extensions
// made without a registry, a controller that records what it chose and performed, and an
// automation presenter whose menus are watched through the record hook.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "platform/appkit/NSMenuPresenter.h"
#include "platform/log/os_log.h"
#include "tests/support/TestMain.h"

namespace lumaro::test {

// An input item with `userInfo`; a titled item; the host-information item.
NSExtensionItemPtr requestItem(const QVariantMap& userInfo);
NSExtensionItemPtr titledItem(const QString& title, const QVariant& value);
NSExtensionItemPtr hostInfoItem(const QVariant& hostInfo);

// A new shared context with these input items.
std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext> makeRequest(
    std::vector<NSExtensionItemPtr> items, const QUuid& uuid = QUuid::createUuid());

NSExtensionPtr makeExtension(const QString& identifier, const QString& displayName = "Service");
// One activity per identifier, in order, delegated to `delegate` (none by default).
LMStreamingActivityArray makeActivities(
    const QStringList& identifiers,
    const std::shared_ptr<LMStreamingActivityDelegate>& delegate = nullptr);

// Records the activities performed instead of performing them; with `interceptPresentations`,
// records the presentation chosen ("single", "menu", "notInstalled" and its string arguments)
// instead of presenting.
class RecordingController : public LMBroadcastActivityExtensionNSViewController {
public:
    explicit RecordingController(bool interceptPresentations = true)
        : intercept_(interceptPresentations) {}
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

    std::vector<QStringList> calls() const;  // method name first, then the arguments
    std::vector<LMStreamingActivity*> performed() const;
    std::atomic<int> callCount{0};

private:
    void record(QStringList call);
    const bool intercept_;
    mutable std::mutex mutex_;
    std::vector<QStringList> calls_;
    std::vector<LMStreamingActivity*> performed_;
};

// Installs an automation presenter choosing `choice` while alive; watches its records.
class MenuRecorder {
public:
    explicit MenuRecorder(const QString& choice = QStringLiteral("none"));
    ~MenuRecorder();
    std::vector<platform::appkit::MenuRecord> records() const;
    bool allOnMainThread() const;
    bool waitFor(size_t count) const;  // runs the main loop until `count` menus were shown

private:
    struct State {
        std::mutex mutex;
        std::vector<platform::appkit::MenuRecord> records;
        bool allOnMain = true;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace lumaro::test
