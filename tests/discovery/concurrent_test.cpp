// Many loads and queries at once: each completes exactly once and the registry's cache stays
// consistent. Run under the thread sanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "discovery/LMExtensions.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/UTType.h"
#include "tests/support/Manifests.h"

using namespace lumaro::test;

namespace {

// Counts the completions of each slot, and in all, for the test to wait on.
class Tally {
public:
    explicit Tally(size_t count) : counts_(count) {}  // ("slots" is a Qt macro)
    void complete(size_t slot) {
        counts_[slot]++;
        total_++;
    }
    bool waitForTotal(size_t expected) const {
        return platform::dispatch::runMainLoopUntil([&] { return total_.load() >= expected; },
                                                    120000);
    }
    int count(size_t slot) const { return counts_[slot].load(); }

private:
    std::vector<std::atomic<int>> counts_;
    std::atomic<size_t> total_{0};
};

TEST(ConcurrentLoads, EveryLoadOfSharedProvidersCompletesExactlyOnce) {
    constexpr size_t kThreads = 4;
    constexpr size_t kLoadsPerThread = 500;
    std::vector<NSItemProviderPtr> providers;
    for (int i = 0; i < 8; ++i) {
        providers.push_back(
            NSItemProvider::initWithItem(QByteArray::number(i), i % 2 ? kUTTypeData : kUTTypePNG));
    }
    Tally tally(kThreads * kLoadsPerThread);
    std::atomic<int> wrongValues{0};
    std::vector<std::thread> threads;
    // The completions outlive the threads that start them: they hold plain pointers to the
    // test's objects, never references into a thread's closure.
    Tally* tallyPtr = &tally;
    std::atomic<int>* wrongPtr = &wrongValues;
    const std::vector<NSItemProviderPtr>* providersPtr = &providers;
    for (size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([tallyPtr, wrongPtr, providersPtr, t] {
            for (size_t i = 0; i < kLoadsPerThread; ++i) {
                const size_t slot = t * kLoadsPerThread + i;
                const size_t which = slot % providersPtr->size();
                (*providersPtr)[which]->loadItemForTypeIdentifier(
                    kUTTypeData, {},
                    [tallyPtr, wrongPtr, slot, which](QVariant item, NSErrorPtr error) {
                        if (error || item.toByteArray() != QByteArray::number(int(which))) {
                            wrongPtr->fetch_add(1);
                        }
                        tallyPtr->complete(slot);
                    });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    providers.clear();  // the loads must not depend on the providers staying alive
    ASSERT_TRUE(tally.waitForTotal(kThreads * kLoadsPerThread));
    for (size_t slot = 0; slot < kThreads * kLoadsPerThread; ++slot) {
        ASSERT_EQ(tally.count(slot), 1) << "load " << slot;
    }
    EXPECT_EQ(wrongValues.load(), 0);
}

TEST(ConcurrentQueries, SimultaneousQueriesShareTheRegistryAndAgree) {
    TempDir dir;
    for (int i = 0; i < 40; ++i) {
        writeManifest(dir, QString("m%1.json").arg(i),
                      manifest(QString("com.test.e%1").arg(i, 2, 10, QChar('0'))));
    }
    ScopedSearchPath path({dir.path()});
    constexpr size_t kQueries = 16;
    Tally tally(kQueries);
    std::vector<std::vector<NSExtensionPtr>> answers(kQueries);
    for (size_t q = 0; q < kQueries; ++q) {
        LMExtensions::extensionsWithMatchingPointName(
            kTestPoint, [&, q](std::vector<NSExtensionPtr> extensions, NSErrorPtr) {
                answers[q] = std::move(extensions);
                tally.complete(q);
            });
    }
    ASSERT_TRUE(tally.waitForTotal(kQueries));
    for (size_t q = 0; q < kQueries; ++q) {
        EXPECT_EQ(tally.count(q), 1);
        ASSERT_EQ(answers[q].size(), 40u);
        for (size_t i = 0; i < answers[q].size(); ++i) {
            EXPECT_EQ(answers[q][i]->identifier(), answers[0][i]->identifier());
        }
    }
}

}  // namespace
