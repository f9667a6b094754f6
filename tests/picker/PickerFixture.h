// Shared pieces of the picker tests: requests (a shared context with input items), extensions
// made without a registry, a controller that records what it performed, and an
// automation presenter whose menus are watched through the record hook.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <memory>
#include <mutex>
#include <vector>

#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "platform/appkit/NSMenuPresenter.h"
#include "platform/log/os_log.h"
#include "tests/support/TestMain.h"

namespace lumaro::test {

// An input item with `userInfo`; a titled item; the host-information item; a titled item whose
// attachment is not data.
NSExtensionItemPtr requestItem(const QVariantMap& userInfo);
NSExtensionItemPtr titledItem(const QString& title, const QVariant& value);
NSExtensionItemPtr hostInfoItem(const QVariant& hostInfo);
NSExtensionItemPtr opaqueItem(const QString& title);

// A new shared context with these input items.
std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext> makeRequest(
    std::vector<NSExtensionItemPtr> items, const QUuid& uuid = QUuid::createUuid());

// The activity of an extension made without a registry (`application`: its containing app).
std::shared_ptr<LMStreamingActivity> makeActivity(const QString& identifier,
                                                  const QVariantMap& info,
                                                  const QUrl& application = {});
// One activity per identifier, in order, delegated to `delegate` (none by default).
LMStreamingActivityArray makeActivities(
    const QStringList& identifiers,
    const std::shared_ptr<LMStreamingActivityDelegate>& delegate = nullptr);

// Records the activities performed instead of performing them.
class RecordingController : public LMBroadcastActivityExtensionNSViewController {
public:
    void performActionWithStreamingActivity(
        const std::shared_ptr<LMStreamingActivity>& activity) override;
    std::vector<LMStreamingActivity*> performed() const;

private:
    mutable std::mutex mutex_;
    std::vector<LMStreamingActivity*> performed_;
};

// Installs an automation presenter choosing `choice` while alive; watches its records.
class MenuRecorder {
public:
    explicit MenuRecorder(const QString& choice = QStringLiteral("none"));
    ~MenuRecorder();
    std::vector<platform::appkit::MenuRecord> records() const;
    bool allOnMainThread() const;

private:
    struct State {
        std::mutex mutex;
        std::vector<platform::appkit::MenuRecord> records;
        bool allOnMain = true;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace lumaro::test
