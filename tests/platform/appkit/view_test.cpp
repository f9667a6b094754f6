#include <gtest/gtest.h>

#include "platform/appkit/NSView.h"
#include "platform/log/os_log.h"
#include "tests/support/TestMain.h"

LUMARO_TEST_MAIN(.widgets = true);  // views make widgets, menus need an application

namespace {

std::shared_ptr<NSView> makeView(double x, double y, double w, double h) {
    return NSView::initWithFrame(NSMakeRect(x, y, w, h));
}

void pinEdges(const std::shared_ptr<NSView>& child, const std::shared_ptr<NSView>& parent) {
    NSLayoutConstraint::activateConstraints({
        child->leftAnchor().constraintEqualToAnchor(parent->leftAnchor()),
        child->topAnchor().constraintEqualToAnchor(parent->topAnchor()),
        child->rightAnchor().constraintEqualToAnchor(parent->rightAnchor()),
        child->bottomAnchor().constraintEqualToAnchor(parent->bottomAnchor()),
    });
}

TEST(NSViewTest, FrameBoundsAndWidgetGeometryAgree) {
    auto parent = makeView(0, 0, 400, 300);
    auto child = makeView(10.4, 20.6, 100.2, 50);
    parent->addSubview(child);

    EXPECT_EQ(child->bounds(), NSMakeRect(0, 0, 100.2, 50));
    ASSERT_NE(child->widget(), nullptr);  // the tests run with a QApplication
    EXPECT_EQ(child->widget()->parentWidget(), parent->widget());
    // Each edge rounds on its own: 10.4 -> 10, 110.6 -> 111.
    EXPECT_EQ(child->widget()->geometry(), QRect(10, 21, 101, 50));
}

// (A pinned subview following its superview: the picker's embedded form, tests/picker.)
TEST(NSViewTest, ConstantsSiblingsAndReversedConstraints) {
    auto parent = makeView(0, 0, 300, 200);
    auto left = makeView(0, 0, 0, 0);
    auto right = makeView(0, 0, 0, 0);
    parent->addSubview(left);
    parent->addSubview(right);
    for (const auto& v : {left, right}) {
        v->setTranslatesAutoresizingMaskIntoConstraints(false);
    }
    NSLayoutConstraint::activateConstraints({
        // Written with the superview first: same meaning as child.left == parent.left + 10.
        parent->leftAnchor().constraintEqualToAnchorConstant(left->leftAnchor(), -10),
        left->topAnchor().constraintEqualToAnchorConstant(parent->topAnchor(), 10),
        left->widthAnchor().constraintEqualToConstant(50),
        left->heightAnchor().constraintEqualToConstant(20),
        // `right` starts where `left` ends and reaches the superview's right edge.
        right->leftAnchor().constraintEqualToAnchor(left->rightAnchor()),
        right->rightAnchor().constraintEqualToAnchor(parent->rightAnchor()),
        right->topAnchor().constraintEqualToAnchor(parent->topAnchor()),
        right->bottomAnchor().constraintEqualToAnchorConstant(parent->bottomAnchor(), -5),
    });
    EXPECT_EQ(left->frame(), NSMakeRect(10, 10, 50, 20));
    EXPECT_EQ(right->frame(), NSMakeRect(60, 0, 240, 195));

    parent->setFrameSize(NSMakeSize(500, 100));
    EXPECT_EQ(right->frame(), NSMakeRect(60, 0, 440, 95));
}

TEST(NSViewTest, UnsupportedConstraintsAreRefusedWithoutHarm) {
    platform::log::LogCapture capture;
    auto a = makeView(0, 0, 10, 10);
    auto b = makeView(0, 0, 10, 10);  // not related to a
    EXPECT_EQ(a->leftAnchor().constraintEqualToAnchor(b->topAnchor()), nullptr);
    EXPECT_EQ(a->leftAnchor().constraintEqualToAnchor(b->widthAnchor()), nullptr);
    EXPECT_EQ(a->leftAnchor().constraintEqualToConstant(5), nullptr);
    auto unrelated = a->leftAnchor().constraintEqualToAnchor(b->leftAnchor());
    ASSERT_NE(unrelated, nullptr);
    NSLayoutConstraint::activateConstraints({nullptr, unrelated});
    EXPECT_FALSE(unrelated->isActive());
    EXPECT_EQ(a->frame(), NSMakeRect(0, 0, 10, 10));
    EXPECT_GE(capture.records().size(), 5u);
    for (const auto& r : capture.records()) {
        EXPECT_EQ(r.type, OS_LOG_TYPE_ERROR) << r.text;
    }

    // Frames that are not finite are refused; a cycle of subviews is refused.
    a->setFrame(NSMakeRect(0, 0, std::nan(""), 1));
    EXPECT_EQ(a->frame(), NSMakeRect(0, 0, 10, 10));
    a->addSubview(b);
    b->addSubview(a);
    b->addSubview(b);
    EXPECT_EQ(a->superview(), nullptr);
    EXPECT_TRUE(b->subviews().empty());
    a->addSubview(nullptr);
    EXPECT_EQ(a->subviews().size(), 1u);
}

TEST(NSViewTest, AutoresizingMaskPlacesUntilTranslationIsSwitchedOff) {
    auto parent = makeView(0, 0, 400, 300);
    auto filler = makeView(0, 0, 400, 300);
    filler->setAutoresizingMask(NSViewWidthSizable | NSViewHeightSizable);  // 18
    auto corner = makeView(350, 250, 50, 50);
    corner->setAutoresizingMask(NSViewMinXMargin | NSViewMinYMargin);
    auto fixed = makeView(10, 10, 20, 20);  // mask 0: stays put
    auto pinned = makeView(10, 10, 20, 20);
    for (const auto& v : {filler, corner, fixed, pinned}) {
        parent->addSubview(v);
    }
    pinEdges(pinned, parent);
    EXPECT_TRUE(pinned->translatesAutoresizingMaskIntoConstraints());
    // While translating its (empty) mask, the pinned view ignores its constraints.
    EXPECT_EQ(pinned->frame(), NSMakeRect(10, 10, 20, 20));

    parent->setFrameSize(NSMakeSize(500, 400));
    EXPECT_EQ(filler->frame(), NSMakeRect(0, 0, 500, 400));
    EXPECT_EQ(corner->frame(), NSMakeRect(450, 350, 50, 50));
    EXPECT_EQ(fixed->frame(), NSMakeRect(10, 10, 20, 20));
    EXPECT_EQ(pinned->frame(), NSMakeRect(10, 10, 20, 20));

    pinned->setTranslatesAutoresizingMaskIntoConstraints(false);
    EXPECT_EQ(pinned->frame(), NSMakeRect(0, 0, 500, 400));

    // Flexible margins and size share the change evenly.
    auto middle = makeView(10, 0, 80, 10);
    parent->addSubview(middle);
    middle->setAutoresizingMask(NSViewMinXMargin | NSViewWidthSizable | NSViewMaxXMargin);
    parent->setFrameSize(NSMakeSize(530, 400));
    EXPECT_EQ(middle->frame(), NSMakeRect(20, 0, 90, 10));
}

TEST(NSViewTest, RemovingAndReleasingViewsKeepsTheRestConsistent) {
    auto parent = makeView(0, 0, 100, 100);
    auto child = makeView(0, 0, 10, 10);
    parent->addSubview(child);
    pinEdges(child, parent);
    child->setTranslatesAutoresizingMaskIntoConstraints(false);
    EXPECT_EQ(parent->constraints().size(), 4u);

    // Moving the child elsewhere drops the constraints that tied it to its old superview.
    auto other = makeView(0, 0, 50, 50);
    other->addSubview(child);
    EXPECT_TRUE(parent->constraints().empty());
    EXPECT_EQ(child->superview(), other);
    EXPECT_TRUE(parent->subviews().empty());
    EXPECT_EQ(child->widget()->parentWidget(), other->widget());

    // A subview that outlives its superview keeps a working widget.
    QPointer<QWidget> childWidget = child->widget();
    other.reset();
    EXPECT_EQ(child->superview(), nullptr);
    ASSERT_FALSE(childWidget.isNull());
    EXPECT_EQ(childWidget->parentWidget(), nullptr);
}

}  // namespace
