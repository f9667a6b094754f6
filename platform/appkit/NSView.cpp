#include "platform/appkit/NSView.h"

#include <QApplication>
#include <QThread>
#include <algorithm>
#include <cmath>
#include <optional>

#include "platform/log/os_log.h"

namespace {

// A widget may be made only with a QApplication, on its thread.
bool canMakeWidgets() {
    auto* app = qobject_cast<QApplication*>(QCoreApplication::instance());
    return app != nullptr && QThread::currentThread() == app->thread();
}

// Spreads a change of the superview's size evenly over the flexible parts of one axis: the
// leading margin, the size and the trailing margin. With none flexible the view keeps its
// distance to the leading edge.
void resizeAxis(double& origin, double& size, double delta, bool minFlexible, bool sizeFlexible,
                bool maxFlexible) {
    const int parts = int(minFlexible) + int(sizeFlexible) + int(maxFlexible);
    if (parts == 0) {
        return;
    }
    const double share = delta / parts;
    if (minFlexible) {
        origin += share;
    }
    if (sizeFlexible) {
        size += share;
    }
}

}  // namespace

NSView::NSView(const NSRect& frame) : NSView(frame, nullptr) {}

NSView::NSView(const NSRect& frame, QWidget* widget)
    : frame_(NSRectIsFinite(frame) ? frame : NSZeroRect) {
    if (!NSRectIsFinite(frame)) {
        os_log_error(OS_LOG_DEFAULT, "NSView: frame %s is not finite; using the zero rectangle",
                     NSStringFromRect(frame));
    }
    if (widget != nullptr) {
        widget_ = widget;
    } else if (canMakeWidgets()) {
        widget_ = new QWidget();
    }
    syncWidgetGeometry();
}

NSView::~NSView() {
    for (const auto& constraint : constraints_) {
        constraint->active_ = false;
        constraint->holder_.reset();
    }
    for (const auto& subview : subviews_) {
        subview->superview_.reset();
        // A subview that outlives this view keeps its widget.
        if (subview->widget_ && widget_ && subview->widget_->parentWidget() == widget_) {
            subview->widget_->setParent(nullptr);
        }
    }
    subviews_.clear();
    if (widget_) {
        if (QThread::currentThread() == widget_->thread()) {
            delete widget_.data();
        } else {
            widget_->deleteLater();
        }
    }
}

std::shared_ptr<NSView> NSView::initWithFrame(const NSRect& frame) {
    return std::make_shared<NSView>(frame);
}

void NSView::setFrame(const NSRect& frame) {
    if (!NSRectIsFinite(frame)) {
        os_log_error(OS_LOG_DEFAULT, "NSView: refusing frame %s: not finite",
                     NSStringFromRect(frame));
        return;
    }
    applyFrame(frame);
    // Siblings may be constrained to this view.
    if (auto superview = superview_.lock(); superview && !superview->constraints_.empty()) {
        superview->layout();
    }
}

void NSView::setFrameOrigin(const NSPoint& origin) {
    setFrame({origin, frame_.size});
}

void NSView::setFrameSize(const NSSize& size) {
    setFrame({frame_.origin, size});
}

void NSView::applyFrame(const NSRect& frame) {
    const NSSize oldSize = frame_.size;
    frame_ = frame;
    syncWidgetGeometry();
    if (!(oldSize == frame_.size)) {
        resizeSubviewsWithOldSize(oldSize);
        layout();
    }
}

void NSView::resizeSubviewsWithOldSize(const NSSize& oldSize) {
    const double dw = frame_.size.width - oldSize.width;
    const double dh = frame_.size.height - oldSize.height;
    for (const auto& subview : std::vector(subviews_)) {
        if (!subview->translatesMask_ || subview->autoresizingMask_ == NSViewNotSizable) {
            continue;
        }
        const unsigned m = subview->autoresizingMask_;
        NSRect f = subview->frame_;
        resizeAxis(f.origin.x, f.size.width, dw, (m & NSViewMinXMargin) != 0,
                   (m & NSViewWidthSizable) != 0, (m & NSViewMaxXMargin) != 0);
        resizeAxis(f.origin.y, f.size.height, dh, (m & NSViewMinYMargin) != 0,
                   (m & NSViewHeightSizable) != 0, (m & NSViewMaxYMargin) != 0);
        subview->applyFrame(f);
    }
}

void NSView::layout() {
    if (inLayout_) {
        return;
    }
    inLayout_ = true;
    // Two passes, so that a subview constrained to a later sibling sees its final frame.
    for (int pass = 0; pass < 2; ++pass) {
        for (const auto& subview : std::vector(subviews_)) {
            if (!subview->translatesMask_) {
                placeFromConstraints(*subview);
            }
        }
    }
    inLayout_ = false;
}

void NSView::addSubview(const std::shared_ptr<NSView>& view) {
    if (!view) {
        os_log_error(OS_LOG_DEFAULT, "NSView: addSubview: with no view; ignored");
        return;
    }
    const auto self = weak_from_this().lock();
    if (!self) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSView: addSubview: on a view not owned by a shared pointer; ignored");
        return;
    }
    if (isDescendantOf(*view)) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSView: addSubview: would make a view its own descendant; ignored");
        return;
    }
    if (view->superview_.lock() == self) {
        // Already here: just bring it to the front.
        std::erase(subviews_, view);
        subviews_.push_back(view);
        if (view->widget_) {
            view->widget_->raise();
        }
        return;
    }
    view->removeFromSuperview();
    subviews_.push_back(view);
    view->superview_ = self;
    view->attachWidgetTo(this);
    layout();
}

void NSView::removeFromSuperview() {
    const auto superview = superview_.lock();
    if (!superview) {
        return;
    }
    const auto self = shared_from_this();  // the superview may hold the last reference
    for (const auto& c : std::vector(superview->constraints_)) {
        if (c->first_.lock() == self || c->second_.lock() == self) {
            c->setActive(false);
        }
    }
    std::erase(superview->subviews_, self);
    superview_.reset();
    if (widget_ && widget_->parentWidget() == superview->widget_) {
        widget_->setParent(nullptr);
    }
}

bool NSView::isDescendantOf(const NSView& view) const {
    for (const NSView* v = this; v != nullptr;) {
        if (v == &view) {
            return true;
        }
        const auto parent = v->superview_.lock();
        v = parent.get();  // the chain of superviews holds each parent alive
    }
    return false;
}

void NSView::setAutoresizingMask(unsigned mask) {
    autoresizingMask_ = mask & 63u;
}

void NSView::setTranslatesAutoresizingMaskIntoConstraints(bool translates) {
    if (translatesMask_ == translates) {
        return;
    }
    translatesMask_ = translates;
    if (auto superview = superview_.lock()) {
        superview->layout();
    }
}

void NSView::setHidden(bool hidden) {
    hidden_ = hidden;
    if (!widget_) {
        return;
    }
    if (superview_.lock()) {
        widget_->setVisible(!hidden);
    } else if (hidden) {
        widget_->hide();
    }
}

void NSView::syncWidgetGeometry() {
    if (!widget_) {
        return;
    }
    const QRect r = NSRectToQRect(frame_);
    if (superview_.lock()) {
        widget_->setGeometry(r);
    } else {
        widget_->resize(r.size());
    }
}

void NSView::attachWidgetTo(NSView* superview) {
    if (!widget_ || !superview->widget_) {
        return;
    }
    widget_->setParent(superview->widget_);
    syncWidgetGeometry();
    if (!hidden_) {
        widget_->show();
    }
}

void NSView::addConstraint(const NSLayoutConstraintPtr& constraint) {
    constraints_.push_back(constraint);
}

void NSView::removeConstraint(const NSLayoutConstraint* constraint) {
    std::erase_if(constraints_, [constraint](const auto& c) { return c.get() == constraint; });
}

QString NSView::description() const {
    return QStringLiteral("<NSView %1 frame %2>")
        .arg(QString::asprintf("%p", static_cast<const void*>(this)), NSStringFromRect(frame_));
}
