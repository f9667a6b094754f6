// The shared proxy under threads: one object and one connection however many threads ask first,
// and a daemon that dies with a thousand requests in flight ends each of them once, without a
// crash or a hang.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "daemon/LMDaemonProxy.h"
#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "tests/daemon/DaemonEnvironment.h"

using lumaro::test::DaemonEnvironment;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

const QStringList kNoOptions;
DaemonEnvironment gEnvironment(&kNoOptions);

// Must run first in this binary: nothing has touched the proxy yet.
TEST(DaemonConcurrentTest, TwoThreadsAskingAtOnceGetOneObjectAndOneConnection) {
    ASSERT_EQ(NSXPCConnection::connectionsCreated(), 0);
    std::atomic<bool> go{false};
    std::shared_ptr<LMDaemonProxy> a;
    std::shared_ptr<LMDaemonProxy> b;
    std::thread ta([&] {
        while (!go) {
        }
        a = LMDaemonProxy::daemonProxy();
    });
    std::thread tb([&] {
        while (!go) {
        }
        b = LMDaemonProxy::daemonProxy();
    });
    go = true;
    ta.join();
    tb.join();
    ASSERT_TRUE(a);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a->connection(), b->connection());
    EXPECT_EQ(NSXPCConnection::connectionsCreated(), 1);
}

TEST(DaemonConcurrentTest, DaemonKilledWithAThousandRequestsInFlight) {
    constexpr int kRequests = 1000;
    auto proxy = LMDaemonProxy::daemonProxy();
    LogCapture capture;
    // The blocks run on the connection's queue: what they count outlives this test's frame.
    struct Counts {
        std::vector<std::atomic<int>> blocks = std::vector<std::atomic<int>>(kRequests);
        std::atomic<int> total{0};
    };
    auto counts = std::make_shared<Counts>();
    std::vector<std::atomic<int>>& blocks = counts->blocks;
    std::atomic<int>& blockTotal = counts->total;
    auto send = [&proxy, counts](int from, int to) {
        for (int i = from; i < to; ++i) {
            proxy->setupBroadcastWithHostBundleID(
                QStringLiteral("com.example.host"), QStringLiteral("com.example.service"),
                QByteArray(16, 'x'), QVariantMap{{QStringLiteral("i"), i}},
                [counts, i](NSErrorPtr) {
                    counts->blocks[size_t(i)]++;
                    counts->total++;
                });
        }
    };
    std::thread first(send, 0, kRequests / 2);
    std::thread second(send, kRequests / 2, kRequests);
    runMainLoopUntil([&] { return blockTotal.load() >= 50; }, 10000);
    gEnvironment.daemon()->kill();
    first.join();
    second.join();

    auto errorLines = [&] {
        return capture.count("error: 4097") + capture.count("error: 4099");
    };
    ASSERT_TRUE(runMainLoopUntil(
        [&] { return size_t(blockTotal.load()) + errorLines() >= size_t(kRequests); }, 60000))
        << blockTotal.load() << " blocks, " << errorLines() << " error lines";
    EXPECT_EQ(size_t(blockTotal.load()) + errorLines(), size_t(kRequests));
    for (int i = 0; i < kRequests; ++i) {
        EXPECT_LE(blocks[size_t(i)].load(), 1) << i;
    }

    // The connection is kept: with the daemon back, requests go through again.
    ASSERT_TRUE(gEnvironment.startDaemon());
    std::atomic<int> after{0};
    proxy->stopInAppCaptureWithHandler([&](NSErrorPtr) { after++; });
    EXPECT_TRUE(runMainLoopUntil([&] { return after.load() == 1; }, 10000));
}

}  // namespace
