// LMDaemonProxy on a private bus. Against the reference daemon: every request of the catalogue
// arrives with its selector and arguments, tokens are checked, replies reach the blocks once, and
// the invocation hook sees replies and callbacks. With nobody owning the name: every request fails
// through its error handler in its row's words. And the installed D-Bus contract.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <map>

#include "daemon/LMDaemonProtocol.h"
#include "daemon/LMDaemonProxy.h"
#include "daemon/LMDaemonRequestCatalogue.h"
#include "logging/LMLog.h"
#include "platform/dispatch/dispatch.h"
#include "platform/sandbox/entitlements.h"
#include "platform/sandbox/sandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestBus.h"

using namespace lumaro::test;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

const QString kSupport = QStringLiteral("/Library/Application Support/com.vantor.lumarod");

// The process-wide scene, set up before the shared proxy is first used: a fresh home folder with
// the daemon's support folder (the only one the sandbox lets a client write), a private bus, and
// the reference daemon recording what it receives.
class Scene {
public:
    Scene() {
        qputenv("HOME", home_.path().toUtf8());
        QDir().mkpath(home_.path() + kSupport);
        platform::sandbox::setEntitlementsForTesting(
            {{QString::fromLatin1(platform::sandbox::kAppSandboxEntitlement), true},
             {QString::fromLatin1(platform::sandbox::kHomeRelativeReadWriteEntitlement),
              QStringList{kSupport + QLatin1Char('/')}}});
        bus_.exportToEnvironment();
        daemon_.start();
        bus_.waitForName(QString::fromLatin1(kLMDaemonServiceName), true, 10000);
    }
    QString record() const { return home_.file(QStringLiteral("record.jsonl")); }

    // The record's lines with this selector, in order.
    QList<QJsonObject> records(const QString& selector) const {
        QList<QJsonObject> lines;
        for (const QJsonObject& line : readJsonLines(record())) {
            if (line.value(QStringLiteral("selector")).toString() == selector) {
                lines << line;
            }
        }
        return lines;
    }
    // Waits until the record holds `count` lines with this selector; answers the last one (none
    // when they did not come).
    QJsonObject waitForRecord(const QString& selector, qsizetype count) const {
        QList<QJsonObject> lines;
        runMainLoopUntil([&] { return (lines = records(selector)).size() >= count; }, 10000);
        return lines.size() >= count ? lines.last() : QJsonObject();
    }

private:
    TempDir home_;
    PrivateBus bus_;
    ChildProcess daemon_{
        buildPath(QStringLiteral("programs/lumarod-reference/lumarod-reference")),
        {QStringLiteral("--record"), record(), QStringLiteral("--fail"),
         QStringLiteral("stopInAppCaptureWithHandler:=42"), QStringLiteral("--callback"),
         QStringLiteral("recordingDidPause"), QStringLiteral("--callback"),
         QStringLiteral("appAudioCaptureStopWithHandler:")}};
};
Scene gScene;

QUrl grantedFileURL() {
    return QUrl::fromLocalFile(QDir::homePath() + kSupport + QStringLiteral("/clip.mov"));
}
QString folderOf(const QUrl& url) {
    return url.path().left(url.path().lastIndexOf(QLatin1Char('/')));
}
QString text(std::string_view s) {
    return QString::fromLatin1(s.data(), static_cast<qsizetype>(s.size()));
}

size_t countMatching(const LogCapture& capture, const QString& pattern) {
    const QRegularExpression re(QStringLiteral("^") + pattern + QStringLiteral("$"));
    size_t n = 0;
    for (const auto& line : capture.texts()) {
        n += re.match(QString::fromStdString(line)).hasMatch() ? 1 : 0;
    }
    return n;
}

class LevelGuard {
public:
    explicit LevelGuard(uint32_t level) : saved_(__LMLogLevel.load()) { LMLogSetLogLevel(level); }
    ~LevelGuard() { LMLogSetLogLevel(saved_); }

private:
    uint32_t saved_;
};

// What a request's completion block saw.
struct Outcome {
    std::atomic<bool> blockHanded{false};
    std::atomic<int> blockCalls{0};
    std::atomic<int> errorsInBlock{0};
    std::atomic<int64_t> lastErrorCode{0};
};
using OutcomePtr = std::shared_ptr<Outcome>;

// Any completion block: counts its calls and notes an error among its arguments.
struct Block {
    explicit Block(OutcomePtr outcome) : o(std::move(outcome)) { o->blockHanded = true; }
    OutcomePtr o;
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

// How a row logs: short untagged lines, or tagged lines ending in "error: " or "proxy error: ".
enum Kind { Short, TaggedProxyError, TaggedError };

// A request made with recognisable arguments, and those arguments as the daemon records them
// (tokens left out).
struct Row {
    Kind kind;
    QJsonArray args;
    std::function<void(LMDaemonProxy&, const OutcomePtr&)> call;
};

#define CALL(...)                               \
    [](LMDaemonProxy& p, const OutcomePtr& o) { \
        (void)o;                                \
        p.__VA_ARGS__;                          \
    }

// One row for each request, in the catalogue's order.
const std::vector<Row>& rows() {
    static const QString url = grantedFileURL().toString();
    // clang-format off
    static const std::vector<Row> table = {
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
    return table;
}

const Row& rowOf(const LMDaemonRequest& request) {
    return rows().at(static_cast<size_t>(request.row - 1));
}

// The lines a request that fails with `code` writes at `level`, line numbers written ":N". Short
// rows write "LMDaemonProxy: <first part>:withHandler:" and "LMDaemonProxy: <first part>: proxy
// error: %d" at any level, except the rows listed (a null text keeps the pattern, an empty one
// means no line); tagged rows follow the log level.
std::vector<std::string> expectedLines(const LMDaemonRequest& request, uint32_t level, int code) {
    static const std::map<int, std::pair<QString, QString>> differing = {
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
    const QString selector = text(request.selector);
    const Kind kind = rowOf(request).kind;
    std::vector<std::string> lines;
    if (kind != Short) {
        const QString method = QStringLiteral("-[LMDaemonProxy %1]").arg(selector);
        if (level < 2) {
            lines.push_back(QStringLiteral(" [INFO] %1:N ").arg(method).toStdString());
        }
        if (level < 3) {
            const QString error = kind == TaggedError ? "error: " : "proxy error: ";
            lines.push_back(QStringLiteral(" [ERROR] %1_block_invoke:N %2%3")
                                .arg(method, error)
                                .arg(code)
                                .toStdString());
        }
        return lines;
    }
    const QString first = selector.section(QLatin1Char(':'), 0, 0);
    QString entry = QStringLiteral("LMDaemonProxy: %1:withHandler:").arg(first);
    QString error = QStringLiteral("LMDaemonProxy: %1: proxy error: %d").arg(first);
    if (const auto row = differing.find(request.row); row != differing.end()) {
        entry = row->second.first.isNull() ? entry : row->second.first;
        error = row->second.second.isNull() ? error : row->second.second;
    }
    if (!entry.isEmpty()) {
        lines.push_back(entry.toStdString());
    }
    lines.push_back(error.replace(QStringLiteral("%d"), QString::number(code)).toStdString());
    return lines;
}

// The installed D-Bus contract is what the protocol tables make; that every request's member maps
// to its selector and back is the road of each request to the daemon below.
TEST(DaemonContractTest, InstalledXmlIsWhatTheProtocolTablesMake) {
    for (const auto& [file, protocol] :
         {std::pair("daemon/dbus/com.vantor.lumarod.Daemon.xml", &LMDaemonProtocol()),
          std::pair("daemon/dbus/com.vantor.lumarod.Client.xml", &LMClientProtocol())}) {
        QFile xml(sourcePath(QString::fromLatin1(file)));
        ASSERT_TRUE(xml.open(QIODevice::ReadOnly)) << file;
        EXPECT_EQ(QString::fromUtf8(xml.readAll()),
                  LMIntrospectionDocument(NSXPCInterface(*protocol)));
    }
}

TEST(DaemonProxyTest, SetUpHandsTheDaemonAValidBundleReadToken) {
    auto proxy = LMDaemonProxy::daemonProxy();
    const QJsonObject line =
        gScene.waitForRecord(QStringLiteral("consumeSandboxExtension:processNewConnection:"), 1);
    ASSERT_FALSE(line.isEmpty());
    EXPECT_TRUE(line.value(QStringLiteral("tokenValid")).toBool());
    EXPECT_EQ(line.value(QStringLiteral("tokenClass")).toString(),
              QStringLiteral("com.vantor.app-sandbox.read"));
    EXPECT_EQ(line.value(QStringLiteral("args")).toArray().at(1).toInt(), 1);
    EXPECT_EQ(line.value(QStringLiteral("sender")).toString(),
              proxy->connection()->uniqueBusName());
}

TEST(DaemonProxyTest, EveryRequestReachesTheDaemonWithItsArguments) {
    auto proxy = LMDaemonProxy::daemonProxy();
    for (const LMDaemonRequest& request : LMDaemonRequestCatalogue()) {
        SCOPED_TRACE(request.row);
        const bool carriesFile = !request.tokenSelector.empty();
        const QString received = text(carriesFile ? request.tokenSelector : request.selector);
        const qsizetype before = gScene.records(received).size();
        auto outcome = std::make_shared<Outcome>();
        rowOf(request).call(*proxy, outcome);
        const QJsonObject line = gScene.waitForRecord(received, before + 1);
        ASSERT_FALSE(line.isEmpty()) << received.toStdString();
        QJsonArray args = line.value(QStringLiteral("args")).toArray();
        if (carriesFile) {
            EXPECT_TRUE(line.value(QStringLiteral("tokenValid")).toBool());
            EXPECT_EQ(line.value(QStringLiteral("tokenPath")).toString(),
                      folderOf(grantedFileURL()));
            EXPECT_EQ(line.value(QStringLiteral("tokenClass")).toString(),
                      QStringLiteral("com.vantor.app-sandbox.read-write"));
            // The token goes before the block, after the file's own arguments.
            args.removeAt(
                received.split(QLatin1Char(':')).indexOf(QStringLiteral("extensionToken")));
        }
        if (request.row == 18) {
            EXPECT_FALSE(line.value(QStringLiteral("tokenValid")).toBool(true));
        }
        EXPECT_EQ(QJsonDocument(args).toJson(QJsonDocument::Compact),
                  QJsonDocument(rowOf(request).args).toJson(QJsonDocument::Compact));
        if (outcome->blockHanded) {
            ASSERT_TRUE(runMainLoopUntil([&] { return outcome->blockCalls.load() > 0; }, 10000));
            EXPECT_EQ(outcome->errorsInBlock.load(), request.row == 10 ? 1 : 0);
            if (request.row == 10) {
                EXPECT_EQ(outcome->lastErrorCode.load(), 42);
            }
        }
    }
    EXPECT_TRUE(proxy->broadcastURL().isEmpty());
}

// Nobody owns the name this proxy's connection is for: each request returns at once, its block is
// never called, and its error handler writes its row's lines.
TEST(DaemonUnreachableTest, EveryRequestFailsThroughItsErrorHandlerInTheRowsWords) {
    auto proxy = std::make_shared<LMDaemonProxy>();
    proxy->setConnection(
        NSXPCConnection::initWithMachServiceName(QStringLiteral("com.vantor.lumarod.nobody"), 0));
    proxy->connection()->setRemoteObjectInterface(
        NSXPCInterface::interfaceWithProtocol(LMDaemonProtocol()));
    proxy->connection()->resume();
    NSXPCConnection* const link = proxy->connection().get();
    const QRegularExpression lineNumber(QStringLiteral(":\\d+ "));
    for (const LMDaemonRequest& request : LMDaemonRequestCatalogue()) {
        for (uint32_t level : {0u, 1u, 2u, 3u}) {
            SCOPED_TRACE(testing::Message() << "row " << request.row << " level " << level);
            LevelGuard guard(level);
            LogCapture capture;
            auto outcome = std::make_shared<Outcome>();
            rowOf(request).call(*proxy, outcome);
            // A message of its own after the request: its error handler running means the
            // request's has run (one queue, failures in the order of sending). 2: it ran on the
            // connection's queue with the link's error.
            auto sentinel = std::make_shared<std::atomic<int>>(0);
            proxy->connection()
                ->remoteObjectProxyWithErrorHandler([sentinel, link](const NSErrorPtr& error) {
                    *sentinel = error->code() == NSXPCConnectionInvalid &&
                                        error->domain() == NSPlatformErrorDomain &&
                                        NSXPCConnection::currentConnection() == link
                                    ? 2
                                    : 1;
                })
                ->send("pauseInAppCapture", {});
            ASSERT_TRUE(runMainLoopUntil([&] { return sentinel->load() != 0; }, 10000));
            EXPECT_EQ(sentinel->load(), 2);
            std::vector<std::string> lines;  // the file rows' token lines are checked below
            for (const std::string& line : capture.texts()) {
                if (line.find("sandbox extension") == std::string::npos) {
                    lines.push_back(QString::fromStdString(line)
                                        .replace(lineNumber, QStringLiteral(":N "))
                                        .toStdString());
                }
            }
            EXPECT_EQ(lines, expectedLines(request, level, NSXPCConnectionInvalid));
            EXPECT_EQ(outcome->blockCalls.load(), 0);
        }
    }
}

TEST(DaemonProxyTest, FileRequestWithoutTokenStillReachesTheDaemonPlain) {
    auto proxy = LMDaemonProxy::daemonProxy();
    const QUrl denied = QUrl::fromLocalFile(QStringLiteral("/usr/lib/lumaro-denied/a.mov"));
    const QString selector = QStringLiteral("saveVideo:handler:");
    LogCapture capture;
    const qsizetype before = gScene.records(selector).size();
    proxy->saveVideo(denied, [](NSErrorPtr) {});
    const QJsonObject line = gScene.waitForRecord(selector, before + 1);
    ASSERT_FALSE(line.isEmpty());
    EXPECT_FALSE(line.contains(QStringLiteral("tokenValid")));
    EXPECT_EQ(line.value(QStringLiteral("args")).toArray().at(0).toString(), denied.toString());
    EXPECT_EQ(countMatching(capture, QStringLiteral(" \\[ERROR\\] -\\[LMDaemonProxy "
                                                    "saveVideo:handler:\\]:\\d+ error issuing "
                                                    "sandbox extension for client file ") +
                                         QRegularExpression::escape(denied.toString())),
              1u);
    EXPECT_EQ(
        countMatching(capture, QStringLiteral(" \\[ERROR\\] -\\[LMDaemonProxy "
                                              "issueSandboxExtensionForClientFileWrite:\\]:\\d+ "
                                              "Error issuing sandbox extension for client folder "
                                              "path /usr/lib/lumaro-denied")),
        1u);
}

const QString kHookLine = QStringLiteral(
    " \\[DEBUG\\] -\\[LMDaemonProxy connection:handleInvocation:isReply:\\]:\\d+ %1 for "
    "invocation");

// The hook is the real connection's: it sees the reply and the two callbacks that the daemon
// sends after it (its levels are checked on the hook itself below).
TEST(DaemonProxyTest, HookSeesRepliesAndCallbacksFromTheDaemon) {
    auto proxy = LMDaemonProxy::daemonProxy();
    LevelGuard guard(0);
    LogCapture capture;
    std::atomic<int> calls{0};
    proxy->stopClipBufferingWithCompletionHandler([&](NSErrorPtr) { calls++; });
    ASSERT_TRUE(runMainLoopUntil([&] { return calls.load() == 1; }, 10000));
    EXPECT_TRUE(runMainLoopUntil(
        [&] { return countMatching(capture, kHookLine.arg("did not receive reply")) >= 2; },
        10000));
    EXPECT_GE(countMatching(capture, kHookLine.arg("received reply")), 1u);
    for (const auto& l : readJsonLines(gScene.record())) {
        EXPECT_FALSE(l.contains(QStringLiteral("callbackReply")))
            << "the client never calls the daemon's blocks";
    }
}

TEST(DaemonProxyTest, TheDaemonRecordsTamperedAndMisdirectedTokensAsInvalid) {
    auto proxy = LMDaemonProxy::daemonProxy();
    const QUrl file = grantedFileURL();
    const QString folder = folderOf(file);
    QDir().mkpath(folder + QStringLiteral("/other"));
    auto issue = [](const char* extensionClass, const QString& path) {
        char* token = sandbox_extension_issue_file(extensionClass, path.toUtf8().constData(),
                                                   SANDBOX_EXTENSION_DEFAULT);
        const QString string = token ? QString::fromUtf8(token) : QString();
        free(token);  // NOLINT(cppcoreguidelines-no-malloc)
        return string;
    };
    const QString good = issue(APP_SANDBOX_READ_WRITE, folder);
    ASSERT_FALSE(good.isEmpty());
    QString tampered = good;
    tampered[tampered.size() - 1] = tampered.endsWith(QLatin1Char('0')) ? u'1' : u'0';

    // Every way of tampering is the sandbox's own test (tests/platform/sandbox); here the daemon's
    // part: it checks the token at all, and a valid one must grant the file it comes with.
    auto raw = NSXPCConnection::initWithMachServiceName(QStringLiteral("com.vantor.lumarod"), 0);
    raw->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol(LMDaemonProtocol()));
    raw->resume();
    const QString save = QStringLiteral("saveVideo:extensionToken:handler:");
    const std::vector<std::pair<QString, QString>> carried = {
        {tampered, QStringLiteral("bad signature")},
        {issue(APP_SANDBOX_READ_WRITE, folder + QStringLiteral("/other")),
         QStringLiteral("does not grant this path")},
        {issue(APP_SANDBOX_READ, folder), QStringLiteral("does not grant this path")},
        {good, QString()},
    };
    for (const auto& [token, reason] : carried) {
        SCOPED_TRACE(token.toStdString());
        ASSERT_FALSE(token.isEmpty());
        const qsizetype before = gScene.records(save).size();
        std::atomic<int> replies{0};
        raw->remoteObjectProxy()->send(save.toStdString(), {file, token},
                                       [&](const QVariantList&) { replies++; });
        const QJsonObject line = gScene.waitForRecord(save, before + 1);
        ASSERT_FALSE(line.isEmpty());
        EXPECT_EQ(line.value(QStringLiteral("tokenValid")).toBool(), reason.isNull());
        EXPECT_EQ(line.value(QStringLiteral("tokenReason")).toString(), reason);
        EXPECT_TRUE(runMainLoopUntil([&] { return replies.load() == 1; }, 10000));
    }
}

class RecordingTarget final : public NSXPCInvocationTarget {
public:
    void performSelector(const QString&, const QVariantList&) override { calls++; }
    int calls = 0;
};

TEST(DaemonProxyTest, HookRetainsOnlyRepliesInvokesOnceAndDropsTheTarget) {
    auto proxy = LMDaemonProxy::daemonProxy();
    for (uint32_t level : {0u, 1u}) {
        for (bool isReply : {true, false}) {
            SCOPED_TRACE(testing::Message() << "level " << level << " reply " << isReply);
            LevelGuard guard(level);
            LogCapture capture;
            auto target = std::make_shared<RecordingTarget>();
            NSInvocation invocation(QStringLiteral("stopClipBufferingWithCompletionHandler:"),
                                    {QVariant()}, target);
            proxy->connection(proxy->connection().get(), invocation, isReply);
            EXPECT_EQ(target->calls, 1);
            EXPECT_EQ(invocation.argumentsRetained(), isReply);
            EXPECT_EQ(invocation.target(), NSNull::null());
            invocation.invoke();  // a second delivery reaches nobody
            EXPECT_EQ(target->calls, 1);
            // One line, at level 0 only.
            EXPECT_EQ(capture.texts().size(), level == 0 ? 1u : 0u);
            EXPECT_EQ(countMatching(capture, kHookLine.arg(isReply ? "received reply"
                                                                   : "did not receive reply")),
                      level == 0 ? 1u : 0u);
        }
    }
}

}  // namespace
