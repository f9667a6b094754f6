#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <atomic>
#include <thread>
#include <vector>

#include "platform/dispatch/dispatch.h"

using platform::dispatch::runMainLoopUntil;

TEST(Dispatch, AsyncNeverRunsInlineAndMainQueueRunsOnMainThreadInOrder) {
    std::vector<int> order;
    dispatch_async(dispatch_get_main_queue(), [&] {
        order.push_back(1);
        EXPECT_EQ(QThread::currentThread(), QCoreApplication::instance()->thread());
        EXPECT_STREQ(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL), "main-thread");
        dispatch_async(dispatch_get_main_queue(), [&] { order.push_back(3); });
    });
    dispatch_async(dispatch_get_main_queue(), [&] { order.push_back(2); });
    EXPECT_TRUE(order.empty());  // nothing ran inline
    ASSERT_TRUE(runMainLoopUntil([&] { return order.size() == 3; }, 5000));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

// (The global queues' labels: the file store's tests.)
TEST(Dispatch, GlobalQueueGrowsWhenABlockWaitsForAnotherOfTheSameQueue) {
    std::atomic<bool> second{false};
    std::atomic<bool> first{false};
    dispatch_queue_t q = dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
    dispatch_async(q, [&] {
        while (!second.load()) {
            std::this_thread::yield();
        }
        first = true;
    });
    dispatch_async(q, [&] { second = true; });
    EXPECT_TRUE(runMainLoopUntil([&] { return first.load(); }, 5000));
}

// Each producer's blocks run in the order it queued them, one at a time.
TEST(Dispatch, SerialQueueKeepsOrderAcrossManyProducers) {
    dispatch_queue_t q = dispatch_queue_create("test.serial");
    std::vector<int> last(4, -1);  // touched only on the serial queue
    std::atomic<int> count{0};
    std::atomic<int> outOfOrder{0};
    std::vector<std::thread> producers;
    for (int t = 0; t < 4; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < 250; ++i) {
                dispatch_async(q, [&, t, i] {
                    outOfOrder += i > last[t] ? 0 : 1;
                    last[t] = i;
                    count.fetch_add(1);
                });
            }
        });
    }
    for (auto& p : producers) {
        p.join();
    }
    ASSERT_TRUE(runMainLoopUntil([&] { return count.load() == 1000; }, 10000));
    EXPECT_EQ(outOfOrder.load(), 0);
}

TEST(Dispatch, OnceRunsExactlyOnceUnderContention) {
    static dispatch_once_t once;
    std::atomic<int> runs{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] { dispatch_once(&once, [&] { runs.fetch_add(1); }); });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(runs.load(), 1);
}
