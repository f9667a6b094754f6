// The presentations: the application-info archive, the single-extension path performing every
// match, the activity menu and the not-installed menu as the automation presenter records them,
// the title format with bad formats, and a menu of thousands of activities.
#include <gtest/gtest.h>

#include <QImage>
#include <atomic>

#include "picker/LMBroadcastActivityKeys.h"
#include "picker/LMBroadcastValues.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/UTType.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "tests/picker/PickerFixture.h"

using namespace lumaro::test;
using platform::appkit::MenuRecord;

namespace {

const std::string kSingleMethod =
    "-[LMBroadcastActivityExtensionNSViewController setupSingleExtensionViewWithHostBundleID:"
    "preferredExtension:iconImage:appName:activities:]";

QVariant loadAttachment(const NSExtensionItemPtr& item) {
    auto value = std::make_shared<QVariant>();
    auto done = std::make_shared<std::atomic<bool>>(false);
    item->attachments().at(0)->loadItemForTypeIdentifier(
        kUTTypeData, {}, [value, done](const QVariant& loaded, const NSErrorPtr&) {
            *value = loaded;
            *done = true;
        });
    platform::dispatch::runMainLoopUntil([&] { return done->load(); }, 20000);
    return *value;
}

class PresentationTest : public ::testing::Test {
protected:
    void SetUp() override {
        makeRequest({requestItem(
            {{kLMBroadcastActivityExtensionLedraKeyLocalizedNoService, "None"},
             {kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle, "Broadcast %@ to"},
             {kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps, "Find apps"},
             {kLMBroadcastActivityExtensionLedraKeySourceX, 120.7},
             {kLMBroadcastActivityExtensionLedraKeySourceY, "45.2"}})});
        controller_->loadViewIfNeeded();
    }
    void TearDown() override { controller_->setActivities({}); }  // break the activity cycle

    LMStreamingActivityArray delegated(const QStringList& identifiers) {
        auto activities = makeActivities(identifiers);
        for (const auto& activity : activities) {
            activity->setDelegate(controller_);
        }
        return activities;
    }

    std::shared_ptr<RecordingController> controller_ = std::make_shared<RecordingController>(false);
};

TEST_F(PresentationTest, HostDataArchiveHoldsNameBundleAndTIFFIconAndIsReplacedEachTime) {
    QImage red(8, 8, QImage::Format_ARGB32);
    red.fill(Qt::red);
    controller_->archiveHostData("Notes", "com.test.notes", std::make_shared<NSImage>(red));
    const NSExtensionItemPtr item = controller_->applicationInfoExtensionItem();
    ASSERT_TRUE(item);
    EXPECT_TRUE(item->attributedTitle().isNull());
    EXPECT_TRUE(item->userInfo().isEmpty());
    ASSERT_EQ(item->attachments().size(), 1u);
    EXPECT_EQ(item->attachments()[0]->typeIdentifier(), kUTTypeData);
    const QVariantMap hostInfo =
        NSKeyedUnarchiver::unarchiveObjectWithData(loadAttachment(item).toByteArray()).toMap();
    EXPECT_EQ(hostInfo.size(), 3);
    EXPECT_EQ(hostInfo.value(LMBroadcastExtensionKeyExtensionHostInfoAppName), "Notes");
    EXPECT_EQ(hostInfo.value(LMBroadcastExtensionKeyExtensionHostInfoBundleID), "com.test.notes");
    const QByteArray tiff =
        hostInfo.value(LMBroadcastExtensionKeyExtensionHostInfoAppIcon).toByteArray();
    EXPECT_TRUE(tiff.startsWith("II*") || tiff.startsWith("MM"));
    const auto icon = NSImage::initWithData(tiff);
    ASSERT_TRUE(icon);
    EXPECT_EQ(QColor(icon->imageRepresentation().pixel(4, 4)), QColor(Qt::red));

    platform::log::LogCapture capture;
    controller_->archiveHostData(QString(), "com.test.other", nullptr);  // a name is required
    EXPECT_NE(controller_->applicationInfoExtensionItem(), item);
    const QVariantMap second =
        NSKeyedUnarchiver::unarchiveObjectWithData(
            loadAttachment(controller_->applicationInfoExtensionItem()).toByteArray())
            .toMap();
    EXPECT_EQ(second,
              (QVariantMap{{LMBroadcastExtensionKeyExtensionHostInfoAppName, ""},
                           {LMBroadcastExtensionKeyExtensionHostInfoBundleID, "com.test.other"}}));
    EXPECT_EQ(capture.count(
                  "Archiving host data without LMBroadcastExtensionKeyExtensionHostInfoAppName"),
              1u);
}

TEST_F(PresentationTest, SingleExtensionPerformsEveryMatchInOrderAndShowsNoMenu) {
    MenuRecorder menus;
    platform::log::LogCapture capture;
    const auto activities = delegated({"com.test.want", "com.test.other", "com.test.want"});
    controller_->setupSingleExtensionViewWithHostBundleID("com.test.notes", "com.test.want",
                                                          nullptr, "Notes", activities);
    EXPECT_EQ(controller_->performed(),
              (std::vector<LMStreamingActivity*>{activities[0].get(), activities[2].get()}));
    EXPECT_EQ(capture.count(kSingleMethod + " found extension"), 2u);
    EXPECT_EQ(capture.count(kSingleMethod + " did not find extension"), 0u);
    EXPECT_TRUE(controller_->activities().empty());  // not set on this path
    EXPECT_TRUE(controller_->applicationInfoExtensionItem());

    capture.clear();
    controller_->setupSingleExtensionViewWithHostBundleID("com.test.notes", "com.test.want",
                                                          nullptr, "Notes", {});
    controller_->setupSingleExtensionViewWithHostBundleID("com.test.notes", "com.test.none",
                                                          nullptr, "Notes", activities);
    EXPECT_EQ(capture.count(kSingleMethod + " did not find extension"), 2u);
    EXPECT_EQ(controller_->performed().size(), 2u);

    std::atomic<bool> flushed{false};
    dispatch_async(dispatch_get_main_queue(), [&flushed] { flushed = true; });
    platform::dispatch::runMainLoopUntil([&] { return flushed.load(); }, 20000);
    EXPECT_TRUE(menus.records().empty());
    for (const auto& activity : activities) {
        activity->setDelegate(nullptr);
    }
}

TEST_F(PresentationTest, ActivityMenuHasTheTitleLineFirstThenTheActivitiesAtTheAnchor) {
    MenuRecorder menus("#2");
    const auto activities = delegated({"com.test.a", "com.test.b", "com.test.c"});
    controller_->setupActivityViewController("Notes", "com.test.notes", nullptr, activities);
    // The archive and the property are set before any hop to the main queue.
    EXPECT_EQ(controller_->activities(), activities);
    EXPECT_TRUE(controller_->applicationInfoExtensionItem());
    EXPECT_TRUE(menus.records().empty());
    ASSERT_TRUE(menus.waitFor(1));
    EXPECT_TRUE(menus.allOnMainThread());

    const MenuRecord record = menus.records().front();
    EXPECT_EQ(record.title, "Screen Broadcast");
    ASSERT_EQ(record.entries.size(), 4u);
    EXPECT_EQ(record.entries[0].title, "Broadcast Notes to");
    EXPECT_FALSE(record.entries[0].enabled);
    const QStringList ids{"com.test.a", "com.test.b", "com.test.c"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(record.entries[i + 1].identifier, ids[i]);
        EXPECT_TRUE(record.entries[i + 1].enabled);
        EXPECT_TRUE(record.entries[i + 1].hasImage);
    }
    EXPECT_EQ(record.location,
              NSMakePoint(static_cast<double>(120.7f), static_cast<double>(45.2f)));
    EXPECT_NE(record.location.x, 120.7);
    EXPECT_FALSE(record.inView);
    EXPECT_EQ(record.positioningIndex, -1);
    EXPECT_TRUE(record.menuBarVisible);

    // Choosing the second service hands it to the controller.
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] { return !controller_->performed().empty(); }, 20000));
    EXPECT_EQ(controller_->performed(), (std::vector<LMStreamingActivity*>{activities[1].get()}));
}

TEST_F(PresentationTest, NotInstalledMenuShowsTheControllersTextsNotTheArguments) {
    MenuRecorder menus("#0");
    const auto before = delegated({"com.test.kept"});
    controller_->setActivities(before);
    controller_->showNotInstalledAlertWithAppName("Notes", "Host title", "Host message");
    ASSERT_TRUE(menus.waitFor(1));
    const MenuRecord record = menus.records().front();
    EXPECT_EQ(record.title, "Screen Broadcast");
    ASSERT_EQ(record.entries.size(), 2u);
    EXPECT_EQ(record.entries[0].title, "None");
    EXPECT_EQ(record.entries[1].title, "Find apps");
    EXPECT_FALSE(record.entries[0].enabled);
    EXPECT_FALSE(record.entries[1].enabled);
    EXPECT_EQ(record.chosen, -1);  // a disabled line cannot be chosen
    EXPECT_EQ(record.location,
              NSMakePoint(static_cast<double>(120.7f), static_cast<double>(45.2f)));
    EXPECT_EQ(controller_->activities(), before);
    EXPECT_FALSE(controller_->applicationInfoExtensionItem());
}

TEST_F(PresentationTest, MissingAnchorAndTextsGiveZeroAndEmptyLines) {
    makeRequest({requestItem({{kLMBroadcastActivityExtensionLedraKeySourceX, "abc"}})});
    auto bare = std::make_shared<RecordingController>(false);
    bare->loadViewIfNeeded();
    MenuRecorder menus;
    bare->showNotInstalledAlertWithAppName({}, {}, {});
    bare->setupActivityViewController("Notes", "com.test.notes", nullptr,
                                      makeActivities({"com.test.a"}));
    ASSERT_TRUE(menus.waitFor(2));
    EXPECT_EQ(menus.records()[0].location, NSZeroPoint);
    EXPECT_EQ(menus.records()[0].entries[0].title, "");
    EXPECT_EQ(menus.records()[1].entries[0].title, "");  // no title format at all
    bare->setActivities({});
}

TEST(TitleFormatTest, OnlyTheOneArgumentIsEverRead) {
    using LMBroadcastValues::formatWithObject;
    EXPECT_EQ(formatWithObject("Broadcast %@ to", "Notes"), "Broadcast Notes to");
    EXPECT_EQ(formatWithObject("Broadcast", "Notes"), "Broadcast");
    EXPECT_EQ(formatWithObject("%@ and %@", "Notes"), "Notes and ");
    EXPECT_EQ(formatWithObject("%1$@ / %1$@ / %2$@", "N"), "N / N / ");
    EXPECT_EQ(formatWithObject("100%% %s %d %n %@ %", "N"), "100% %s %d %n N %");
    EXPECT_EQ(formatWithObject("%@", QString()), "(null)");
    EXPECT_EQ(formatWithObject("%99999999999999999999$@ end", "N"), " end");
    EXPECT_EQ(formatWithObject(QString(), "N"), "");
}

TEST_F(PresentationTest, ThousandsOfActivitiesMakeOneMenu) {
    QStringList ids;
    for (int i = 0; i < 3000; ++i) {
        ids << QStringLiteral("com.test.s%1").arg(i);
    }
    MenuRecorder menus(QStringLiteral("com.test.s2999"));
    const auto activities = delegated(ids);
    controller_->setupActivityViewController("Notes", "com.test.notes", nullptr, activities);
    ASSERT_TRUE(menus.waitFor(1));
    const MenuRecord record = menus.records().front();
    ASSERT_EQ(record.entries.size(), 3001u);
    EXPECT_EQ(record.entries.back().identifier, "com.test.s2999");
    EXPECT_EQ(record.chosen, 3000);
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] { return !controller_->performed().empty(); }, 20000));
    EXPECT_EQ(controller_->performed().front(), activities.back().get());
}

}  // namespace
