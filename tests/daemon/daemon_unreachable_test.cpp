// LMDaemonProxy with nobody owning the daemon's name: each request returns at once, its block is
// never called, and its error handler writes exactly one line in the row's words, at the levels
// the row's logging allows.
#include <gtest/gtest.h>

#include <QRegularExpression>

#include "logging/LMLog.h"
#include "platform/dispatch/dispatch.h"
#include "tests/daemon/DaemonEnvironment.h"
#include "tests/daemon/RequestCases.h"

using lumaro::test::DaemonEnvironment;
using lumaro::test::RequestOutcome;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;
using platform::log::LogRecord;

namespace {

DaemonEnvironment gEnvironment(nullptr);

const std::string kSentinel = "LMDaemonProxy: stopAllActiveClients: proxy error: 4099";

// Sends a message of its own after the request under test; its error handler running means the
// earlier handlers have run (one queue, failures in the order of sending).
std::shared_ptr<std::atomic<bool>> sendSentinel(LMDaemonProxy& proxy) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    proxy.connection()
        ->remoteObjectProxyWithErrorHandler([done](const NSErrorPtr&) { *done = true; })
        ->send("pauseInAppCapture", {});
    return done;
}

TEST(DaemonUnreachableTest, EveryRequestFailsThroughItsErrorHandlerInTheRowsWords) {
    auto proxy = LMDaemonProxy::daemonProxy();
    {
        // Set-up's token hand-over fails the same way; let it finish first.
        LogCapture settle;
        proxy->stopAllActiveClients();
        ASSERT_TRUE(runMainLoopUntil([&] { return settle.count(kSentinel) == 1; }, 10000));
    }
    const uint32_t saved = __LMLogLevel.load();
    for (const auto& c : lumaro::test::requestCases()) {
        for (uint32_t level : {0u, 1u, 2u, 3u}) {
            SCOPED_TRACE(testing::Message() << "row " << c.row << " level " << level);
            LMLogSetLogLevel(level);
            LogCapture capture;
            auto outcome = std::make_shared<RequestOutcome>();
            c.call(*proxy, outcome);
            auto sentinel = sendSentinel(*proxy);
            ASSERT_TRUE(runMainLoopUntil([&] { return sentinel->load(); }, 10000));
            const auto records = capture.records();

            // Lines other than the request's own entry and error lines: the sandbox and the
            // sentinel's entry line.
            std::vector<std::string> entry;
            std::vector<LogRecord> errors;
            const QString method = QStringLiteral("-[LMDaemonProxy %1]").arg(c.selector);
            for (const auto& r : records) {
                const QString text = QString::fromStdString(r.text);
                if (text.contains(QStringLiteral("sandbox extension"))) {
                    continue;  // the file rows' token lines, checked elsewhere
                }
                if (r.type == OS_LOG_TYPE_ERROR) {
                    errors.push_back(r);
                } else {
                    entry.push_back(r.text);
                }
            }
            const QString code = QStringLiteral("4099");
            if (!c.tagged) {
                ASSERT_EQ(errors.size(), 1u);
                EXPECT_EQ(QString::fromStdString(errors[0].text),
                          QString(c.errorText).replace(QStringLiteral("%d"), code));
                ASSERT_EQ(entry.size(), c.entryText.isEmpty() ? 0u : 1u);
                if (!c.entryText.isEmpty()) {
                    EXPECT_EQ(QString::fromStdString(entry[0]), c.entryText);
                }
            } else {
                const QRegularExpression error(
                    QStringLiteral("^ \\[ERROR\\] %1_block_invoke:\\d+ %2%3$")
                        .arg(QRegularExpression::escape(method), c.errorText, code));
                ASSERT_EQ(errors.size(), level < 3 ? 1u : 0u);
                if (level < 3) {
                    EXPECT_TRUE(error.match(QString::fromStdString(errors[0].text)).hasMatch())
                        << errors[0].text;
                }
                const QRegularExpression info(QStringLiteral("^ \\[INFO\\] %1:\\d+ $")
                                                  .arg(QRegularExpression::escape(method)));
                ASSERT_EQ(entry.size(), level < 2 ? 1u : 0u);
                if (level < 2) {
                    EXPECT_TRUE(info.match(QString::fromStdString(entry[0])).hasMatch())
                        << entry[0];
                }
            }
            EXPECT_EQ(outcome->blockCalls.load(), 0);
        }
    }
    LMLogSetLogLevel(saved);
}

TEST(DaemonUnreachableTest, ErrorHandlersRunOnTheConnectionsQueue) {
    auto proxy = LMDaemonProxy::daemonProxy();
    std::atomic<bool> done{false};
    std::atomic<bool> onQueue{false};
    proxy->connection()
        ->remoteObjectProxyWithErrorHandler([&](const NSErrorPtr& error) {
            onQueue = NSXPCConnection::currentConnection() == proxy->connection().get() &&
                      error->code() == NSXPCConnectionInvalid &&
                      error->domain() == NSPlatformErrorDomain;
            done = true;
        })
        ->send("pauseInAppCapture", {});
    ASSERT_TRUE(runMainLoopUntil([&] { return done.load(); }, 10000));
    EXPECT_TRUE(onQueue.load());
}

}  // namespace
