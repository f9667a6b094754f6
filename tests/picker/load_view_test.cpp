// Loading the picker's view: which form a request takes, the input-item form's texts and sizes
// (numbers through single precision, texts as found, values that are no number read as 0), and the
// remote-parameters form: its storyboard errors and the embedded controller pinned to the view.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <limits>

#include "picker/LMBroadcastActivityKeys.h"
#include "tests/picker/PickerFixture.h"

using namespace lumaro::test;

// Tests put the storyboard in the main bundle or take it away; the picker's classes are
// registered as the picker's program registers them; activities draw icons.
LUMARO_TEST_MAIN(.widgets = true, .ownMainBundle = true,
                 .prepare = LMBroadcastPickerRegisterClasses);

namespace {

const std::string kMethod = "-[LMBroadcastActivityExtensionNSViewController loadView]";
const std::string kNoStoryboard =
    " [ERROR] " + kMethod + ":72 No storyboard found matching BroadcastSetup";
const std::string kNoChild = " [ERROR] " + kMethod +
                             ":79 App extension view controller failed to instantiate with "
                             "extension context";

class LoadViewTest : public ::testing::Test {
protected:
    void SetUp() override { QFile::remove(storyboardFile()); }
    void TearDown() override { QFile::remove(storyboardFile()); }
    static QString storyboardFile() {
        return qEnvironmentVariable("LUMARO_MAIN_BUNDLE") +
               "/Resources/BroadcastSetup.storyboard.json";
    }
    static void writeStoryboard(const QByteArray& json) {
        QDir().mkpath(qEnvironmentVariable("LUMARO_MAIN_BUNDLE") + "/Resources");
        QFile file(storyboardFile());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(json);
    }
    static std::shared_ptr<LMBroadcastActivityExtensionNSViewController> load(
        const QVariant& parameters = {}) {
        auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
        controller->setHostAppClientParameters(parameters);
        controller->loadViewIfNeeded();
        return controller;
    }
};

TEST_F(LoadViewTest, InputItemWinsOverTheFlagAndGivesTextsAndSinglePrecisionSizes) {
    makeRequest(
        {requestItem({{kLMBroadcastActivityExtensionLedraKeyLocalizedNoService, "None"},
                      {kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle, "T %@"},
                      {kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps, "Find"},
                      {kLMBroadcastActivityExtensionLedraKeyWidth, "320.5"},
                      {kLMBroadcastActivityExtensionLedraKeyHeight, 200.123456789}})});
    const auto controller = load(QVariantMap{{"isPrismApp", "NO"}});
    EXPECT_EQ(controller->localizedNoServiceMessage(), "None");
    EXPECT_EQ(controller->localizedBroadcastTitle(), "T %@");
    EXPECT_EQ(controller->localizedFindBroadcastApps(), "Find");
    EXPECT_EQ(controller->view()->frame(),
              NSMakeRect(0, 0, 320.5, static_cast<double>(200.123456789f)));
    EXPECT_TRUE(controller->childViewControllers().empty());
}

TEST_F(LoadViewTest, WithoutInputItemOnlyExactlyNOSelectsTheParameters) {
    makeRequest({});
    for (const QVariant& parameters :
         {QVariant(QVariantMap{{"isPrismApp", "no"}}), QVariant(QVariantMap{{"isPrismApp", 0}}),
          QVariant(QStringLiteral("NO")), QVariant()}) {
        platform::log::LogCapture capture;
        const auto controller = load(parameters);
        EXPECT_EQ(controller->view()->frame(), NSZeroRect);
        EXPECT_TRUE(controller->localizedBroadcastTitle().isNull());
        EXPECT_EQ(capture.count(kNoStoryboard), 0u);
    }
    platform::log::LogCapture capture;
    const auto controller =
        load(QVariantMap{{"isPrismApp", "NO"}, {"view-width", 400}, {"view-height", "300"}});
    EXPECT_EQ(controller->view()->frame(), NSMakeRect(0, 0, 400, 300));
    EXPECT_EQ(capture.count(kNoStoryboard), 1u);
    EXPECT_TRUE(controller->view()->subviews().empty());
}

TEST_F(LoadViewTest, SizesThatAreNoNumberReadAsZeroAndTextsAreStoredAsFound) {
    const std::pair<QVariant, double> widths[] = {{"abc", 0},
                                                  {std::numeric_limits<double>::quiet_NaN(), 0},
                                                  {"nan", 0},
                                                  {1e300, 0},
                                                  {QVariantMap{{"w", 1}}, 0},
                                                  {" 12.5px", 12.5},
                                                  {"-3", -3},
                                                  {".5e1", 5},
                                                  {QVariant(), 0}};
    for (const auto& [width, expected] : widths) {
        makeRequest(
            {requestItem({{kLMBroadcastActivityExtensionLedraKeyWidth, width},
                          {kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle, 42}})});
        platform::log::LogCapture capture;
        const auto controller = load();
        EXPECT_EQ(controller->view()->frame().size.width, expected)
            << width.toString().toStdString();
        EXPECT_EQ(errorCount(capture), 0u);
        EXPECT_EQ(controller->localizedBroadcastTitle(), "42");
    }
}

TEST_F(LoadViewTest, StoryboardWithoutAUsableControllerLeavesTheViewEmpty) {
    makeRequest({});
    const QVariantMap parameters{{"isPrismApp", "NO"}, {"view-width", 10}, {"view-height", 20}};
    for (const QByteArray& json :
         {QByteArray(R"({"initialController": "NoSuchController"})"), QByteArray("not json")}) {
        writeStoryboard(json);
        platform::log::LogCapture capture;
        const auto controller = load(parameters);
        EXPECT_EQ(capture.count(kNoChild), 1u);
        EXPECT_EQ(controller->view()->frame(), NSMakeRect(0, 0, 10, 20));
        EXPECT_TRUE(controller->view()->subviews().empty());
        EXPECT_TRUE(controller->childViewControllers().empty());
    }
}

TEST_F(LoadViewTest, RemoteFormEmbedsTheStoryboardControllerPinnedToTheView) {
    writeStoryboard(R"({"initialController": "LMBroadcastActivityExtensionNSViewController"})");

    // The request's own context is found by the vendor; the newer shared context wins anyway.
    const QUuid requestId = QUuid::createUuid();
    const auto vendor = _NSExtensionContextVendor::_sharedExtensionContextVendor();
    vendor->_setExtensionContext(makeRequest({}, requestId));
    const auto shared = makeRequest({});
    for (const QVariant& id : {QVariant(requestId), QVariant(requestId.toString()), QVariant(7)}) {
        platform::log::LogCapture capture;
        const auto controller = load(QVariantMap{{"isPrismApp", "NO"},
                                                 {"view-width", 400.25},
                                                 {"view-height", 300},
                                                 {"request-identifier", id}});
        const auto view = controller->view();
        ASSERT_EQ(controller->childViewControllers().size(), 1u);
        const auto child = controller->childViewControllers().front();
        EXPECT_EQ(child->extensionContext(), shared);
        ASSERT_EQ(view->subviews(), std::vector<std::shared_ptr<NSView>>{child->view()});
        EXPECT_FALSE(child->view()->translatesAutoresizingMaskIntoConstraints());
        EXPECT_EQ(child->view()->frame(), NSMakeRect(0, 0, 400.25, 300));
        view->setFrameSize(NSMakeSize(640, 480));
        EXPECT_EQ(child->view()->frame(), NSMakeRect(0, 0, 640, 480));
        EXPECT_EQ(errorCount(capture), 0u);
    }
    vendor->_removeExtensionContext(requestId);
}

}  // namespace
