#include "tests/daemon/RequestCases.h"

#include <QDir>
#include <QJsonObject>

namespace lumaro::test {

QUrl grantedFileURL() {
    return QUrl::fromLocalFile(QDir::homePath() +
                               QStringLiteral("/Library/Application Support/com.vantor.lumarod/"
                                              "clip.mov"));
}

QUrl deniedFileURL() {
    return QUrl::fromLocalFile(QStringLiteral("/usr/lib/lumaro-denied/a.mov"));
}

namespace {

using Outcome = std::shared_ptr<RequestOutcome>;

void noteError(const Outcome& o, const NSErrorPtr& e) {
    o->blockCalls++;
    if (e) {
        o->errorsInBlock++;
        o->lastErrorCode = e->code();
    }
}

LMDaemonProxy::ErrorBlock errorBlock(const Outcome& o) {
    return [o](NSErrorPtr e) {
        noteError(o, e);
    };
}
LMDaemonProxy::SessionBlock sessionBlock(const Outcome& o) {
    return [o](NSErrorPtr e, signed char, signed char) {
        noteError(o, e);
    };
}

QJsonObject size(double w, double h) {
    return QJsonObject{{QStringLiteral("width"), w}, {QStringLiteral("height"), h}};
}

QJsonObject map(const char* k, int v) {
    return QJsonObject{{QString::fromLatin1(k), v}};
}

QVariantMap vmap(const char* k, int v) {
    return QVariantMap{{QString::fromLatin1(k), v}};
}

std::vector<RequestCase> makeCases() {
    const QString url = grantedFileURL().toString();
    using L = Logging;
    auto S = [](const char* s) {
        return QString::fromLatin1(s);
    };
    std::vector<RequestCase> c = {
        {1,
         S("stopCurrentActiveSessionWithHandler:"),
         L::Short,
         S("LMDaemonProxy: stopCurrentActiveSessionWithHandler:withHandler:"),
         S("LMDaemonProxy: stopCurrentActiveSessionWithHandler: proxy error: %d"),
         true,
         {},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.stopCurrentActiveSessionWithHandler([o](signed char) { o->blockCalls++; });
         }},
        {2,
         S("stopAllActiveClients"),
         L::Short,
         S("LMDaemonProxy: stopAllActiveClients:withHandler:"),
         S("LMDaemonProxy: stopAllActiveClients: proxy error: %d"),
         false,
         {},
         [](LMDaemonProxy& p, const Outcome&) {
             p.stopAllActiveClients();
         }},
        {3,
         S("startInAppRecordingWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
           "withHandler:"),
         L::Short,
         S("LMDaemonProxy: startInAppRecordingWithContextID:withHandler:"),
         S("LMDaemonProxy: startInAppRecordingWithContextID: proxy error: %d"),
         true,
         {3, size(640, 480), 1, 0},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.startInAppRecordingWithContextID(3, QSizeF(640, 480), 1, 0, sessionBlock(o));
         }},
        {4,
         S("stopInAppRecordingWithHandler:"),
         L::Short,
         S("LMDaemonProxy: stopInAppRecordingWithHandler:withHandler:"),
         S("LMDaemonProxy: stopInAppRecordingWithHandler: proxy error: %d"),
         true,
         {},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.stopInAppRecordingWithHandler([o](QUrl, NSErrorPtr e) { noteError(o, e); });
         }},
        {5,
         S("stopInAppRecordingWithUrl:handler:"),
         L::Tagged,
         {},
         S("proxy error: "),
         true,
         {url},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.stopInAppRecordingWithUrl(grantedFileURL(), errorBlock(o));
         }},
        {6,
         S("discardInAppRecordingWithHandler:"),
         L::Short,
         S("LMDaemonProxy: discardInAppRecordingWithHandler:withHandler:"),
         S("LMDaemonProxy: discardInAppRecordingWithHandler: proxy error: %d"),
         true,
         {},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.discardInAppRecordingWithHandler([o] { o->blockCalls++; });
         }},
        {7,
         S("pauseInAppRecording"),
         L::Short,
         S("LMDaemonProxy: pauseInAppRecording:"),
         S("LMDaemonProxy: pauseInAppRecording: proxy error: %d"),
         false,
         {},
         [](LMDaemonProxy& p, const Outcome&) {
             p.pauseInAppRecording();
         }},
        {8,
         S("resumeInAppRecordingWithWindowLayerContextID:completionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {8},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.resumeInAppRecordingWithWindowLayerContextID(8, sessionBlock(o));
         }},
        {9,
         S("startInAppCaptureWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
           "withHandler:"),
         L::Short,
         S("LMDaemonProxy: startInAppCaptureWithContextID:withHandler:"),
         S("LMDaemonProxy: startInAppCaptureWithContextID: proxy error: %d"),
         true,
         {9, size(320, 200), 0, 1},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.startInAppCaptureWithContextID(9, QSizeF(320, 200), 0, 1, sessionBlock(o));
         }},
        {10,
         S("stopInAppCaptureWithHandler:"),
         L::Short,
         S("LMDaemonProxy: stopInAppCaptureWithHandler:withHandler:"),
         S("LMDaemonProxy: stopInAppCaptureWithHandler: proxy error: %d"),
         true,
         {},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.stopInAppCaptureWithHandler(errorBlock(o));
         }},
        {11,
         S("pauseInAppCapture"),
         L::Short,
         S("LMDaemonProxy: pauseInAppCapture"),
         S("LMDaemonProxy: pauseInAppCapture: proxy error: %d"),
         false,
         {},
         [](LMDaemonProxy& p, const Outcome&) {
             p.pauseInAppCapture();
         }},
        {12,
         S("resumeInAppCaptureWithWindowLayerContextID:completionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {12},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.resumeInAppCaptureWithWindowLayerContextID(12, sessionBlock(o));
         }},
        {13,
         S("setupBroadcastWithHostBundleID:broadcastExtensionBundleID:broadcastConfigurationData:"
           "userInfo:handler:"),
         L::Short,
         S("LMDaemonProxy: setupBroadcastWithHostBundleID:"),
         S("error: %d"),
         true,
         {S("com.example.host"), S("com.example.service.setup"), S("Y29uZmln"), map("k", 1)},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.setupBroadcastWithHostBundleID(QStringLiteral("com.example.host"),
                                              QStringLiteral("com.example.service.setup"),
                                              QByteArray("config"), vmap("k", 1), errorBlock(o));
         }},
        {14,
         S("startInAppBroadcastWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
           "listenerEndpoint:withHandler:"),
         L::Short,
         S("LMDaemonProxy: startInAppBroadcastWithContextID:withHandler:"),
         S("LMDaemonProxy: startInAppBroadcastWithContextID: proxy error: %d"),
         true,
         {14, size(1, 2), 1, 1, QJsonObject{{S("endpoint"), S("unix:path=/tmp/x")}}},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.startInAppBroadcastWithContextID(
                 14, QSizeF(1, 2), 1, 1, NSXPCListenerEndpoint(QStringLiteral("unix:path=/tmp/x")),
                 sessionBlock(o));
         }},
        {15,
         S("stopInAppBroadcastWithHandler:"),
         L::Short,
         S("LMDaemonProxy: stopInAppBroadcastWithHandler:withHandler:"),
         S("LMDaemonProxy: stopInAppBroadcastWithHandler: proxy error: %d"),
         true,
         {},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.stopInAppBroadcastWithHandler(errorBlock(o));
         }},
        {16,
         S("pauseInAppBroadcast"),
         L::Short,
         S("LMDaemonProxy: pauseInAppBroadcast:"),
         S("LMDaemonProxy: pauseInAppBroadcast: proxy error: %d"),
         false,
         {},
         [](LMDaemonProxy& p, const Outcome&) {
             p.pauseInAppBroadcast();
         }},
        {17,
         S("resumeInAppBroadcastWithWindowLayerContextID:completionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {17},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.resumeInAppBroadcastWithWindowLayerContextID(17, sessionBlock(o));
         }},
        {18,
         S("consumeSandboxExtension:processNewConnection:"),
         L::Tagged,
         {},
         S("proxy error: "),
         false,
         {S("not-a-token"), 0},
         [](LMDaemonProxy& p, const Outcome&) {
             p.consumeSandboxExtension(QStringLiteral("not-a-token"), 0);
         }},
        {19,
         S("ledraApplicationDidResignActive"),
         L::Short,
         S("LMDaemonProxy: ledraApplicationDidResignActive:"),
         S("LMDaemonProxy: ledraApplicationDidResignActive proxy error: %d"),
         false,
         {},
         [](LMDaemonProxy& p, const Outcome&) {
             p.ledraApplicationDidResignActive();
         }},
        {20,
         S("ledraApplicationDidBecomeActiveWithContextID:completionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {20},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.ledraApplicationDidBecomeActiveWithContextID(20, sessionBlock(o));
         }},
        {21,
         S("appAudioCaptureOutputHandler:"),
         L::ShortEntryDisabled,
         S("LMDaemonProxy: appAudioCaptureOutputHandler"),
         S("LMDaemonProtocol: appAudioCaptureOutputHandler: proxy error: %d"),
         false,
         {map("a", 21)},
         [](LMDaemonProxy& p, const Outcome&) {
             p.appAudioCaptureOutputHandler(vmap("a", 21));
         }},
        {22,
         S("saveVideo:handler:"),
         L::Tagged,
         {},
         S("proxy error: "),
         true,
         {url},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.saveVideo(grantedFileURL(), errorBlock(o));
         }},
        {23,
         S("saveVideoToCameraRoll:handler:"),
         L::Short,
         S("LMDaemonProxy: saveVideoToCameraRoll:"),
         S("LMDaemonProxy: saveVideoToCameraRoll proxy error: %d"),
         true,
         {S("file:///tmp/v.mov")},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.saveVideoToCameraRoll(QUrl(QStringLiteral("file:///tmp/v.mov")), errorBlock(o));
         }},
        {24,
         S("saveClipToCameraRoll:handler:"),
         L::Short,
         S("LMDaemonProxy: saveClipToCameraRoll:"),
         S("LMDaemonProxy: saveClipToCameraRoll proxy error: %d"),
         true,
         {S("file:///tmp/c.mov")},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.saveClipToCameraRoll(QUrl(QStringLiteral("file:///tmp/c.mov")), errorBlock(o));
         }},
        {25,
         S("reportCameraUsage:"),
         L::Short,
         S("LMDaemonProxy: reportFrontCameraUsage"),
         S("LMDaemonProtocol: reportFrontCameraUsage: proxy error: %d"),
         false,
         {QJsonValue(qint64(1) << 40)},
         [](LMDaemonProxy& p, const Outcome&) {
             p.reportCameraUsage(int64_t(1) << 40);
         }},
        {26,
         S("updateProcessIDForAudioCaptureWithPID:"),
         L::Tagged,
         {},
         S("proxy error: "),
         false,
         {-26},
         [](LMDaemonProxy& p, const Outcome&) {
             p.updateProcessIDForAudioCaptureWithPID(-26);
         }},
        {27,
         S("setBroadcastURL:"),
         L::NoEntry,
         {},
         S("LMDaemonProtocol: hasUserConsentForMicrophone: proxy error: %d"),
         false,
         {S("https://example.com/live/27")},
         [](LMDaemonProxy& p, const Outcome&) {
             p.setBroadcastURL(QUrl(QStringLiteral("https://example.com/live/27")));
         }},
        {28,
         S("startClipBufferingWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
           "withCompletionHandler:"),
         L::Tagged,
         {},
         S("proxy error: "),
         true,
         {28, size(28, 28), 0, 0},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.startClipBufferingWithContextID(28, QSizeF(28, 28), 0, 0, sessionBlock(o));
         }},
        {29,
         S("stopClipBufferingWithCompletionHandler:"),
         L::Tagged,
         {},
         S("proxy error: "),
         true,
         {},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.stopClipBufferingWithCompletionHandler(errorBlock(o));
         }},
        {30,
         S("exportClipToURL:duration:completionHandler:"),
         L::Tagged,
         {},
         S("proxy error: "),
         true,
         {url, 2.5},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.exportClipToURL(grantedFileURL(), 2.5, errorBlock(o));
         }},
        {31,
         S("resumeInAppClipWithWindowLayerContextID:completionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {31},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.resumeInAppClipWithWindowLayerContextID(31, sessionBlock(o));
         }},
        {32,
         S("updateStream:withStreamConfiguration:streamData:completionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {S("s32"), map("c", 1), map("d", 2)},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.updateStreamWithStreamConfiguration(QStringLiteral("s32"), vmap("c", 1),
                                                   vmap("d", 2), errorBlock(o));
         }},
        {33,
         S("updateStream:withContentFilter:streamData:completionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {S("s33"), map("f", 1), map("d", 2)},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.updateStreamWithContentFilter(QStringLiteral("s33"), vmap("f", 1), vmap("d", 2),
                                             errorBlock(o));
         }},
        {34,
         S("startCapture:withContentFilter:properties:completionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {S("s34"), map("f", 3), map("p", 4)},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.startCapture(QStringLiteral("s34"), vmap("f", 3), vmap("p", 4), errorBlock(o));
         }},
        {35,
         S("stop:streamData:withCompletionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {S("s35"), map("d", 5)},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.stop(QStringLiteral("s35"), vmap("d", 5), errorBlock(o));
         }},
        {36,
         S("fetchShareableContentWithOption:windowID:withCompletionHandler:"),
         L::Tagged,
         {},
         S("error: "),
         true,
         {1, 36},
         [](LMDaemonProxy& p, const Outcome& o) {
             p.fetchShareableContentWithOption(
                 1, 36,
                 [o](QVariantList, QVariantList, QVariantList, NSErrorPtr e) { noteError(o, e); });
         }},
    };
    return c;
}

}  // namespace

const std::vector<RequestCase>& requestCases() {
    static const std::vector<RequestCase> cases = makeCases();
    return cases;
}

}  // namespace lumaro::test
