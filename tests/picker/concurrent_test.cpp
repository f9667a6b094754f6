// Many setup-result loads at once, of many calls: the handler fires exactly once per call, from
// the load that completes the count, with every slot filled; never when one item is not data.
// Run under the thread sanitizer.
#include <gtest/gtest.h>

#include <QStringList>
#include <atomic>
#include <mutex>

#include "picker/LMBroadcastActivityKeys.h"
#include "platform/dispatch/dispatch.h"
#include "tests/picker/PickerFixture.h"

using namespace lumaro::test;

namespace {

struct Outcome {
    std::atomic<int> calls{0};
    std::mutex mutex;
    QString bundleID;
    QByteArray configuration;
    QVariantMap userInfo;
    QUrl serviceURL;
};

// `fillers` items of other titles around the four keys, so that many loads run together.
std::vector<NSExtensionItemPtr> setupItems(int round, int fillers, bool oneNotData) {
    std::vector<NSExtensionItemPtr> items;
    for (int i = 0; i < fillers; ++i) {
        items.push_back(titledItem(QStringLiteral("Filler%1").arg(i), i));
        if (i == fillers / 2) {
            items.push_back(titledItem(LMBroadcastExtensionKeyExtensionBundleIdentifier,
                                       QStringLiteral("com.test.ext%1").arg(round)));
            items.push_back(titledItem(LMBroadcastExtensionKeyBroadcastConfiguration,
                                       QByteArray::number(round)));
            items.push_back(titledItem(LMBroadcastExtensionKeyExtensionUserInfo,
                                       QVariantMap{{"round", round}}));
            items.push_back(titledItem(kLMBroadcastExtensionKeyExtensionServiceURL,
                                       QUrl(QStringLiteral("https://s.test/%1").arg(round))));
        }
    }
    if (oneNotData) {
        auto opaque = std::make_shared<NSExtensionItem>();
        opaque->setAttributedTitle(LMBroadcastExtensionKeyExtensionUserInfo);
        opaque->setAttachments({NSItemProvider::initWithItem(QVariantMap{}, "com.test.opaque")});
        items.insert(items.begin() + fillers / 3, opaque);
    }
    return items;
}

// Every item is released by its load once that load is over.
bool settled(const std::vector<std::vector<NSExtensionItemPtr>>& calls) {
    for (const auto& items : calls) {
        for (const auto& item : items) {
            if (item.use_count() > 1) {
                return false;
            }
        }
    }
    return true;
}

TEST(SetupResultConcurrencyTest, ManyItemsLoadingAtOnceCallTheHandlerExactlyOnce) {
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    constexpr int kRounds = 40;
    constexpr int kFillers = 60;
    std::vector<std::shared_ptr<Outcome>> outcomes;
    std::vector<std::vector<NSExtensionItemPtr>> calls;
    for (int round = 0; round < kRounds; ++round) {
        const bool broken = round % 4 == 3;
        calls.push_back(setupItems(round, kFillers, broken));
        auto outcome = std::make_shared<Outcome>();
        outcomes.push_back(outcome);
        controller->loadItems(calls.back(), [outcome](const QString& id, const QByteArray& config,
                                                      const QVariantMap& info, const QUrl& url) {
            {
                std::lock_guard lock(outcome->mutex);
                outcome->bundleID = id;
                outcome->configuration = config;
                outcome->userInfo = info;
                outcome->serviceURL = url;
            }
            outcome->calls++;
        });
    }
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil([&] { return settled(calls); }, 60000));
    for (int round = 0; round < kRounds; ++round) {
        Outcome& outcome = *outcomes[round];
        if (round % 4 == 3) {
            EXPECT_EQ(outcome.calls.load(), 0) << round;
            continue;
        }
        ASSERT_EQ(outcome.calls.load(), 1) << round;
        std::lock_guard lock(outcome.mutex);
        EXPECT_EQ(outcome.bundleID, QStringLiteral("com.test.ext%1").arg(round));
        EXPECT_EQ(outcome.configuration, QByteArray::number(round));
        EXPECT_EQ(outcome.userInfo, (QVariantMap{{"round", round}}));
        EXPECT_EQ(outcome.serviceURL, QUrl(QStringLiteral("https://s.test/%1").arg(round)));
    }
}

}  // namespace
