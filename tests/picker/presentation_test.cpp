// The presentations: the application-info archive, the single-extension path performing every
// match, the activity and not-installed menus as the automation presenter records them (texts,
// order, enabled state, anchor through single precision, main queue), bad title formats and a
// menu of thousands of activities.
#include <gtest/gtest.h>

#include <QImage>

#include "picker/LMBroadcastActivityKeys.h"
#include "picker/LMBroadcastValues.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/UTType.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "tests/picker/PickerFixture.h"
#include "tests/support/Manifests.h"

using namespace lumaro::test;

namespace {

const std::string kSingleMethod =
    "-[LMBroadcastActivityExtensionNSViewController setupSingleExtensionViewWithHostBundleID:"
    "preferredExtension:iconImage:appName:activities:]";
const NSPoint kAnchor = NSMakePoint(static_cast<double>(120.7f), static_cast<double>(45.2f));

QVariantMap unarchivedAttachment(const NSExtensionItemPtr& item) {
    const QVariant data = loadItem(item->attachments().at(0));
    return NSKeyedUnarchiver::unarchiveObjectWithData(data.toByteArray()).toMap();
}
QStringList titles(const platform::appkit::MenuRecord& record) {
    QStringList out;
    for (const auto& entry : record.entries) {
        out << entry.title + (entry.enabled ? "" : " (disabled)");
    }
    return out;
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
    void TearDown() override { controller_->setActivities({}); }  // breaks the activity cycle

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
    const QVariantMap hostInfo = unarchivedAttachment(item);
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
    controller_->archiveHostData(QString(), "com.test.other", nullptr);
    EXPECT_NE(controller_->applicationInfoExtensionItem(), item);
    EXPECT_EQ(unarchivedAttachment(controller_->applicationInfoExtensionItem()),
              (QVariantMap{{LMBroadcastExtensionKeyExtensionHostInfoAppName, ""},
                           {LMBroadcastExtensionKeyExtensionHostInfoBundleID, "com.test.other"}}));
    EXPECT_EQ(errorCount(capture), 0u);  // a missing name is archived empty, silently
}

TEST_F(PresentationTest, SingleExtensionPerformsEveryMatchInOrderAndShowsNoMenu) {
    MenuRecorder menus;
    platform::log::LogCapture capture;
    const auto activities =
        makeActivities({"com.test.want", "com.test.other", "com.test.want"}, controller_);
    controller_->setupSingleExtensionViewWithHostBundleID("com.test.notes", "com.test.want",
                                                          nullptr, "Notes", activities);
    EXPECT_EQ(controller_->performed(),
              (std::vector<LMStreamingActivity*>{activities[0].get(), activities[2].get()}));
    EXPECT_EQ(capture.texts(), (std::vector<std::string>{kSingleMethod + " found extension",
                                                         kSingleMethod + " found extension"}));
    EXPECT_TRUE(controller_->activities().empty());
    EXPECT_TRUE(controller_->applicationInfoExtensionItem());

    capture.clear();
    controller_->setupSingleExtensionViewWithHostBundleID("h", "com.test.want", nullptr, "N", {});
    controller_->setupSingleExtensionViewWithHostBundleID("h", "com.test.x", nullptr, "N",
                                                          activities);
    EXPECT_EQ(capture.count(kSingleMethod + " did not find extension"), 2u);
    EXPECT_EQ(controller_->performed().size(), 2u);
    flushMainQueue();
    EXPECT_TRUE(menus.records().empty());
    for (const auto& activity : activities) {
        activity->setDelegate(nullptr);
    }
}

TEST_F(PresentationTest, NotInstalledMenuShowsTheControllersTextsNotTheArguments) {
    MenuRecorder menus("#0");
    const auto before = makeActivities({"com.test.kept"});
    controller_->setActivities(before);
    controller_->showNotInstalledAlertWithAppName("Notes", "Host title", "Host message");
    ASSERT_TRUE(menus.waitFor(1));
    const auto record = menus.records().front();
    EXPECT_EQ(record.title, "Screen Broadcast");
    EXPECT_EQ(titles(record), (QStringList{"None (disabled)", "Find apps (disabled)"}));
    EXPECT_EQ(record.chosen, -1);  // a disabled line cannot be chosen
    EXPECT_EQ(record.location, kAnchor);
    EXPECT_EQ(controller_->activities(), before);
    EXPECT_FALSE(controller_->applicationInfoExtensionItem());

    // A request without anchor or texts: the origin and empty lines.
    makeRequest({requestItem({{kLMBroadcastActivityExtensionLedraKeySourceX, "abc"}})});
    auto bare = std::make_shared<RecordingController>(false);
    bare->loadViewIfNeeded();
    bare->showNotInstalledAlertWithAppName({}, {}, {});
    bare->setupActivityViewController("Notes", "h", nullptr, makeActivities({"com.test.a"}));
    ASSERT_TRUE(menus.waitFor(3));
    EXPECT_EQ(menus.records()[1].location, NSZeroPoint);
    EXPECT_EQ(titles(menus.records()[1]), (QStringList{" (disabled)", " (disabled)"}));
    EXPECT_EQ(titles(menus.records()[2]).front(), " (disabled)");
    bare->setActivities({});
}

TEST(TitleFormatTest, OnlyTheOneArgumentIsEverRead) {
    using LMBroadcastValues::formatWithObject;
    EXPECT_EQ(formatWithObject("Broadcast", "N"), "Broadcast");
    EXPECT_EQ(formatWithObject("%@ and %@", "N"), "N and ");
    EXPECT_EQ(formatWithObject("%1$@ / %1$@ / %2$@", "N"), "N / N / ");
    EXPECT_EQ(formatWithObject("100%% %s %d %n %@ %", "N"), "100% %s %d %n N %");
    EXPECT_EQ(formatWithObject("%@", QString()), "(null)");
    EXPECT_EQ(formatWithObject("%99999999999999999999$@ end", "N"), " end");
}

TEST_F(PresentationTest, ThousandsOfActivitiesMakeOneMenuOnTheMainQueue) {
    QStringList ids;
    for (int i = 0; i < 3000; ++i) {
        ids << QStringLiteral("com.test.s%1").arg(i);
    }
    MenuRecorder menus("com.test.s2999");
    const auto activities = makeActivities(ids, controller_);
    controller_->setupActivityViewController("Notes", "com.test.notes", nullptr, activities);
    // The archive and the property are set before the hop to the main queue.
    EXPECT_EQ(controller_->activities(), activities);
    EXPECT_TRUE(controller_->applicationInfoExtensionItem());
    EXPECT_TRUE(menus.records().empty());
    ASSERT_TRUE(menus.waitFor(1));
    EXPECT_TRUE(menus.allOnMainThread());
    const auto record = menus.records().front();
    ASSERT_EQ(record.entries.size(), 3001u);
    EXPECT_EQ(record.entries[0].title, "Broadcast Notes to");
    EXPECT_EQ(record.location, kAnchor);  // through single precision
    EXPECT_EQ(record.chosen, 3000);
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] { return !controller_->performed().empty(); }, 20000));
    EXPECT_EQ(controller_->performed().front(), activities.back().get());
}

}  // namespace
