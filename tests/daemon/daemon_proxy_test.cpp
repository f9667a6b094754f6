// LMDaemonProxy against the reference daemon on a private bus: every request arrives with its
// selector and arguments, tokens are valid, replies reach the blocks once, and the invocation hook
// sees replies and callbacks.
#include <gtest/gtest.h>

#include <QDir>
#include <QJsonDocument>
#include <QRegularExpression>

#include "daemon/LMDaemonProtocol.h"
#include "logging/LMLog.h"
#include "platform/dispatch/dispatch.h"
#include "platform/sandbox/sandbox.h"
#include "tests/daemon/DaemonEnvironment.h"
#include "tests/daemon/RequestCases.h"

using lumaro::test::DaemonEnvironment;
using lumaro::test::RequestOutcome;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

const QStringList kDaemonArguments = {
    QStringLiteral("--fail"),     QStringLiteral("stopInAppCaptureWithHandler:=42"),
    QStringLiteral("--callback"), QStringLiteral("recordingDidPause"),
    QStringLiteral("--callback"), QStringLiteral("appAudioCaptureStopWithHandler:")};
DaemonEnvironment gEnvironment(&kDaemonArguments);

size_t countMatching(const LogCapture& capture, const QString& pattern) {
    const QRegularExpression re(QStringLiteral("^") + pattern + QStringLiteral("$"));
    size_t n = 0;
    for (const auto& text : capture.texts()) {
        n += re.match(QString::fromStdString(text)).hasMatch() ? 1 : 0;
    }
    return n;
}

QString folderOf(const QUrl& url) {
    return url.path().left(url.path().lastIndexOf(QLatin1Char('/')));
}

class LevelGuard {
public:
    explicit LevelGuard(uint32_t level) : saved_(__LMLogLevel.load()) { LMLogSetLogLevel(level); }
    ~LevelGuard() { LMLogSetLogLevel(saved_); }

private:
    uint32_t saved_;
};

TEST(DaemonProxyTest, SetUpHandsTheDaemonAValidBundleReadToken) {
    auto proxy = LMDaemonProxy::daemonProxy();
    ASSERT_TRUE(proxy);
    EXPECT_EQ(proxy->connection()->serviceName(), QStringLiteral("com.vantor.lumarod"));
    EXPECT_EQ(proxy->connection()->options(), 256u);
    const QJsonObject line = gEnvironment.waitForRecord(
        QStringLiteral("consumeSandboxExtension:processNewConnection:"), 1);
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
    for (const auto& c : lumaro::test::requestCases()) {
        SCOPED_TRACE(c.row);
        const bool carriesFile = c.row == 5 || c.row == 22 || c.row == 30;
        const QString received = carriesFile ? lumaro::test::tokenSelector(c.selector) : c.selector;
        const int before = gEnvironment.recordCount(received);
        auto outcome = std::make_shared<RequestOutcome>();
        c.call(*proxy, outcome);
        const QJsonObject line = gEnvironment.waitForRecord(received, before + 1);
        ASSERT_FALSE(line.isEmpty()) << received.toStdString();
        QJsonArray args = line.value(QStringLiteral("args")).toArray();
        if (carriesFile) {
            EXPECT_TRUE(line.value(QStringLiteral("tokenValid")).toBool());
            EXPECT_EQ(line.value(QStringLiteral("tokenPath")).toString(),
                      folderOf(lumaro::test::grantedFileURL()));
            EXPECT_EQ(line.value(QStringLiteral("tokenClass")).toString(),
                      QStringLiteral("com.vantor.app-sandbox.read-write"));
            args.removeAt(lumaro::test::tokenIndex(c.selector));
        }
        if (c.row == 18) {
            EXPECT_FALSE(line.value(QStringLiteral("tokenValid")).toBool(true));
        }
        EXPECT_EQ(QJsonDocument(args).toJson(QJsonDocument::Compact),
                  QJsonDocument(c.expectedArgs).toJson(QJsonDocument::Compact));
        if (outcome->blockHanded) {
            ASSERT_TRUE(runMainLoopUntil([&] { return outcome->blockCalls.load() > 0; }, 10000));
            EXPECT_EQ(outcome->errorsInBlock.load(), c.row == 10 ? 1 : 0);
            if (c.row == 10) {
                EXPECT_EQ(outcome->lastErrorCode.load(), 42);
            }
        }
    }
    EXPECT_TRUE(proxy->broadcastURL().isEmpty());
}

TEST(DaemonProxyTest, FileRequestWithoutTokenStillReachesTheDaemonPlain) {
    auto proxy = LMDaemonProxy::daemonProxy();
    const QUrl denied = lumaro::test::deniedFileURL();
    struct Case {
        QString selector;
        std::function<void()> call;
    };
    const std::vector<Case> cases = {
        {QStringLiteral("stopInAppRecordingWithUrl:handler:"),
         [&] {
             proxy->stopInAppRecordingWithUrl(denied, [](NSErrorPtr) {});
         }},
        {QStringLiteral("saveVideo:handler:"),
         [&] {
             proxy->saveVideo(denied, [](NSErrorPtr) {});
         }},
        {QStringLiteral("exportClipToURL:duration:completionHandler:"),
         [&] {
             proxy->exportClipToURL(denied, 1.0, [](NSErrorPtr) {});
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.selector.toStdString());
        LogCapture capture;
        const int before = gEnvironment.recordCount(c.selector);
        c.call();
        const QJsonObject line = gEnvironment.waitForRecord(c.selector, before + 1);
        ASSERT_FALSE(line.isEmpty());
        EXPECT_FALSE(line.contains(QStringLiteral("tokenValid")));
        EXPECT_EQ(line.value(QStringLiteral("args")).toArray().at(0).toString(), denied.toString());
        const QString method =
            QRegularExpression::escape(QStringLiteral("-[LMDaemonProxy %1]").arg(c.selector));
        EXPECT_EQ(countMatching(capture, QStringLiteral(" \\[ERROR\\] ") + method +
                                             QStringLiteral(":\\d+ error issuing sandbox extension "
                                                            "for client file ") +
                                             QRegularExpression::escape(denied.toString())),
                  1u);
        EXPECT_EQ(countMatching(capture,
                                QStringLiteral(" \\[ERROR\\] -\\[LMDaemonProxy "
                                               "issueSandboxExtensionForClientFileWrite:\\]:\\d+ "
                                               "Error issuing sandbox extension for client folder "
                                               "path /usr/lib/lumaro-denied")),
                  1u);
    }
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
    for (const auto& l : lumaro::test::readJsonLines(gEnvironment.recordPath())) {
        EXPECT_FALSE(l.contains(QStringLiteral("callbackReply")))
            << "the client never calls the daemon's blocks";
    }
}

TEST(DaemonProxyTest, TheDaemonRecordsTamperedAndMisdirectedTokensAsInvalid) {
    auto proxy = LMDaemonProxy::daemonProxy();
    const QUrl file = lumaro::test::grantedFileURL();
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
        const int before = gEnvironment.recordCount(save);
        std::atomic<int> replies{0};
        raw->remoteObjectProxy()->send(save.toStdString(), {file, token},
                                       [&](const QVariantList&) { replies++; });
        const QJsonObject line = gEnvironment.waitForRecord(save, before + 1);
        ASSERT_FALSE(line.isEmpty());
        EXPECT_EQ(line.value(QStringLiteral("tokenValid")).toBool(), reason.isNull());
        EXPECT_EQ(line.value(QStringLiteral("tokenReason")).toString(), reason);
        EXPECT_TRUE(runMainLoopUntil([&] { return replies.load() == 1; }, 10000));
    }
}

class RecordingTarget final : public NSXPCInvocationTarget {
public:
    void performSelector(const QString& selector, const QVariantList& arguments) override {
        calls++;
        lastSelector = selector;
    }
    int calls = 0;
    QString lastSelector;
};

TEST(DaemonProxyTest, HookRetainsOnlyRepliesInvokesOnceAndDropsTheTarget) {
    auto proxy = LMDaemonProxy::daemonProxy();
    for (uint32_t level : {0u, 1u, 2u, 3u}) {
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
            EXPECT_EQ(capture.records().size(), level == 0 ? 1u : 0u);
            if (level == 0) {
                EXPECT_EQ(capture.records()[0].type, OS_LOG_TYPE_DEFAULT);
                EXPECT_EQ(countMatching(capture, kHookLine.arg(isReply ? "received reply"
                                                                       : "did not receive reply")),
                          1u);
            }
        }
    }
}

}  // namespace
