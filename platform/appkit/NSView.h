// Views: a rectangle in its superview, subviews, an autoresizing mask and layout constraints,
// each with a Qt widget underneath.
//
// Coordinates are flipped, as Qt's are: a frame's origin is its top-left corner in the
// superview, y grows downward, and `bounds` is always {{0, 0}, frame.size}. So the "min Y"
// margin of the autoresizing mask is the top margin and "max Y" the bottom one.
//
// The widget: a view made while a QApplication exists, on its thread, makes a plain QWidget (or
// adopts the one it is given) and keeps its geometry equal to the frame rounded to pixels; a
// subview's widget is a child of its superview's widget. Without a QApplication (command-line
// tools, tests on a QCoreApplication) views are pure geometry and `widget()` is null: frames,
// subviews, masks and constraints all work the same.
//
// Views are made through std::make_shared (or `initWithFrame`): anchors and subviews refer to
// them through shared pointers. Use them on the main thread.
#pragma once

#include <QPointer>
#include <QWidget>
#include <memory>
#include <vector>

#include "platform/appkit/NSGeometry.h"
#include "platform/appkit/NSLayoutConstraint.h"

enum NSAutoresizingMaskOptions : unsigned {
    NSViewNotSizable = 0,
    NSViewMinXMargin = 1,
    NSViewWidthSizable = 2,
    NSViewMaxXMargin = 4,
    NSViewMinYMargin = 8,
    NSViewHeightSizable = 16,
    NSViewMaxYMargin = 32,
};

class NSView : public std::enable_shared_from_this<NSView> {
public:
    explicit NSView(const NSRect& frame = NSZeroRect);
    // Wraps `widget` (the view owns it from now on); a null widget makes a plain one.
    NSView(const NSRect& frame, QWidget* widget);
    virtual ~NSView();
    NSView(const NSView&) = delete;
    NSView& operator=(const NSView&) = delete;

    static std::shared_ptr<NSView> initWithFrame(const NSRect& frame);

    NSRect frame() const { return frame_; }
    // A frame with a value that is not finite is refused with an error line; a negative size
    // is kept but its widget is empty.
    void setFrame(const NSRect& frame);
    void setFrameOrigin(const NSPoint& origin);
    void setFrameSize(const NSSize& size);
    NSRect bounds() const { return {NSZeroPoint, frame_.size}; }

    std::vector<std::shared_ptr<NSView>> subviews() const { return subviews_; }
    std::shared_ptr<NSView> superview() const { return superview_.lock(); }
    // Moves `view` here from any superview it had, on top of the other subviews. Adding a view
    // to itself or to one of its own subviews is refused with an error line.
    void addSubview(const std::shared_ptr<NSView>& view);
    // Also deactivates the constraints of the old superview that involve this view.
    void removeFromSuperview();
    bool isDescendantOf(const NSView& view) const;

    unsigned autoresizingMask() const { return autoresizingMask_; }
    void setAutoresizingMask(unsigned mask);
    // True for a new view: the autoresizing mask places it when its superview's size changes.
    // False: its constraints place it (see NSLayoutConstraint.h).
    bool translatesAutoresizingMaskIntoConstraints() const { return translatesMask_; }
    void setTranslatesAutoresizingMaskIntoConstraints(bool translates);

    NSLayoutAnchor leftAnchor() { return {weak_from_this(), NSLayoutAttributeLeft}; }
    NSLayoutAnchor rightAnchor() { return {weak_from_this(), NSLayoutAttributeRight}; }
    NSLayoutAnchor topAnchor() { return {weak_from_this(), NSLayoutAttributeTop}; }
    NSLayoutAnchor bottomAnchor() { return {weak_from_this(), NSLayoutAttributeBottom}; }
    NSLayoutAnchor widthAnchor() { return {weak_from_this(), NSLayoutAttributeWidth}; }
    NSLayoutAnchor heightAnchor() { return {weak_from_this(), NSLayoutAttributeHeight}; }

    // The active constraints this view holds: those between its subviews, or between it and a
    // subview, and its own dimension constants.
    std::vector<NSLayoutConstraintPtr> constraints() const { return constraints_; }

    // Places the subviews that use constraints. Runs by itself whenever the frame, a
    // constraint or a subview changes; public for callers that want to force a pass.
    void layout();

    bool isHidden() const { return hidden_; }
    void setHidden(bool hidden);

    // The widget underneath; null without a QApplication, or once something else deleted it.
    QWidget* widget() const { return widget_.data(); }

    QString description() const;

private:
    friend class NSLayoutConstraint;
    void applyFrame(const NSRect& frame);
    void resizeSubviewsWithOldSize(const NSSize& oldSize);
    void syncWidgetGeometry();
    void attachWidgetTo(NSView* superview);
    void addConstraint(const NSLayoutConstraintPtr& constraint);
    void removeConstraint(const NSLayoutConstraint* constraint);
    void placeFromConstraints(NSView& view);

    NSRect frame_;
    std::weak_ptr<NSView> superview_;
    std::vector<std::shared_ptr<NSView>> subviews_;
    std::vector<NSLayoutConstraintPtr> constraints_;
    unsigned autoresizingMask_ = NSViewNotSizable;
    bool translatesMask_ = true;
    bool hidden_ = false;
    bool inLayout_ = false;
    QPointer<QWidget> widget_;
};
