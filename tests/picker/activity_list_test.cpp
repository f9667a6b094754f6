// The three loaders and the choice of presentation: host information per host-info item (bad
// attachments reported, not fatal), the installed setup UIs as activities delegated to the
// controller (and to no controller once it is gone), the setup result's counter rule, and which
// presentation viewDidLoad chooses.
#include <gtest/gtest.h>

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <atomic>

#include "picker/LMBroadcastActivityKeys.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/UTType.h"
#include "tests/discovery/ManifestFixture.h"
#include "tests/picker/PickerFixture.h"

using namespace lumaro::test;

namespace {

struct HostInfo {
    QString bundleID, appName, preferred, title, message;
    std::shared_ptr<NSImage> icon;
};

QByteArray pngOf(QColor color) {
    QImage image(4, 4, QImage::Format_ARGB32);
    image.fill(color);
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

QVariantMap fullHostInfo() {
    return {{LMBroadcastExtensionKeyExtensionHostInfoAppName, "Notes"},
            {LMBroadcastExtensionKeyExtensionHostInfoBundleID, "com.test.notes"},
            {LMBroadcastExtensionKeyExtensionHostInfoAppIcon, pngOf(Qt::green)},
            {LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertTitle,
             "Nothing installed"},
            {LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertMessage,
             "Install a service"}};
}

// Runs loadHostApplicationInfo and collects each call until `expected` arrived and the given
// error lines were written.
std::vector<HostInfo> loadHostInfo(LMBroadcastActivityExtensionNSViewController& controller,
                                   size_t expected, platform::log::LogCapture& capture,
                                   size_t expectedErrors = 0) {
    auto calls = std::make_shared<std::vector<HostInfo>>();
    auto mutex = std::make_shared<std::mutex>();
    controller.loadHostApplicationInfo(
        [calls, mutex](const QString& bundleID, const QString& appName,
                       const std::shared_ptr<NSImage>& icon, const QString& preferred,
                       const QString& title, const QString& message) {
            std::lock_guard lock(*mutex);
            calls->push_back({bundleID, appName, preferred, title, message, icon});
        });
    const auto errors = [&capture] {
        size_t n = 0;
        for (const auto& record : capture.records()) {
            n += record.type == OS_LOG_TYPE_ERROR ? 1 : 0;
        }
        return n;
    };
    platform::dispatch::runMainLoopUntil(
        [&] {
            std::lock_guard lock(*mutex);
            return calls->size() >= expected && errors() >= expectedErrors;
        },
        20000);
    std::lock_guard lock(*mutex);
    return *calls;
}

TEST(ActivityListTest, HostInformationArrivesOncePerHostInfoItemWithBadEntriesReadAsNone) {
    QVariantMap second{
        {LMBroadcastExtensionKeyExtensionHostInfoAppName, 12},
        {LMBroadcastExtensionKeyExtensionHostInfoBundleID, "com.test.other"},
        {LMBroadcastExtensionKeyExtensionHostInfoAppIcon, QByteArray("not an image")},
        {LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension, ""}};
    auto notData = std::make_shared<NSExtensionItem>();
    notData->setAttributedTitle(LMBroadcastExtensionKeyExtensionHostInfo);
    notData->setAttachments({NSItemProvider::initWithItem(fullHostInfo(), "com.test.opaque")});
    auto noAttachment = std::make_shared<NSExtensionItem>();
    noAttachment->setAttributedTitle(LMBroadcastExtensionKeyExtensionHostInfo);
    makeRequest({requestItem({}), hostInfoItem(fullHostInfo()), titledItem("Other", fullHostInfo()),
                 notData, noAttachment, hostInfoItem(QByteArray("a list")), hostInfoItem(second)});
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    platform::log::LogCapture capture;
    // Errors: no attachment, not a dictionary, the name's type, the icon's data.
    auto calls = loadHostInfo(*controller, 2, capture, 4);
    ASSERT_EQ(calls.size(), 2u);
    std::sort(calls.begin(), calls.end(),
              [](const HostInfo& a, const HostInfo& b) { return a.bundleID < b.bundleID; });
    EXPECT_EQ(calls[0].bundleID, "com.test.notes");
    EXPECT_EQ(calls[0].appName, "Notes");
    EXPECT_TRUE(calls[0].preferred.isNull());
    EXPECT_EQ(calls[0].title, "Nothing installed");
    EXPECT_EQ(calls[0].message, "Install a service");
    ASSERT_TRUE(calls[0].icon);
    EXPECT_EQ(QColor(calls[0].icon->imageRepresentation().pixel(1, 1)), QColor(Qt::green));
    EXPECT_EQ(calls[1].bundleID, "com.test.other");
    EXPECT_TRUE(calls[1].appName.isNull());
    EXPECT_FALSE(calls[1].icon);
    EXPECT_FALSE(calls[1].preferred.isNull());  // present, though empty
    EXPECT_TRUE(calls[1].title.isNull());
    EXPECT_EQ(capture.count("Error loading input item for type: no attachment"), 1u);
    EXPECT_EQ(capture.count("Error loading input item for type: the host information is not a "
                            "dictionary"),
              1u);
}

TEST(ActivityListTest, InstalledSetupUIsBecomeActivitiesDelegatedToALiveControllerOnly) {
    TempDir dir;
    writeManifest(dir, "b.json",
                  manifest("com.test.b", {}, kLMBroadcastSetupUIExtensionPoint, 6, "Bee"));
    writeManifest(dir, "a.json",
                  manifest("com.test.a", {}, kLMBroadcastSetupUIExtensionPoint, 1, "Ay"));
    writeManifest(dir, "c.json", manifest("com.test.c", {}, "com.test.elsewhere", 1, "Sea"));
    ScopedSearchPath path({dir.path()});

    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    std::weak_ptr<LMBroadcastActivityExtensionNSViewController> watch = controller;
    platform::log::LogCapture capture;
    auto received = std::make_shared<LMStreamingActivityArray>();
    auto done = std::make_shared<std::atomic<bool>>(false);
    controller->loadStreamingActivitiesWithHandler(
        [received, done](const LMStreamingActivityArray& activities) {
            *received = activities;
            *done = true;
        });
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil([&] { return done->load(); }, 20000));
    ASSERT_EQ(received->size(), 2u);
    EXPECT_EQ((*received)[0]->activityType(), "com.test.a");
    EXPECT_EQ((*received)[1]->activityType(), "com.test.b");
    for (const auto& activity : *received) {
        EXPECT_EQ(activity->delegate(), controller);
    }
    EXPECT_EQ(capture.count("Loading streaming activities"), 1u);
    EXPECT_EQ(capture.count("Returning streaming activity count = 2"), 1u);
    received->clear();  // the activities hold the controller: let it go
}

TEST(ActivityListTest, AControllerReleasedBeforeTheActivitiesArriveIsNotRevived) {
    // Enough manifests that reading them takes far longer than releasing the controller.
    TempDir dir;
    for (int i = 0; i < 300; ++i) {
        const QString id = QStringLiteral("com.test.s%1").arg(i, 3, 10, QLatin1Char('0'));
        writeManifest(dir, id + ".json",
                      manifest(id, {}, kLMBroadcastSetupUIExtensionPoint, 1, "S"));
    }
    ScopedSearchPath path({dir.path()});
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
    for (const auto& activity : *received) {
        EXPECT_FALSE(activity->delegate());
    }
    EXPECT_TRUE(watch.expired());
}

TEST(ActivityListTest, NoSetupUIAndABrokenSearchFolderStillAnswerAnEmptyList) {
    TempDir dir;
    dir.write("unreadable/x.json", 0, "{}");
    QFile::setPermissions(dir.file("unreadable"), QFileDevice::Permissions());
    ScopedSearchPath path({dir.file("unreadable"), dir.file("missing")});
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    platform::log::LogCapture capture;
    std::atomic<int> calls{0};
    std::atomic<size_t> count{99};
    controller->loadStreamingActivitiesWithHandler([&](const LMStreamingActivityArray& a) {
        count = a.size();
        calls++;
    });
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil([&] { return calls.load() == 1; }, 20000));
    QFile::setPermissions(dir.file("unreadable"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    EXPECT_EQ(count.load(), 0u);
    EXPECT_EQ(capture.count("Returning streaming activity count = 0"), 1u);
}

struct SetupResultCall {
    QString bundleID;
    QByteArray configuration;
    QVariantMap userInfo;
    QUrl serviceURL;
};

class SetupResultTest : public ::testing::Test {
protected:
    // Loads `items` and waits until the handler ran or every load is over: each load holds its
    // item until it has completed, so an item back at its count of references from before the
    // call is done with.
    std::vector<SetupResultCall> run(const std::vector<NSExtensionItemPtr>& items) {
        auto calls = std::make_shared<std::vector<SetupResultCall>>();
        auto mutex = std::make_shared<std::mutex>();
        std::vector<long> before;
        for (const auto& item : items) {
            before.push_back(item.use_count());
        }
        controller_->loadItems(items, [calls, mutex](const QString& id, const QByteArray& config,
                                                     const QVariantMap& info, const QUrl& url) {
            std::lock_guard lock(*mutex);
            calls->push_back({id, config, info, url});
        });
        const auto settled = [&] {
            for (size_t i = 0; i < items.size(); ++i) {
                if (items[i] && items[i].use_count() > before[i]) {
                    return false;
                }
            }
            return true;
        };
        EXPECT_TRUE(platform::dispatch::runMainLoopUntil(settled, 20000));
        std::lock_guard lock(*mutex);
        return *calls;
    }

    std::shared_ptr<LMBroadcastActivityExtensionNSViewController> controller_ =
        std::make_shared<LMBroadcastActivityExtensionNSViewController>();
};

TEST_F(SetupResultTest, FourItemsFillTheSlotsAndOtherTitlesStillCount) {
    const auto calls =
        run({titledItem(LMBroadcastExtensionKeyExtensionBundleIdentifier, "com.test.ext"),
             titledItem(LMBroadcastExtensionKeyBroadcastConfiguration, QByteArray("cfg")),
             titledItem(LMBroadcastExtensionKeyExtensionUserInfo, QVariantMap{{"k", 1}}),
             titledItem(kLMBroadcastExtensionKeyExtensionServiceURL, QUrl("https://s.test/x")),
             titledItem("SomethingElse", 5)});
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].bundleID, "com.test.ext");
    EXPECT_EQ(calls[0].configuration, QByteArray("cfg"));
    EXPECT_EQ(calls[0].userInfo, (QVariantMap{{"k", 1}}));
    EXPECT_EQ(calls[0].serviceURL, QUrl("https://s.test/x"));
}

TEST_F(SetupResultTest, MissingItemsGiveTheStartingValuesAndWrongTypesAreIgnored) {
    platform::log::LogCapture capture;
    const auto calls =
        run({titledItem(LMBroadcastExtensionKeyExtensionBundleIdentifier, 17),
             titledItem(kLMBroadcastExtensionKeyExtensionServiceURL, "https://s.test/y")});
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_TRUE(calls[0].bundleID.isNull());
    EXPECT_TRUE(calls[0].userInfo.isEmpty());
    EXPECT_TRUE(calls[0].configuration.isEmpty());
    EXPECT_FALSE(calls[0].configuration.isNull());
    EXPECT_EQ(calls[0].serviceURL, QUrl("https://s.test/y"));
    EXPECT_EQ(
        capture.count("Ignoring setup result LMBroadcastExtensionKeyExtensionBundleIdentifier: "
                      "unexpected value type"),
        1u);
}

TEST_F(SetupResultTest, OneItemThatIsNotDataOrHasNoAttachmentMeansNoHandlerEver) {
    auto opaque = std::make_shared<NSExtensionItem>();
    opaque->setAttributedTitle(LMBroadcastExtensionKeyExtensionUserInfo);
    opaque->setAttachments({NSItemProvider::initWithItem(QVariantMap{}, "com.test.opaque")});
    EXPECT_TRUE(
        run({titledItem(LMBroadcastExtensionKeyExtensionBundleIdentifier, "a"),
             titledItem(LMBroadcastExtensionKeyBroadcastConfiguration, QByteArray("c")),
             titledItem(kLMBroadcastExtensionKeyExtensionServiceURL, QUrl("https://u")), opaque})
            .empty());

    platform::log::LogCapture capture;
    auto bare = std::make_shared<NSExtensionItem>();
    EXPECT_TRUE(
        run({titledItem(LMBroadcastExtensionKeyExtensionBundleIdentifier, "a"), bare, nullptr})
            .empty());
    EXPECT_EQ(capture.count("Error loading input item for type: no attachment"), 2u);
    EXPECT_TRUE(run({}).empty());
}

// The choice viewDidLoad makes once the host information and the activities are in.
class ChoiceTest : public ::testing::Test {
protected:
    void install(const QStringList& identifiers) {
        for (const QString& id : identifiers) {
            writeManifest(dir_, id + ".json",
                          manifest(id, {}, kLMBroadcastSetupUIExtensionPoint, 1, id.toUpper()));
        }
    }
    std::shared_ptr<RecordingController> loaded(const QVariantMap& hostInfo) {
        makeRequest({requestItem({}), hostInfoItem(hostInfo)});
        auto controller = std::make_shared<RecordingController>();
        controller->loadViewIfNeeded();
        EXPECT_TRUE(platform::dispatch::runMainLoopUntil(
            [&] { return controller->callCount.load() > 0; }, 20000));
        return controller;
    }
    TempDir dir_;
    ScopedSearchPath path_{{dir_.path()}};
};

TEST_F(ChoiceTest, PreferredExtensionMeansTheSingleExtensionPathEvenWithNoActivities) {
    QVariantMap hostInfo = fullHostInfo();
    hostInfo.insert(LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension, "com.test.x");
    const auto controller = loaded(hostInfo);
    ASSERT_EQ(controller->calls().size(), 1u);
    EXPECT_EQ(controller->calls()[0].method, "single");
    EXPECT_EQ(controller->calls()[0].arguments,
              (QStringList{"com.test.notes", "com.test.x", "Notes"}));
    EXPECT_EQ(controller->calls()[0].activityCount, 0u);
    EXPECT_EQ(controller->hostBundleID(), "com.test.notes");
    ASSERT_TRUE(controller->lastIcon);
}

TEST_F(ChoiceTest, ActivitiesWithoutPreferenceMeanTheMenuAndNoneMeanNotInstalled) {
    install({"com.test.one", "com.test.two"});
    auto controller = loaded(fullHostInfo());
    ASSERT_EQ(controller->calls().size(), 1u);
    EXPECT_EQ(controller->calls()[0].method, "menu");
    EXPECT_EQ(controller->calls()[0].arguments, (QStringList{"Notes", "com.test.notes"}));
    EXPECT_EQ(controller->calls()[0].activityCount, 2u);

    QFile::remove(dir_.file("com.test.one.json"));
    QFile::remove(dir_.file("com.test.two.json"));
    controller = loaded(fullHostInfo());
    ASSERT_EQ(controller->calls().size(), 1u);
    EXPECT_EQ(controller->calls()[0].method, "notInstalled");
    EXPECT_EQ(controller->calls()[0].arguments,
              (QStringList{"Notes", "Nothing installed", "Install a service"}));
}

TEST_F(ChoiceTest, NoHostInformationMeansNoChoiceAndNoBundleIdentifier) {
    makeRequest({requestItem({})});
    auto controller = std::make_shared<RecordingController>();
    controller->loadViewIfNeeded();
    // Give any (wrong) presentation every chance to arrive through the main queue.
    std::atomic<bool> flushed{false};
    dispatch_async(dispatch_get_main_queue(), [&flushed] { flushed = true; });
    platform::dispatch::runMainLoopUntil([&] { return flushed.load(); }, 20000);
    EXPECT_EQ(controller->callCount.load(), 0);
    EXPECT_TRUE(controller->hostBundleID().isNull());
}

}  // namespace
