#include "tests/picker/PickerFixture.h"

#include <QCoreApplication>
#include <QThread>

#include "discovery/LMExtensions.h"
#include "picker/LMBroadcastActivityKeys.h"
#include "platform/dispatch/dispatch.h"

namespace lumaro::test {

NSExtensionItemPtr requestItem(const QVariantMap& userInfo) {
    auto item = std::make_shared<NSExtensionItem>();
    item->setUserInfo(userInfo);
    return item;
}

NSExtensionItemPtr titledItem(const QString& title, const QVariant& value) {
    return LMExtensions::itemWithTitle(title, value);
}

NSExtensionItemPtr hostInfoItem(const QVariant& hostInfo) {
    return titledItem(LMBroadcastExtensionKeyExtensionHostInfo, hostInfo);
}

NSExtensionItemPtr opaqueItem(const QString& title) {
    auto item = std::make_shared<NSExtensionItem>();
    item->setAttributedTitle(title);
    item->setAttachments({NSItemProvider::initWithItem(QVariantMap{}, "com.test.opaque")});
    return item;
}

std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext> makeRequest(
    std::vector<NSExtensionItemPtr> items, const QUuid& uuid) {
    auto context = std::make_shared<LMBroadcastActivityViewServiceExtensionContext>();
    context->initWithInputItems(std::move(items), nullptr, uuid);
    return context;
}

std::shared_ptr<LMStreamingActivity> makeActivity(const QString& identifier,
                                                  const QVariantMap& info,
                                                  const QUrl& application) {
    auto plugIn = std::make_shared<NSExtensionPlugIn>(identifier, application, 1, QUrl(),
                                                      QVariantMap(), QString());
    return LMStreamingActivity::initWithApplicationExtension(
        std::make_shared<NSExtension>(identifier, QVariantMap(), info, plugIn, nullptr));
}

LMStreamingActivityArray makeActivities(
    const QStringList& identifiers, const std::shared_ptr<LMStreamingActivityDelegate>& delegate) {
    LMStreamingActivityArray activities;
    for (const QString& identifier : identifiers) {
        activities.push_back(makeActivity(identifier, {{kCFBundleIdentifierKey, identifier},
                                                       {kCFBundleDisplayNameKey, "Service"}}));
        activities.back()->setDelegate(delegate);
    }
    return activities;
}

void RecordingController::performActionWithStreamingActivity(
    const std::shared_ptr<LMStreamingActivity>& activity) {
    std::lock_guard lock(mutex_);
    performed_.push_back(activity.get());
}

std::vector<LMStreamingActivity*> RecordingController::performed() const {
    std::lock_guard lock(mutex_);
    return performed_;
}

MenuRecorder::MenuRecorder(const QString& choice) {
    qputenv("LUMARO_MENU_RECORD", "/dev/null");  // keep records off standard error
    platform::appkit::NSMenuPresenter::setCurrent(
        std::make_shared<platform::appkit::AutomationMenuPresenter>(choice));
    platform::appkit::NSMenuPresenter::setRecordHook(
        [state = state_](const platform::appkit::MenuRecord& record) {
            std::lock_guard lock(state->mutex);
            state->records.push_back(record);
            state->allOnMain &= QThread::currentThread() == QCoreApplication::instance()->thread();
        });
}

MenuRecorder::~MenuRecorder() {
    platform::appkit::NSMenuPresenter::setRecordHook({});
    platform::appkit::NSMenuPresenter::setCurrent(nullptr);
}

std::vector<platform::appkit::MenuRecord> MenuRecorder::records() const {
    std::lock_guard lock(state_->mutex);
    return state_->records;
}

bool MenuRecorder::allOnMainThread() const {
    std::lock_guard lock(state_->mutex);
    return state_->allOnMain;
}

}  // namespace lumaro::test
