#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/appkit/NSStoryboard.h"
#include "platform/appkit/NSViewController.h"
#include "platform/foundation/NSBundle.h"
#include "platform/log/os_log.h"
#include "tests/support/TempDir.h"

namespace {

class RecordingController : public NSViewController {
public:
    std::vector<std::string> calls;

    void loadView() override {
        calls.push_back("loadView");
        // Asking for the view while loading must neither recurse nor load twice.
        EXPECT_EQ(view(), nullptr);
        setView(NSView::initWithFrame(NSMakeRect(0, 0, 320.5f, 200)));
    }
    void viewDidLoad() override { calls.push_back(isViewLoaded() ? "viewDidLoad" : "too early"); }
};

class ForgetfulController : public NSViewController {
public:
    void loadView() override {}
};

TEST(NSViewControllerTest, ViewLoadsOnceLoadViewThenViewDidLoad) {
    auto controller = std::make_shared<RecordingController>();
    EXPECT_FALSE(controller->isViewLoaded());
    EXPECT_TRUE(controller->calls.empty());

    const auto view = controller->view();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->frame(), NSMakeRect(0, 0, 320.5, 200));
    EXPECT_EQ(controller->view(), view);
    controller->loadViewIfNeeded();
    EXPECT_EQ(controller->calls, (std::vector<std::string>{"loadView", "viewDidLoad"}));

    // A loadView that sets nothing leaves an empty view and an error line, not a null view.
    platform::log::LogCapture capture;
    auto forgetful = std::make_shared<ForgetfulController>();
    ASSERT_NE(forgetful->view(), nullptr);
    EXPECT_EQ(forgetful->view()->frame(), NSZeroRect);
    EXPECT_EQ(capture.records().size(), 1u);
}

TEST(NSViewControllerTest, ChildrenMoveBetweenParentsAndNeverMakeACycle) {
    auto parent = std::make_shared<NSViewController>();
    auto child = std::make_shared<NSViewController>();
    parent->addChildViewController(child);
    platform::log::LogCapture capture;
    child->addChildViewController(parent);  // a cycle: refused
    child->addChildViewController(child);
    child->addChildViewController(nullptr);
    EXPECT_EQ(capture.records().size(), 3u);
    EXPECT_EQ(parent->parentViewController(), nullptr);

    auto other = std::make_shared<NSViewController>();
    other->addChildViewController(child);
    EXPECT_TRUE(parent->childViewControllers().empty());
    EXPECT_EQ(child->parentViewController(), other);
}

// A storyboard found and instantiated, or unusable: the picker's loadView tests. Here the names
// that must find nothing, and a storyboard that names no controller.
TEST(StoryboardTest, NamesOutsideTheResourcesFindNothingAndAnEmptyOneMakesNoController) {
    lumaro::test::TempDir dir;
    dir.write(QStringLiteral("Resources/Unknown.storyboard.json"), 0,
              R"({"initialController": "NoSuchController"})");
    dir.write(QStringLiteral("Resources/Empty.storyboard.json"), 0, "{}");
    const auto bundle = NSBundle::bundleWithPath(dir.path());

    platform::log::LogCapture capture;
    EXPECT_EQ(NSStoryboard::storyboardWithName(QString(), bundle), nullptr);
    EXPECT_EQ(NSStoryboard::storyboardWithName(QStringLiteral("../Resources/Unknown"), bundle),
              nullptr);
    EXPECT_TRUE(capture.records().empty());  // "not found" is the caller's to report

    const auto empty = NSStoryboard::storyboardWithName(QStringLiteral("Empty"), bundle);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->instantiateInitialController(), nullptr);
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].type, OS_LOG_TYPE_ERROR);
}

}  // namespace
