#include "daemon/LMDaemonRequestCatalogue.h"

namespace {

using L = LMRequestLogging;
using E = LMTaggedErrorText;

LMDaemonRequest shortRow(int row, std::string_view selector, const char* entry, const char* error) {
    return {row, selector, L::Short, entry, error, E::ProxyError, {}, {}, {}};
}
LMDaemonRequest tagged(int row, std::string_view selector, E error) {
    return {row, selector, L::Tagged, nullptr, nullptr, error, {}, {}, {}};
}
LMDaemonRequest fileRow(int row, std::string_view selector, std::string_view tokenSelector) {
    return {row, selector, L::Tagged, nullptr, nullptr, E::ProxyError, tokenSelector, {}, {}};
}

std::vector<LMDaemonRequest> makeCatalogue() {
    std::vector<LMDaemonRequest> rows = {
        shortRow(1, "stopCurrentActiveSessionWithHandler:",
                 "LMDaemonProxy: stopCurrentActiveSessionWithHandler:withHandler:",
                 "LMDaemonProxy: stopCurrentActiveSessionWithHandler: proxy error: %d"),
        shortRow(2, "stopAllActiveClients", "LMDaemonProxy: stopAllActiveClients:withHandler:",
                 "LMDaemonProxy: stopAllActiveClients: proxy error: %d"),
        shortRow(3,
                 "startInAppRecordingWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
                 "withHandler:",
                 "LMDaemonProxy: startInAppRecordingWithContextID:withHandler:",
                 "LMDaemonProxy: startInAppRecordingWithContextID: proxy error: %d"),
        shortRow(4, "stopInAppRecordingWithHandler:",
                 "LMDaemonProxy: stopInAppRecordingWithHandler:withHandler:",
                 "LMDaemonProxy: stopInAppRecordingWithHandler: proxy error: %d"),
        fileRow(5, "stopInAppRecordingWithUrl:handler:",
                "stopInAppRecordingWithUrl:extensionToken:handler:"),
        shortRow(6, "discardInAppRecordingWithHandler:",
                 "LMDaemonProxy: discardInAppRecordingWithHandler:withHandler:",
                 "LMDaemonProxy: discardInAppRecordingWithHandler: proxy error: %d"),
        shortRow(7, "pauseInAppRecording", "LMDaemonProxy: pauseInAppRecording:",
                 "LMDaemonProxy: pauseInAppRecording: proxy error: %d"),
        tagged(8, "resumeInAppRecordingWithWindowLayerContextID:completionHandler:", E::Error),
        shortRow(9,
                 "startInAppCaptureWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
                 "withHandler:",
                 "LMDaemonProxy: startInAppCaptureWithContextID:withHandler:",
                 "LMDaemonProxy: startInAppCaptureWithContextID: proxy error: %d"),
        shortRow(10, "stopInAppCaptureWithHandler:",
                 "LMDaemonProxy: stopInAppCaptureWithHandler:withHandler:",
                 "LMDaemonProxy: stopInAppCaptureWithHandler: proxy error: %d"),
        shortRow(11, "pauseInAppCapture", "LMDaemonProxy: pauseInAppCapture",
                 "LMDaemonProxy: pauseInAppCapture: proxy error: %d"),
        tagged(12, "resumeInAppCaptureWithWindowLayerContextID:completionHandler:", E::Error),
        // The picker's own request: a bare error text, written at any level.
        shortRow(13,
                 "setupBroadcastWithHostBundleID:broadcastExtensionBundleID:"
                 "broadcastConfigurationData:userInfo:handler:",
                 "LMDaemonProxy: setupBroadcastWithHostBundleID:", "error: %d"),
        shortRow(14,
                 "startInAppBroadcastWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
                 "listenerEndpoint:withHandler:",
                 "LMDaemonProxy: startInAppBroadcastWithContextID:withHandler:",
                 "LMDaemonProxy: startInAppBroadcastWithContextID: proxy error: %d"),
        shortRow(15, "stopInAppBroadcastWithHandler:",
                 "LMDaemonProxy: stopInAppBroadcastWithHandler:withHandler:",
                 "LMDaemonProxy: stopInAppBroadcastWithHandler: proxy error: %d"),
        shortRow(16, "pauseInAppBroadcast", "LMDaemonProxy: pauseInAppBroadcast:",
                 "LMDaemonProxy: pauseInAppBroadcast: proxy error: %d"),
        tagged(17, "resumeInAppBroadcastWithWindowLayerContextID:completionHandler:", E::Error),
        tagged(18, "consumeSandboxExtension:processNewConnection:", E::ProxyError),
        shortRow(19, "ledraApplicationDidResignActive",
                 "LMDaemonProxy: ledraApplicationDidResignActive:",
                 "LMDaemonProxy: ledraApplicationDidResignActive proxy error: %d"),
        tagged(20, "ledraApplicationDidBecomeActiveWithContextID:completionHandler:", E::Error),
        // Entry line to the disabled handle: never written. Error text names the protocol.
        {21,
         "appAudioCaptureOutputHandler:",
         L::ShortEntryDisabled,
         "LMDaemonProxy: appAudioCaptureOutputHandler",
         "LMDaemonProtocol: appAudioCaptureOutputHandler: proxy error: %d",
         E::ProxyError,
         {},
         {},
         {}},
        fileRow(22, "saveVideo:handler:", "saveVideo:extensionToken:handler:"),
        shortRow(23, "saveVideoToCameraRoll:handler:", "LMDaemonProxy: saveVideoToCameraRoll:",
                 "LMDaemonProxy: saveVideoToCameraRoll proxy error: %d"),
        shortRow(24, "saveClipToCameraRoll:handler:", "LMDaemonProxy: saveClipToCameraRoll:",
                 "LMDaemonProxy: saveClipToCameraRoll proxy error: %d"),
        // Texts name reportFrontCameraUsage; the error text names the protocol.
        shortRow(25, "reportCameraUsage:", "LMDaemonProxy: reportFrontCameraUsage",
                 "LMDaemonProtocol: reportFrontCameraUsage: proxy error: %d"),
        tagged(26, "updateProcessIDForAudioCaptureWithPID:", E::ProxyError),
        // The property setter: silent on entry, and its error text is another request's.
        {27,
         "setBroadcastURL:",
         L::NoEntry,
         nullptr,
         "LMDaemonProtocol: hasUserConsentForMicrophone: proxy error: %d",
         E::ProxyError,
         {},
         {},
         {}},
        tagged(28,
               "startClipBufferingWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
               "withCompletionHandler:",
               E::ProxyError),
        tagged(29, "stopClipBufferingWithCompletionHandler:", E::ProxyError),
        fileRow(30, "exportClipToURL:duration:completionHandler:",
                "exportClipToURL:duration:extensionToken:completionHandler:"),
        tagged(31, "resumeInAppClipWithWindowLayerContextID:completionHandler:", E::Error),
        tagged(32, "updateStream:withStreamConfiguration:streamData:completionHandler:", E::Error),
        tagged(33, "updateStream:withContentFilter:streamData:completionHandler:", E::Error),
        tagged(34, "startCapture:withContentFilter:properties:completionHandler:", E::Error),
        tagged(35, "stop:streamData:withCompletionHandler:", E::Error),
        tagged(36, "fetchShareableContentWithOption:windowID:withCompletionHandler:", E::Error),
    };
    for (auto& row : rows) {
        row.method = "-[LMDaemonProxy " + std::string(row.selector) + "]";
        row.blockMethod = row.method + "_block_invoke";
    }
    return rows;
}

}  // namespace

const std::vector<LMDaemonRequest>& LMDaemonRequestCatalogue() {
    static const std::vector<LMDaemonRequest> rows = makeCatalogue();
    return rows;
}

const LMDaemonRequest& LMDaemonRequestRow(int row) {
    return LMDaemonRequestCatalogue().at(static_cast<size_t>(row - 1));
}
