#include "daemon/LMDaemonProtocol.h"

namespace {

using T = NSXPCType;

NSXPCMethodDescription call(std::string_view selector, std::vector<T> args) {
    return {selector, std::move(args), false, {}, false, true};
}
NSXPCMethodDescription withReply(std::string_view selector, std::vector<T> args,
                                 std::vector<T> reply) {
    return {selector, std::move(args), true, std::move(reply), false, true};
}
NSXPCMethodDescription optional(NSXPCMethodDescription method) {
    method.optional = true;
    return method;
}

// Recurring shapes.
const std::vector<T> kStartArgs = {T::Number, T::Size, T::SignedChar, T::SignedChar};
const std::vector<T> kStartReply = {T::Error, T::SignedChar, T::SignedChar};
const std::vector<T> kResumeArgs = {T::UInt32};
const std::vector<T> kErrorReply = {T::Error};
const std::vector<T> kStreamArgs = {T::String, T::Dictionary, T::Dictionary};

}  // namespace

const NSXPCProtocolDescription& LMDaemonProtocol() {
    static const NSXPCProtocolDescription protocol{
        "LMDaemonProtocol",
        "com.vantor.lumarod.Daemon",
        "/com/vantor/lumarod",
        {
            withReply("startInAppRecordingWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
                      "withHandler:",
                      kStartArgs, kStartReply),
            withReply("stopInAppRecordingWithHandler:", {}, {T::URL, T::Error}),
            withReply("stopInAppRecordingWithUrl:handler:", {T::URL}, kErrorReply),
            call("pauseInAppRecording", {}),
            withReply("resumeInAppRecordingWithWindowLayerContextID:completionHandler:",
                      kResumeArgs, kStartReply),
            withReply("discardInAppRecordingWithHandler:", {}, {}),
            withReply("startInAppCaptureWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
                      "withHandler:",
                      kStartArgs, kStartReply),
            withReply("stopInAppCaptureWithHandler:", {}, kErrorReply),
            call("pauseInAppCapture", {}),
            withReply("resumeInAppCaptureWithWindowLayerContextID:completionHandler:", kResumeArgs,
                      kStartReply),
            withReply("startInAppBroadcastWithContextID:windowSize:microphoneEnabled:"
                      "cameraEnabled:listenerEndpoint:withHandler:",
                      {T::Number, T::Size, T::SignedChar, T::SignedChar, T::Endpoint}, kStartReply),
            withReply("stopInAppBroadcastWithHandler:", {}, kErrorReply),
            withReply("setupBroadcastWithHostBundleID:broadcastExtensionBundleID:"
                      "broadcastConfigurationData:userInfo:handler:",
                      {T::String, T::String, T::Data, T::Dictionary}, kErrorReply),
            call("pauseInAppBroadcast", {}),
            withReply("resumeInAppBroadcastWithWindowLayerContextID:completionHandler:",
                      kResumeArgs, kStartReply),
            call("setBroadcastURL:", {T::URL}),
            withReply("startClipBufferingWithContextID:windowSize:microphoneEnabled:"
                      "cameraEnabled:withCompletionHandler:",
                      kStartArgs, kStartReply),
            withReply("stopClipBufferingWithCompletionHandler:", {}, kErrorReply),
            withReply("exportClipToURL:duration:completionHandler:", {T::URL, T::Double},
                      kErrorReply),
            withReply("resumeInAppClipWithWindowLayerContextID:completionHandler:", kResumeArgs,
                      kStartReply),
            call("updateProcessIDForAudioCaptureWithPID:", {T::Int32}),
            withReply("saveVideoToCameraRoll:handler:", {T::URL}, kErrorReply),
            withReply("saveClipToCameraRoll:handler:", {T::URL}, kErrorReply),
            withReply("saveVideo:handler:", {T::URL}, kErrorReply),
            call("reportCameraUsage:", {T::Int64}),
            call("ledraApplicationDidResignActive", {}),
            withReply("ledraApplicationDidBecomeActiveWithContextID:completionHandler:",
                      kResumeArgs, kStartReply),
            call("appAudioCaptureOutputHandler:", {T::Dictionary}),
            call("consumeSandboxExtension:processNewConnection:", {T::String, T::SignedChar}),
            withReply("stopCurrentActiveSessionWithHandler:", {}, {T::SignedChar}),
            call("stopAllActiveClients", {}),
            // Optional methods.
            optional(withReply("stopInAppRecordingWithUrl:extensionToken:handler:",
                               {T::URL, T::String}, kErrorReply)),
            optional(withReply("exportClipToURL:duration:extensionToken:completionHandler:",
                               {T::URL, T::Double, T::Object}, kErrorReply)),
            optional(
                withReply("saveVideo:extensionToken:handler:", {T::URL, T::String}, kErrorReply)),
            optional(withReply("updateStream:withContentFilter:streamData:completionHandler:",
                               kStreamArgs, kErrorReply)),
            optional(withReply("updateStream:withStreamConfiguration:streamData:completionHandler:",
                               kStreamArgs, kErrorReply)),
            optional(withReply("startCapture:withContentFilter:properties:completionHandler:",
                               kStreamArgs, kErrorReply)),
            optional(withReply("stop:streamData:withCompletionHandler:", {T::String, T::Dictionary},
                               kErrorReply)),
            optional(withReply("fetchShareableContentWithOption:windowID:withCompletionHandler:",
                               {T::UInt32, T::UInt32}, {T::Array, T::Array, T::Array, T::Error})),
        }};
    return protocol;
}

const NSXPCProtocolDescription& LMClientProtocol() {
    static const NSXPCProtocolDescription protocol{
        "LMClientProtocol",
        "com.vantor.lumarod.Client",
        "/com/vantor/lumarod/Client",
        {
            optional(call("updateScreenRecordingStateWithCurrentState:", {T::Dictionary})),
            optional(call("updateBroadcastServiceInfo:", {T::Dictionary})),
            optional(call("updateBroadcastURL:", {T::URL})),
            optional(call("captureHandlerWithSample:timingData:", {T::Object, T::Data})),
            optional(call("captureHandlerWithAudioSample:bufferType:", {T::Dictionary, T::Int64})),
            optional(call("recordingDidStopWithError:movieURL:", {T::Error, T::URL})),
            optional(call("recordingLockInterrupted:", {T::Error})),
            optional(call("shouldResumeSessionType:", {T::String})),
            optional(call("recordingDidPause", {})),
            optional(call("recordingTimerDidUpdate:", {T::String})),
            optional(withReply("appAudioCaptureStartWithDidStartHandler:", {}, kErrorReply)),
            optional(withReply("appAudioCaptureResumeWithHandler:", {}, kErrorReply)),
            optional(withReply("appAudioCaptureStopWithHandler:", {}, {})),
            optional(call("stream:didCaptureSurface:withDirtyRects:withDictionary:",
                          {T::String, T::Object, T::Array, T::Dictionary})),
            optional(call("stream:didStopWithError:", {T::String, T::Error})),
        }};
    return protocol;
}

QString LMIntrospectionDocument(const NSXPCInterface& iface) {
    return QStringLiteral(
               "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
               "<node name=\"%1\">\n")
               .arg(iface.objectPath()) +
           iface.introspectionXml() + QStringLiteral("\n</node>\n");
}
