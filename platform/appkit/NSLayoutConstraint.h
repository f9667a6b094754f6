// Layout anchors and equality constraints between them.
//
// The supported subset, solved by NSView itself rather than by a general constraint solver:
//  - equality only (`constraintEqualToAnchor`, with an optional constant), multiplier 1;
//  - edge anchors (left, right, top, bottom) and the two dimensions (width, height);
//  - between a view and its superview (the subview is placed, whichever item it is), between
//    two siblings (the first item is placed, the second is its reference), or a dimension
//    against a constant;
//  - a view's constraints place it only while it does not translate its autoresizing mask into
//    constraints (`setTranslatesAutoresizingMaskIntoConstraints` with false); until then the
//    mask places it and the constraints wait.
// Per axis, two of {leading edge, trailing edge, size} fix the frame; with one of them the
// other values are kept. Two constraints on the same attribute of a view: the one activated
// last wins. Anything outside the subset is refused at activation with an error line.
#pragma once

#include <QString>
#include <memory>
#include <vector>

class NSView;

enum NSLayoutAttribute : int {
    NSLayoutAttributeNotAnAttribute = 0,
    NSLayoutAttributeLeft = 1,
    NSLayoutAttributeRight = 2,
    NSLayoutAttributeTop = 3,
    NSLayoutAttributeBottom = 4,
    NSLayoutAttributeWidth = 7,
    NSLayoutAttributeHeight = 8,
};

class NSLayoutConstraint;
using NSLayoutConstraintPtr = std::shared_ptr<NSLayoutConstraint>;

// One attribute of one view. Anchors are values; they refer to their view weakly.
class NSLayoutAnchor {
public:
    NSLayoutAnchor(std::weak_ptr<NSView> view, NSLayoutAttribute attribute);

    std::shared_ptr<NSView> view() const { return view_.lock(); }
    NSLayoutAttribute attribute() const { return attribute_; }
    bool isHorizontal() const;

    // A new, inactive constraint "this == other + constant". Anchors of different axes, or an
    // edge against a dimension, give no constraint (an error line, empty pointer).
    NSLayoutConstraintPtr constraintEqualToAnchor(const NSLayoutAnchor& other) const;
    NSLayoutConstraintPtr constraintEqualToAnchorConstant(const NSLayoutAnchor& other,
                                                          double constant) const;
    // "this == constant", for the width and height anchors only.
    NSLayoutConstraintPtr constraintEqualToConstant(double constant) const;

private:
    std::weak_ptr<NSView> view_;
    NSLayoutAttribute attribute_;
};

class NSLayoutConstraint : public std::enable_shared_from_this<NSLayoutConstraint> {
public:
    NSLayoutConstraint(std::weak_ptr<NSView> firstItem, NSLayoutAttribute firstAttribute,
                       std::weak_ptr<NSView> secondItem, NSLayoutAttribute secondAttribute,
                       double constant);

    // Activates each constraint in order; a constraint outside the supported subset (or an
    // empty pointer) is skipped with an error line and the others are still activated.
    static void activateConstraints(const std::vector<NSLayoutConstraintPtr>& constraints);
    static void deactivateConstraints(const std::vector<NSLayoutConstraintPtr>& constraints);

    bool isActive() const { return active_; }
    void setActive(bool active);

    std::shared_ptr<NSView> firstItem() const { return first_.lock(); }
    NSLayoutAttribute firstAttribute() const { return firstAttribute_; }
    std::shared_ptr<NSView> secondItem() const { return second_.lock(); }
    NSLayoutAttribute secondAttribute() const { return secondAttribute_; }
    double multiplier() const { return 1.0; }
    double constant() const { return constant_; }
    void setConstant(double constant);

    QString description() const;

private:
    friend class NSView;
    std::weak_ptr<NSView> first_;
    NSLayoutAttribute firstAttribute_;
    std::weak_ptr<NSView> second_;
    NSLayoutAttribute secondAttribute_;
    double constant_;
    bool active_ = false;
    std::weak_ptr<NSView> holder_;  // the view that keeps the constraint while it is active
};
