#include "tests/daemon/RequestCases.h"

#include <QDir>
#include <QJsonObject>
#include <map>

#include "daemon/LMDaemonRequestCatalogue.h"

namespace lumaro::test {

QUrl grantedFileURL() {
    return QUrl::fromLocalFile(QDir::homePath() +
                               QStringLiteral("/Library/Application Support/com.vantor.lumarod/"
                                              "clip.mov"));
}

QUrl deniedFileURL() {
    return QUrl::fromLocalFile(QStringLiteral("/usr/lib/lumaro-denied/a.mov"));
}

QString tokenSelector(const QString& selector) {
    QStringList parts = selector.split(QLatin1Char(':'));  // the last part is empty
    parts.insert(parts.size() - 2, QStringLiteral("extensionToken"));
    return parts.join(QLatin1Char(':'));
}

int tokenIndex(const QString& selector) {
    return static_cast<int>(selector.count(QLatin1Char(':'))) - 1;
}

namespace {

using Outcome = std::shared_ptr<RequestOutcome>;

// Any completion block: counts its calls and notes an error among its arguments.
struct Block {
    explicit Block(Outcome outcome) : o(std::move(outcome)) { o->blockHanded = true; }
    Outcome o;
    template <class... Args>
    void operator()(const Args&... args) const {
        o->blockCalls++;
        (note(args), ...);
    }
    void note(const NSErrorPtr& e) const {
        if (e) {
            o->errorsInBlock++;
            o->lastErrorCode = e->code();
        }
    }
    template <class T>
    void note(const T&) const {}
};

QJsonObject size(double w, double h) {
    return {{QStringLiteral("width"), w}, {QStringLiteral("height"), h}};
}
QJsonObject jmap(const char* k, int v) {
    return {{QString::fromLatin1(k), v}};
}
QVariantMap vmap(const char* k, int v) {
    return {{QString::fromLatin1(k), v}};
}

enum Kind { Short, TaggedProxyError, TaggedError };

struct Row {
    Kind kind;
    QJsonArray args;
    std::function<void(LMDaemonProxy&, const Outcome&)> call;
};

#define CALL(...)                            \
    [](LMDaemonProxy& p, const Outcome& o) { \
        (void)o;                             \
        p.__VA_ARGS__;                       \
    }

// One row for each request, in the catalogue's order.
std::vector<Row> rows() {
    const QString url = grantedFileURL().toString();
    const QUrl file = grantedFileURL();
    const QSizeF vga(640, 480);
    // clang-format off
    return {
        {Short, {}, CALL(stopCurrentActiveSessionWithHandler(Block(o)))},
        {Short, {}, CALL(stopAllActiveClients())},
        {Short, {3, size(640, 480), 1, 0}, CALL(startInAppRecordingWithContextID(3, QSizeF(640, 480), 1, 0, Block(o)))},
        {Short, {}, CALL(stopInAppRecordingWithHandler(Block(o)))},
        {TaggedProxyError, {url}, CALL(stopInAppRecordingWithUrl(grantedFileURL(), Block(o)))},
        {Short, {}, CALL(discardInAppRecordingWithHandler(Block(o)))},
        {Short, {}, CALL(pauseInAppRecording())},
        {TaggedError, {8}, CALL(resumeInAppRecordingWithWindowLayerContextID(8, Block(o)))},
        {Short, {9, size(320, 200), 0, 1}, CALL(startInAppCaptureWithContextID(9, QSizeF(320, 200), 0, 1, Block(o)))},
        {Short, {}, CALL(stopInAppCaptureWithHandler(Block(o)))},
        {Short, {}, CALL(pauseInAppCapture())},
        {TaggedError, {12}, CALL(resumeInAppCaptureWithWindowLayerContextID(12, Block(o)))},
        {Short, {"com.example.host", "com.example.service.setup", "Y29uZmln", jmap("k", 1)},
         CALL(setupBroadcastWithHostBundleID("com.example.host", "com.example.service.setup", QByteArray("config"), vmap("k", 1), Block(o)))},
        {Short, {14, size(1, 2), 1, 1, QJsonObject{{"endpoint", "unix:path=/tmp/x"}}},
         CALL(startInAppBroadcastWithContextID(14, QSizeF(1, 2), 1, 1, NSXPCListenerEndpoint("unix:path=/tmp/x"), Block(o)))},
        {Short, {}, CALL(stopInAppBroadcastWithHandler(Block(o)))},
        {Short, {}, CALL(pauseInAppBroadcast())},
        {TaggedError, {17}, CALL(resumeInAppBroadcastWithWindowLayerContextID(17, Block(o)))},
        {TaggedProxyError, {"not-a-token", 0}, CALL(consumeSandboxExtension("not-a-token", 0))},
        {Short, {}, CALL(ledraApplicationDidResignActive())},
        {TaggedError, {20}, CALL(ledraApplicationDidBecomeActiveWithContextID(20, Block(o)))},
        {Short, {jmap("a", 21)}, CALL(appAudioCaptureOutputHandler(vmap("a", 21)))},
        {TaggedProxyError, {url}, CALL(saveVideo(grantedFileURL(), Block(o)))},
        {Short, {"file:///tmp/v.mov"}, CALL(saveVideoToCameraRoll(QUrl("file:///tmp/v.mov"), Block(o)))},
        {Short, {"file:///tmp/c.mov"}, CALL(saveClipToCameraRoll(QUrl("file:///tmp/c.mov"), Block(o)))},
        {Short, {QJsonValue(qint64(1) << 40)}, CALL(reportCameraUsage(int64_t(1) << 40))},
        {TaggedProxyError, {-26}, CALL(updateProcessIDForAudioCaptureWithPID(-26))},
        {Short, {"https://example.com/live/27"}, CALL(setBroadcastURL(QUrl("https://example.com/live/27")))},
        {TaggedProxyError, {28, size(28, 28), 0, 0}, CALL(startClipBufferingWithContextID(28, QSizeF(28, 28), 0, 0, Block(o)))},
        {TaggedProxyError, {}, CALL(stopClipBufferingWithCompletionHandler(Block(o)))},
        {TaggedProxyError, {url, 2.5}, CALL(exportClipToURL(grantedFileURL(), 2.5, Block(o)))},
        {TaggedError, {31}, CALL(resumeInAppClipWithWindowLayerContextID(31, Block(o)))},
        {TaggedError, {"s32", jmap("c", 1), jmap("d", 2)}, CALL(updateStreamWithStreamConfiguration("s32", vmap("c", 1), vmap("d", 2), Block(o)))},
        {TaggedError, {"s33", jmap("f", 1), jmap("d", 2)}, CALL(updateStreamWithContentFilter("s33", vmap("f", 1), vmap("d", 2), Block(o)))},
        {TaggedError, {"s34", jmap("f", 3), jmap("p", 4)}, CALL(startCapture("s34", vmap("f", 3), vmap("p", 4), Block(o)))},
        {TaggedError, {"s35", jmap("d", 5)}, CALL(stop("s35", vmap("d", 5), Block(o)))},
        {TaggedError, {1, 36}, CALL(fetchShareableContentWithOption(1, 36, Block(o)))},
    };
    // clang-format on
}

// The untagged rows whose texts differ from "LMDaemonProxy: <first part>:withHandler:" and
// "LMDaemonProxy: <first part>: proxy error: %d"; a null text keeps the pattern, an empty entry
// means none is written.
const std::map<int, std::pair<QString, QString>>& differingRows() {
    static const std::map<int, std::pair<QString, QString>> rows = {
        {7, {"LMDaemonProxy: pauseInAppRecording:", {}}},
        {11, {"LMDaemonProxy: pauseInAppCapture", {}}},
        {13, {"LMDaemonProxy: setupBroadcastWithHostBundleID:", "error: %d"}},
        {16, {"LMDaemonProxy: pauseInAppBroadcast:", {}}},
        {19,
         {"LMDaemonProxy: ledraApplicationDidResignActive:",
          "LMDaemonProxy: ledraApplicationDidResignActive proxy error: %d"}},
        {21, {"", "LMDaemonProtocol: appAudioCaptureOutputHandler: proxy error: %d"}},
        {23,
         {"LMDaemonProxy: saveVideoToCameraRoll:",
          "LMDaemonProxy: saveVideoToCameraRoll proxy error: %d"}},
        {24,
         {"LMDaemonProxy: saveClipToCameraRoll:",
          "LMDaemonProxy: saveClipToCameraRoll proxy error: %d"}},
        {25,
         {"LMDaemonProxy: reportFrontCameraUsage",
          "LMDaemonProtocol: reportFrontCameraUsage: proxy error: %d"}},
        {27, {"", "LMDaemonProtocol: hasUserConsentForMicrophone: proxy error: %d"}},
    };
    return rows;
}

std::vector<RequestCase> makeCases() {
    std::vector<RequestCase> cases;
    const std::vector<Row> table = rows();
    for (const LMDaemonRequest& request : LMDaemonRequestCatalogue()) {
        const Row& row = table.at(static_cast<size_t>(request.row - 1));
        RequestCase c{
            request.row,
            QString::fromLatin1(request.selector.data(),
                                static_cast<qsizetype>(request.selector.size())),
            row.kind != Short,
            {},
            row.kind == TaggedError ? QStringLiteral("error: ") : QStringLiteral("proxy error: "),
            row.args,
            row.call};
        if (row.kind == Short) {
            const QString first = c.selector.section(QLatin1Char(':'), 0, 0);
            c.entryText = QStringLiteral("LMDaemonProxy: %1:withHandler:").arg(first);
            c.errorText = QStringLiteral("LMDaemonProxy: %1: proxy error: %d").arg(first);
            const auto differing = differingRows().find(c.row);
            if (differing != differingRows().end()) {
                const auto& [entry, error] = differing->second;
                c.entryText = entry.isNull() ? c.entryText : entry;
                c.errorText = error.isNull() ? c.errorText : error;
            }
        }
        cases.push_back(std::move(c));
    }
    return cases;
}

}  // namespace

const std::vector<RequestCase>& requestCases() {
    static const std::vector<RequestCase> cases = makeCases();
    return cases;
}

}  // namespace lumaro::test
