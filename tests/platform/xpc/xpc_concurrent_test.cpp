// Connections under threads, on both transports: many threads sending on one connection each get
// their own answer exactly once, and a link torn down with calls in flight from several threads
// ends every one of them once, without a crash or a hang.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "tests/platform/xpc/EchoScene.h"
#include "tests/support/TestBus.h"

using lumaro::test::EchoObject;
using lumaro::test::EchoScene;
using lumaro::test::kCallMeBack;
using lumaro::test::kMisbehave;
using lumaro::test::Transport;
using platform::dispatch::runMainLoopUntil;

namespace {

constexpr int kThreads = 4;
constexpr int kPerThread = 150;

struct Tally {
    std::vector<std::atomic<int>> replies = std::vector<std::atomic<int>>(kThreads * kPerThread);
    std::vector<std::atomic<int>> errors = std::vector<std::atomic<int>>(kThreads * kPerThread);
    std::atomic<int> wrongValues{0};
    std::atomic<int> total{0};
};

// A tally outlives the test: its last reference may go on a connection thread, in memory the
// thread sanitizer cannot follow once Qt has freed it out of its sight.
std::shared_ptr<Tally> newTally() {
    static auto* kept = new std::vector<std::shared_ptr<Tally>>;
    return kept->emplace_back(std::make_shared<Tally>());
}

// Sends kPerThread callMeBack: requests from each of kThreads threads, each with its own number.
void sendFromThreads(const std::shared_ptr<NSXPCConnection>& connection,
                     const std::shared_ptr<Tally>& tally) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([connection, tally, t] {
            for (int i = t * kPerThread; i < (t + 1) * kPerThread; ++i) {
                const QString text = QString::number(i);
                connection
                    ->remoteObjectProxyWithErrorHandler([tally, i](const NSErrorPtr&) {
                        tally->errors[size_t(i)]++;
                        tally->total++;
                    })
                    ->send(kCallMeBack, {text}, [tally, i, text](const QVariantList& values) {
                        if (values.value(0).toString() != text) {
                            tally->wrongValues++;
                        }
                        tally->replies[size_t(i)]++;
                        tally->total++;
                    });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

class ConcurrentTest : public testing::TestWithParam<Transport> {
protected:
    void SetUp() override {
        ASSERT_TRUE(lumaro::test::sharedBus().isRunning());
        scene_ = EchoScene::make(GetParam());
        ASSERT_TRUE(scene_);
    }
    std::shared_ptr<EchoScene> scene_;
};

TEST_P(ConcurrentTest, ThreadsSendingAtOnceEachGetTheirOwnAnswerOnce) {
    auto tally = newTally();
    sendFromThreads(scene_->client, tally);
    ASSERT_TRUE(
        runMainLoopUntil([&] { return tally->total.load() >= kThreads * kPerThread; }, 60000));
    EXPECT_EQ(tally->wrongValues.load(), 0);
    for (int i = 0; i < kThreads * kPerThread; ++i) {
        EXPECT_EQ(tally->replies[size_t(i)].load(), 1) << i;
        EXPECT_EQ(tally->errors[size_t(i)].load(), 0) << i;
    }
    // Every callback the listener made while answering reached the client's exported object.
    EXPECT_TRUE(runMainLoopUntil(
        [&] { return scene_->clientObject->notes.load() == kThreads * kPerThread; }, 60000))
        << scene_->clientObject->notes.load();
}

TEST_P(ConcurrentTest, TearingTheLinkDownWithCallsInFlightEndsEachOnce) {
    auto tally = newTally();
    // Half the answers are held by the listener's object, so some calls are surely in flight.
    std::thread holder([&] {
        for (int i = 0; i < 50; ++i) {
            scene_->client->remoteObjectProxy()->send(kMisbehave, {QStringLiteral("hold")},
                                                      [](const QVariantList&) {});
        }
    });
    std::thread sender([&] { sendFromThreads(scene_->client, tally); });
    runMainLoopUntil([&] { return tally->total.load() >= 100; }, 10000);
    // The listener's side goes, as when its process ends.
    for (const auto& accepted : scene_->accepted()) {
        accepted->invalidate();
    }
    scene_->listener_->invalidate();
    sender.join();
    holder.join();
    ASSERT_TRUE(
        runMainLoopUntil([&] { return tally->total.load() >= kThreads * kPerThread; }, 60000));
    for (int i = 0; i < kThreads * kPerThread; ++i) {
        EXPECT_EQ(tally->replies[size_t(i)].load() + tally->errors[size_t(i)].load(), 1) << i;
    }
    EXPECT_EQ(tally->wrongValues.load(), 0);
    scene_->serverObject->dropHeld();
    // The client's connection can be dropped from another thread while it is being used.
    std::thread dropper([client = std::move(scene_->client)]() mutable { client.reset(); });
    dropper.join();
}

// One-way messages from one sender arrive in the order sent, in both directions, from the very
// first ones on a link the listener has just accepted.
TEST_P(ConcurrentTest, OneWayMessagesOnAFreshLinkArriveInOrder) {
    constexpr int kRounds = 8;
    constexpr int kMessages = 1500;
    QVariantList expected;
    for (int i = 0; i < kMessages; ++i) {
        expected.append(QString::number(i));
    }
    auto sendAllInOrder = [&](const std::shared_ptr<NSXPCConnection>& from, const EchoObject& to) {
        auto proxy = from->remoteObjectProxy();
        for (const QVariant& number : expected) {
            proxy->send(lumaro::test::kNote, {number}, nullptr);
        }
        ASSERT_TRUE(runMainLoopUntil([&] { return to.notes.load() >= kMessages; }, 60000));
        const QVariantList got = to.noteObjects();
        ASSERT_TRUE(got == expected)
            << "first out of order at "
            << std::mismatch(got.begin(), got.end(), expected.begin(), expected.end()).first -
                   got.begin();
    };
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        if (round > 0) {
            scene_.reset();  // the bus name is free again before the next scene takes it
            scene_ = EchoScene::make(GetParam());
            ASSERT_TRUE(scene_);
        }
        ASSERT_NO_FATAL_FAILURE(sendAllInOrder(scene_->client, *scene_->serverObject));
        ASSERT_EQ(scene_->accepted().size(), 1U);
        ASSERT_NO_FATAL_FAILURE(sendAllInOrder(scene_->accepted().front(), *scene_->clientObject));
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, ConcurrentTest,
                         testing::Values(Transport::Bus, Transport::Peer),
                         [](const testing::TestParamInfo<Transport>& info) {
                             return info.param == Transport::Bus ? "Bus" : "PeerToPeer";
                         });

}  // namespace
