// The three loaders and the choice of presentation: host information once per host-info item
// (entries as found, unusable items skipped), installed setup UIs never delegated to a released
// controller, and viewDidLoad's choice. The setup result's loader: concurrent_test.
#include <gtest/gtest.h>

#include <QBuffer>
#include <QImage>

#include "picker/LMBroadcastActivityKeys.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/UTType.h"
#include "tests/picker/PickerFixture.h"
#include "tests/support/Manifests.h"

using namespace lumaro::test;

namespace {

QVariantMap fullHostInfo() {
    QImage image(4, 4, QImage::Format_ARGB32);
    image.fill(Qt::green);
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return {
        {LMBroadcastExtensionKeyExtensionHostInfoAppName, "Notes"},
        {LMBroadcastExtensionKeyExtensionHostInfoBundleID, "com.test.notes"},
        {LMBroadcastExtensionKeyExtensionHostInfoAppIcon, png},
        {LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertTitle, "T"},
        {LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertMessage, "M"}};
}

TEST(ActivityListTest, HostInformationArrivesOncePerHostInfoItemWithEntriesAsFound) {
    auto noAttachment = std::make_shared<NSExtensionItem>();
    noAttachment->setAttributedTitle(LMBroadcastExtensionKeyExtensionHostInfo);
    makeRequest({requestItem({}), hostInfoItem(fullHostInfo()), titledItem("Other", fullHostInfo()),
                 opaqueItem(LMBroadcastExtensionKeyExtensionHostInfo), noAttachment,
                 hostInfoItem(QByteArray("not a dictionary")),
                 hostInfoItem(QVariantMap{
                     {LMBroadcastExtensionKeyExtensionHostInfoAppName, 12},
                     {LMBroadcastExtensionKeyExtensionHostInfoBundleID, "b"},
                     {LMBroadcastExtensionKeyExtensionHostInfoAppIcon, "x"},
                     {LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension, ""}})});
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    platform::log::LogCapture capture;
    std::mutex mutex;
    std::map<QString, QStringList> calls;  // by bundle identifier
    controller->loadHostApplicationInfo(
        [&](const QString& bundleID, const QString& appName, const std::shared_ptr<NSImage>& icon,
            const QString& preferred, const QString& title, const QString& message) {
            std::lock_guard lock(mutex);
            calls[bundleID] = {
                appName.isNull() ? "nil" : appName,
                icon ? QColor(icon->imageRepresentation().pixel(1, 1)).name() : "nil",
                preferred.isNull() ? "nil" : preferred, title.isNull() ? "nil" : title, message};
        });
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] {
            std::lock_guard lock(mutex);
            return calls.size() == 2;
        },
        20000));
    flushMainQueue();
    EXPECT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls["com.test.notes"], (QStringList{"Notes", "#00ff00", "nil", "T", "M"}));
    // A name that is a number is the text a reader of it gets; an icon that is no image is none.
    EXPECT_EQ(calls["b"], (QStringList{"12", "nil", "", "nil", ""}));
    EXPECT_EQ(errorCount(capture), 0u);
}

TEST(ActivityListTest, AControllerReleasedBeforeTheActivitiesArriveIsNotRevived) {
    // Enough manifests that reading them takes far longer than releasing the controller.
    TempDir dir;
    for (int i = 0; i < 300; ++i) {
        const QString id = QStringLiteral("com.test.s%1").arg(i);
        writeManifest(dir, id + ".json", manifest(id, {}, kLMBroadcastSetupUIExtensionPoint, 1));
    }
    ScopedSearchPath path({dir.path()});
    platform::log::LogCapture capture;
    auto received = std::make_shared<LMStreamingActivityArray>();
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::weak_ptr<LMBroadcastActivityExtensionNSViewController> watch;
    {
        auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
        watch = controller;
        controller->loadStreamingActivitiesWithHandler(
            [received, done](const LMStreamingActivityArray& activities) {
                *received = activities;
                *done = true;
            });
    }
    EXPECT_TRUE(watch.expired());
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil([&] { return done->load(); }, 20000));
    ASSERT_EQ(received->size(), 300u);
    EXPECT_FALSE(received->front()->delegate());
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(capture.texts().front(), "Loading streaming activities");
    EXPECT_EQ(capture.texts().back(), "Returning streaming activity count = 300");
}

// viewDidLoad's choice, in the order of its checks: the menus are the end-to-end roads'.
TEST(ChoiceTest, APreferredExtensionGoesFirstAndNoHostInformationChoosesNothing) {
    TempDir empty;
    ScopedSearchPath path({empty.path()});
    QVariantMap preferring = fullHostInfo();
    preferring.insert(LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension, "com.test.x");
    makeRequest({requestItem({}), hostInfoItem(preferring)});
    MenuRecorder menus;
    platform::log::LogCapture capture;
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    controller->loadViewIfNeeded();
    const std::string notFound =
        "-[LMBroadcastActivityExtensionNSViewController setupSingleExtensionViewWithHostBundleID:"
        "preferredExtension:iconImage:appName:activities:] did not find extension";
    EXPECT_TRUE(
        platform::dispatch::runMainLoopUntil([&] { return capture.count(notFound) > 0; }, 20000));
    EXPECT_EQ(controller->hostBundleID(), "com.test.notes");

    // Without host information nothing is chosen.
    makeRequest({requestItem({})});
    auto bare = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    bare->loadViewIfNeeded();
    flushMainQueue();
    EXPECT_TRUE(bare->hostBundleID().isNull());
    EXPECT_EQ(capture.count(notFound), 1u);
    EXPECT_TRUE(menus.records().empty());
}

}  // namespace
