// The setup result: each slot filled by the item of its title, values as the slot's readers get
// them, no handler when an item cannot be loaded. Many loads at once, of many calls: the handler
// fires exactly once per call, from the load that completes the count, with every slot filled.
// Run under the thread sanitizer.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <mutex>

#include "picker/LMBroadcastActivityKeys.h"
#include "platform/dispatch/dispatch.h"
#include "tests/picker/PickerFixture.h"

using namespace lumaro::test;

namespace {

// The handler's calls for one load, each as {bundle id, configuration, user info, URL} ("nil" for
// a null value).
struct Outcome {
    std::mutex mutex;
    std::vector<QStringList> calls;
};

std::shared_ptr<Outcome> load(LMBroadcastActivityExtensionNSViewController& controller,
                              const std::vector<NSExtensionItemPtr>& items) {
    auto outcome = std::make_shared<Outcome>();
    controller.loadItems(items, [outcome](const QString& id, const QByteArray& config,
                                          const QVariantMap& info, const QUrl& url) {
        const QJsonDocument infoText(QJsonObject::fromVariantMap(info));
        std::lock_guard lock(outcome->mutex);
        outcome->calls.push_back({id.isNull() ? "nil" : id, config.isNull() ? "nil" : config,
                                  infoText.toJson(QJsonDocument::Compact), url.toString()});
    });
    return outcome;
}

// Every item is released by its load once that load is over.
bool settled(const std::vector<NSExtensionItemPtr>& items) {
    return std::all_of(items.begin(), items.end(),
                       [](const auto& item) { return item.use_count() <= 1; });
}

// Loads `items` and waits until each load has let its item go.
std::vector<QStringList> loadAndWait(const std::vector<NSExtensionItemPtr>& items) {
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    const auto outcome = load(*controller, items);
    EXPECT_TRUE(platform::dispatch::runMainLoopUntil([&] { return settled(items); }, 20000));
    std::lock_guard lock(outcome->mutex);
    return outcome->calls;
}

TEST(SetupResultTest, SlotsAreFilledByTitleAsFoundAndMissingOnesKeepTheirStartingValues) {
    const std::vector<NSExtensionItemPtr> found = {
        titledItem(LMBroadcastExtensionKeyExtensionBundleIdentifier, "com.t.e"),
        titledItem(LMBroadcastExtensionKeyBroadcastConfiguration, QByteArray("c")),
        titledItem(LMBroadcastExtensionKeyExtensionUserInfo, QVariantMap{{"k", 1}}),
        titledItem(kLMBroadcastExtensionKeyExtensionServiceURL, QUrl("https://s/x")),
        titledItem("SomethingElse", 5)};
    EXPECT_EQ(loadAndWait(found),
              (std::vector<QStringList>{{"com.t.e", "c", R"({"k":1})", "https://s/x"}}));
    // Values of another type replace the slot, as the slot's readers get them.
    const std::vector<NSExtensionItemPtr> otherTypes = {
        titledItem(LMBroadcastExtensionKeyExtensionBundleIdentifier, 17),
        titledItem(LMBroadcastExtensionKeyExtensionUserInfo, "x"),
        titledItem(LMBroadcastExtensionKeyBroadcastConfiguration, QVariantMap{{"a", 1}}),
        titledItem(kLMBroadcastExtensionKeyExtensionServiceURL, "https://y")};
    EXPECT_EQ(loadAndWait(otherTypes), (std::vector<QStringList>{{"17", "", "{}", "https://y"}}));
}

TEST(SetupResultTest, AnItemThatIsNotDataOrHasNoAttachmentMeansNoHandlerEver) {
    const std::vector<NSExtensionItemPtr> unloadable = {
        titledItem(LMBroadcastExtensionKeyExtensionBundleIdentifier, "a"),
        std::make_shared<NSExtensionItem>(), nullptr};
    EXPECT_TRUE(loadAndWait(unloadable).empty());
    EXPECT_TRUE(loadAndWait({}).empty());
}

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
        items.insert(items.begin() + fillers / 3,
                     opaqueItem(LMBroadcastExtensionKeyExtensionUserInfo));
    }
    return items;
}

TEST(SetupResultConcurrencyTest, ManyItemsLoadingAtOnceCallTheHandlerExactlyOnce) {
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    constexpr int kRounds = 40;
    constexpr int kFillers = 60;
    std::vector<std::shared_ptr<Outcome>> outcomes;
    std::vector<std::vector<NSExtensionItemPtr>> calls;
    for (int round = 0; round < kRounds; ++round) {
        calls.push_back(setupItems(round, kFillers, round % 4 == 3));
        outcomes.push_back(load(*controller, calls.back()));
    }
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] { return std::all_of(calls.begin(), calls.end(), settled); }, 60000));
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        std::lock_guard lock(outcomes[round]->mutex);
        if (round % 4 == 3) {
            EXPECT_TRUE(outcomes[round]->calls.empty());
        } else {
            EXPECT_EQ(outcomes[round]->calls,
                      (std::vector<QStringList>{{QStringLiteral("com.test.ext%1").arg(round),
                                                 QString::number(round),
                                                 QStringLiteral(R"({"round":%1})").arg(round),
                                                 QStringLiteral("https://s.test/%1").arg(round)}}));
        }
    }
}

}  // namespace
