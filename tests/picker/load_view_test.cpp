// Loading the picker's view: which form a request takes, the texts and sizes of the input-item
// form (numbers through single precision, bad values read as 0 with an error line), and the
// remote-parameters form with its storyboard, error lines and the embedded controller pinned to
// the picker's view.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <cmath>
#include <limits>

#include "logging/LMLog.h"
#include "picker/LMBroadcastActivityKeys.h"
#include "platform/appkit/NSStoryboard.h"
#include "platform/foundation/NSBundle.h"
#include "platform/log/format.h"
#include "tests/picker/PickerFixture.h"
#include "tests/picker/PickerTestBundle.h"

using namespace lumaro::test;

namespace {

const char* kLoadView = "-[LMBroadcastActivityExtensionNSViewController loadView]";
const std::string kNoStoryboard =
    " [ERROR] -[LMBroadcastActivityExtensionNSViewController loadView]:72 No storyboard found "
    "matching BroadcastSetup";
const std::string kNoChild =
    " [ERROR] -[LMBroadcastActivityExtensionNSViewController loadView]:79 App extension view "
    "controller failed to instantiate with extension context";

QVariantMap texts() {
    return {{kLMBroadcastActivityExtensionLedraKeyLocalizedNoService, "No service"},
            {kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle, "Broadcast %@ to"},
            {kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps, "Find apps"}};
}

class LoadViewTest : public ::testing::Test {
protected:
    void SetUp() override { removeStoryboard(); }
    void TearDown() override {
        removeStoryboard();
        LMLogSetLogLevel(1);
    }

    static QString storyboardFile() {
        return pickerMainBundle() + "/Resources/BroadcastSetup.storyboard.json";
    }
    static void writeStoryboard(const QByteArray& json) {
        QDir().mkpath(pickerMainBundle() + "/Resources");
        QFile file(storyboardFile());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(json);
    }
    static void removeStoryboard() { QFile::remove(storyboardFile()); }

    // A controller loaded with `parameters` as its host-app client parameters.
    static std::shared_ptr<LMBroadcastActivityExtensionNSViewController> load(
        const QVariant& parameters = {}) {
        auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
        controller->setHostAppClientParameters(parameters);
        controller->loadViewIfNeeded();
        return controller;
    }
};

TEST_F(LoadViewTest, InputItemGivesTextsAndSizesThroughSinglePrecision) {
    QVariantMap info = texts();
    info.insert(kLMBroadcastActivityExtensionLedraKeyWidth, "320.5");
    info.insert(kLMBroadcastActivityExtensionLedraKeyHeight, 200.123456789);
    makeRequest({requestItem(info)});
    platform::log::LogCapture capture;
    // "NO" with an input item present: the input item wins.
    const auto controller = load(QVariantMap{{"isPrismApp", "NO"}});

    EXPECT_EQ(controller->localizedNoServiceMessage(), "No service");
    EXPECT_EQ(controller->localizedBroadcastTitle(), "Broadcast %@ to");
    EXPECT_EQ(controller->localizedFindBroadcastApps(), "Find apps");
    const NSRect frame = controller->view()->frame();
    EXPECT_EQ(frame.origin, NSZeroPoint);
    EXPECT_EQ(frame.size.width, 320.5);
    EXPECT_EQ(frame.size.height, static_cast<double>(200.123456789f));
    EXPECT_NE(frame.size.height, 200.123456789);
    EXPECT_TRUE(controller->childViewControllers().empty());
    const std::string info42 = platform::log::formatMessage(
        " [INFO] %{public}s:%d %p", {kLoadView, 42, static_cast<const void*>(controller.get())});
    EXPECT_EQ(capture.count(info42), 1u);
    EXPECT_EQ(capture.count(kNoStoryboard), 0u);

    // Level 2 drops the info line.
    LMLogSetLogLevel(2);
    capture.clear();
    load();
    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(LoadViewTest, WithoutInputItemOnlyExactlyNOSelectsTheParameters) {
    makeRequest({});
    const QVariant notNO[] = {
        QVariantMap{{"isPrismApp", "no"}}, QVariantMap{{"isPrismApp", "No"}},
        QVariantMap{{"isPrismApp", 0}},    QVariantMap{{"isPrismApp", false}},
        QVariant(QStringLiteral("NO")),    QVariant(),
        QVariantMap{{"view-width", 50}},
    };
    for (const QVariant& parameters : notNO) {
        platform::log::LogCapture capture;
        const auto controller = load(parameters);
        EXPECT_EQ(controller->view()->frame(), NSZeroRect) << parameters.toString().toStdString();
        EXPECT_TRUE(controller->localizedBroadcastTitle().isNull());
        EXPECT_TRUE(controller->localizedNoServiceMessage().isNull());
        EXPECT_EQ(capture.count(kNoStoryboard), 0u);
    }

    platform::log::LogCapture capture;
    const auto controller =
        load(QVariantMap{{"isPrismApp", "NO"}, {"view-width", 400}, {"view-height", "300"}});
    EXPECT_EQ(controller->view()->frame(), NSMakeRect(0, 0, 400, 300));
    EXPECT_EQ(capture.count(kNoStoryboard), 1u);
    EXPECT_TRUE(controller->view()->subviews().empty());
}

TEST_F(LoadViewTest, BadValuesReadAsZeroOrNothingWithAnErrorLine) {
    struct Case {
        QVariant width;
        double expected;
        bool error;
    };
    const Case cases[] = {
        {QVariant("abc"), 0, true},
        {QVariant(std::numeric_limits<double>::quiet_NaN()), 0, true},
        {QVariant("nan"), 0, true},
        {QVariant(1e300), 0, true},  // infinite once narrowed
        {QVariant(QVariantMap{{"w", 1}}), 0, true},
        {QVariant(" 12.5px"), 12.5, false},
        {QVariant("-3"), -3, false},
        {QVariant(".5e1"), 5, false},
        {QVariant(true), 1, false},
        {QVariant(), 0, false},
    };
    for (const Case& c : cases) {
        QVariantMap info{{kLMBroadcastActivityExtensionLedraKeyWidth, c.width},
                         {kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle, 42},
                         {kLMBroadcastActivityExtensionLedraKeyLocalizedNoService, QVariantList{}}};
        makeRequest({requestItem(info)});
        platform::log::LogCapture capture;
        const auto controller = load();
        EXPECT_EQ(controller->view()->frame().size.width, c.expected)
            << c.width.toString().toStdString();
        size_t errors = 0;
        for (const auto& record : capture.records()) {
            errors += record.type == OS_LOG_TYPE_ERROR ? 1 : 0;
        }
        EXPECT_EQ(errors, (c.error ? 1u : 0u) + 2u) << c.width.toString().toStdString();
        EXPECT_TRUE(controller->localizedBroadcastTitle().isNull());
        EXPECT_TRUE(controller->localizedNoServiceMessage().isNull());
    }
}

TEST_F(LoadViewTest, StoryboardErrorsLeaveTheViewEmptyAndLevelThreeSilencesThem) {
    makeRequest({});
    const QVariantMap parameters{{"isPrismApp", "NO"}, {"view-width", 10}, {"view-height", 20}};

    writeStoryboard(R"({"initialController": "NoSuchController"})");
    {
        platform::log::LogCapture capture;
        const auto controller = load(parameters);
        EXPECT_EQ(capture.count(kNoChild), 1u);
        EXPECT_EQ(capture.count(kNoStoryboard), 0u);
        EXPECT_EQ(controller->view()->frame(), NSMakeRect(0, 0, 10, 20));
        EXPECT_TRUE(controller->view()->subviews().empty());
        EXPECT_TRUE(controller->childViewControllers().empty());
    }
    writeStoryboard("this is not json");
    {
        platform::log::LogCapture capture;
        load(parameters);
        EXPECT_EQ(capture.count(kNoChild), 1u);
    }
    removeStoryboard();
    LMLogSetLogLevel(3);
    {
        platform::log::LogCapture capture;
        load(parameters);
        EXPECT_EQ(capture.count(kNoStoryboard), 0u);
    }
}

TEST_F(LoadViewTest, RemoteFormEmbedsTheStoryboardControllerPinnedToTheView) {
    const auto shipped = NSStoryboard::storyboardWithName(
        "BroadcastSetup", NSBundle::bundleWithPath(qEnvironmentVariable("LUMARO_SOURCE_DIR") +
                                                   "/programs/lumaro-broadcast-picker"));
    ASSERT_TRUE(shipped);
    EXPECT_EQ(shipped->initialControllerClass(),
              kLMBroadcastActivityExtensionNSViewControllerClassName);
    EXPECT_TRUE(NSStoryboard::isViewControllerClassRegistered(
        kLMBroadcastActivityExtensionNSViewControllerClassName));
    writeStoryboard(R"({"initialController": "LMBroadcastActivityExtensionNSViewController"})");

    // The request's own context, kept by the vendor; the shared context is a newer one.
    const QUuid requestId = QUuid::createUuid();
    const auto requestContext = makeRequest({}, requestId);
    _NSExtensionContextVendor::_sharedExtensionContextVendor()->_setExtensionContext(
        requestContext);
    const auto shared = makeRequest({});

    for (const QVariant& id : {QVariant(requestId), QVariant(requestId.toString()), QVariant(7)}) {
        platform::log::LogCapture capture;
        const auto controller = load(QVariantMap{{"isPrismApp", "NO"},
                                                 {"view-width", 400.25},
                                                 {"view-height", 300},
                                                 {"request-identifier", id}});
        const auto view = controller->view();
        EXPECT_EQ(view->frame(), NSMakeRect(0, 0, 400.25, 300));
        ASSERT_EQ(controller->childViewControllers().size(), 1u);
        const auto child = controller->childViewControllers().front();
        EXPECT_TRUE(std::dynamic_pointer_cast<LMBroadcastActivityExtensionNSViewController>(child));
        EXPECT_EQ(child->extensionContext(), shared);  // always the shared context
        ASSERT_EQ(view->subviews().size(), 1u);
        const auto childView = view->subviews().front();
        EXPECT_EQ(childView, child->view());
        EXPECT_FALSE(childView->translatesAutoresizingMaskIntoConstraints());
        EXPECT_EQ(childView->frame(), view->bounds());
        view->setFrameSize(NSMakeSize(640, 480));
        EXPECT_EQ(childView->frame(), NSMakeRect(0, 0, 640, 480));
        EXPECT_EQ(capture.count(kNoChild), 0u);
    }
    _NSExtensionContextVendor::_sharedExtensionContextVendor()->_removeExtensionContext(requestId);
}

TEST_F(LoadViewTest, EveryControllerAnswersTheNewestSharedContext) {
    const auto first = makeRequest({});
    auto fromStoryboard =
        NSStoryboard::makeViewController(kLMBroadcastActivityExtensionNSViewControllerClassName);
    ASSERT_TRUE(fromStoryboard);
    auto other = std::make_shared<NSExtensionContext>();
    other->initWithInputItems({}, nullptr, QUuid::createUuid());
    fromStoryboard->beginRequestWithExtensionContext(other);
    EXPECT_EQ(fromStoryboard->extensionContext(), first);

    const auto second = makeRequest({});
    auto picker =
        std::static_pointer_cast<LMBroadcastActivityExtensionNSViewController>(fromStoryboard);
    EXPECT_EQ(picker->extensionContext(), second);
    EXPECT_EQ(picker->broadcastExtensionContext(), second);
    EXPECT_EQ(std::make_shared<LMBroadcastActivityExtensionNSViewController>()->extensionContext(),
              second);
    EXPECT_EQ(picker->exportedInterface()->protocol().name,
              "LMBroadcastActivityViewServiceHostProtocol");
}

}  // namespace
