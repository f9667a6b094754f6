// Performing a chosen activity: the hand-off to the service's setup UI.
#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "platform/log/os_log.h"

void LMBroadcastActivityExtensionNSViewController::performActionWithStreamingActivity(
    const std::shared_ptr<LMStreamingActivity>& /*activity*/) {
    os_log_error(OS_LOG_DEFAULT, "performing an activity is not available yet");
}
