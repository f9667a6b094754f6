// The shared proxy under threads: one object and one connection however many threads ask first.
// (A daemon killed with requests in flight is a fault test of tests/e2e.)
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "daemon/LMDaemonProxy.h"
#include "tests/daemon/DaemonEnvironment.h"

using lumaro::test::DaemonEnvironment;

namespace {

DaemonEnvironment gEnvironment(nullptr);

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

}  // namespace
