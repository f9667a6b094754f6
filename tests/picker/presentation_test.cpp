// The presentations: the application-info archive's icon and missing name, the single-extension
// path performing every match, bad title formats, and a menu of thousands of activities as the
// automation presenter records it (anchor through single precision, main queue). The menus' texts
// and the choice across processes are the end-to-end roads'.
#include <gtest/gtest.h>

#include <QImage>
#include <atomic>

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

// The item's first attachment as data, running the main loop until it came (a guard, not a
// timing check), unarchived.
QVariantMap unarchivedAttachment(const NSExtensionItemPtr& item) {
    auto loaded = std::make_shared<std::pair<std::atomic<bool>, QVariant>>();  // outlives the load
    item->attachments().at(0)->loadItemForTypeIdentifier(
        kUTTypeData, {}, [loaded](const QVariant& v, const NSErrorPtr&) {
            loaded->second = v;
            loaded->first = true;
        });
    platform::dispatch::runMainLoopUntil([&] { return loaded->first.load(); }, 20000);
    return NSKeyedUnarchiver::unarchiveObjectWithData(loaded->second.toByteArray()).toMap();
}

class PresentationTest : public ::testing::Test {
protected:
    void SetUp() override {
        makeRequest({requestItem(
            {{kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle, "Broadcast %@ to"},
             {kLMBroadcastActivityExtensionLedraKeySourceX, 120.7},
             {kLMBroadcastActivityExtensionLedraKeySourceY, "45.2"}})});
        controller_->loadViewIfNeeded();
    }
    void TearDown() override { controller_->setActivities({}); }  // breaks the activity cycle

    std::shared_ptr<RecordingController> controller_ = std::make_shared<RecordingController>();
};

// The name and the bundle reach the setup UI in the end-to-end roads; here the icon, as TIFF with
// its pixels, and a missing name.
TEST_F(PresentationTest, HostDataArchiveHoldsATIFFIconAndAMissingNameEmpty) {
    QImage red(8, 8, QImage::Format_ARGB32);
    red.fill(Qt::red);
    controller_->archiveHostData("Notes", "com.test.notes", std::make_shared<NSImage>(red));
    const QByteArray tiff = unarchivedAttachment(controller_->applicationInfoExtensionItem())
                                .value(LMBroadcastExtensionKeyExtensionHostInfoAppIcon)
                                .toByteArray();
    EXPECT_TRUE(tiff.startsWith("II*") || tiff.startsWith("MM"));
    const auto icon = NSImage::initWithData(tiff);
    ASSERT_TRUE(icon);
    EXPECT_EQ(QColor(icon->imageRepresentation().pixel(4, 4)), QColor(Qt::red));

    platform::log::LogCapture capture;
    controller_->archiveHostData(QString(), "com.test.other", nullptr);
    EXPECT_EQ(unarchivedAttachment(controller_->applicationInfoExtensionItem()),
              (QVariantMap{{LMBroadcastExtensionKeyExtensionHostInfoAppName, ""},
                           {LMBroadcastExtensionKeyExtensionHostInfoBundleID, "com.test.other"}}));
    EXPECT_EQ(errorCount(capture), 0u);
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
    flushMainQueue();
    EXPECT_TRUE(menus.records().empty());
    for (const auto& activity : activities) {
        activity->setDelegate(nullptr);
    }
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
    ASSERT_TRUE(
        platform::dispatch::runMainLoopUntil([&] { return !menus.records().empty(); }, 20000));
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
