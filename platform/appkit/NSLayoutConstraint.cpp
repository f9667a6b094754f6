#include "platform/appkit/NSLayoutConstraint.h"

#include <cmath>
#include <optional>

#include "platform/appkit/NSView.h"
#include "platform/log/os_log.h"

namespace {

// What the constraints ask of one axis of a view.
struct AxisWish {
    std::optional<double> leading;
    std::optional<double> trailing;
    std::optional<double> size;

    void solve(double& origin, double& length) const {
        if (leading && trailing) {
            origin = *leading;
            length = *trailing - *leading;
        } else if (leading && size) {
            origin = *leading;
            length = *size;
        } else if (trailing && size) {
            origin = *trailing - *size;
            length = *size;
        } else if (leading) {
            origin = *leading;
        } else if (trailing) {
            origin = *trailing - length;
        } else if (size) {
            length = *size;
        }
    }
};

bool isDimension(NSLayoutAttribute a) {
    return a == NSLayoutAttributeWidth || a == NSLayoutAttributeHeight;
}

bool isHorizontalAttribute(NSLayoutAttribute a) {
    return a == NSLayoutAttributeLeft || a == NSLayoutAttributeRight || a == NSLayoutAttributeWidth;
}

const char* attributeName(NSLayoutAttribute a) {
    switch (a) {
        case NSLayoutAttributeLeft:
            return "left";
        case NSLayoutAttributeRight:
            return "right";
        case NSLayoutAttributeTop:
            return "top";
        case NSLayoutAttributeBottom:
            return "bottom";
        case NSLayoutAttributeWidth:
            return "width";
        case NSLayoutAttributeHeight:
            return "height";
        default:
            return "none";
    }
}

}  // namespace

NSLayoutAnchor::NSLayoutAnchor(std::weak_ptr<NSView> view, NSLayoutAttribute attribute)
    : view_(std::move(view)), attribute_(attribute) {}

bool NSLayoutAnchor::isHorizontal() const {
    return isHorizontalAttribute(attribute_);
}

NSLayoutConstraintPtr NSLayoutAnchor::constraintEqualToAnchor(const NSLayoutAnchor& other) const {
    return constraintEqualToAnchorConstant(other, 0);
}

NSLayoutConstraintPtr NSLayoutAnchor::constraintEqualToAnchorConstant(const NSLayoutAnchor& other,
                                                                      double constant) const {
    if (view_.expired() || other.view_.expired()) {
        os_log_error(OS_LOG_DEFAULT, "NSLayoutAnchor: constraint with an anchor of no view");
        return nullptr;
    }
    if (isHorizontal() != other.isHorizontal() ||
        isDimension(attribute_) != isDimension(other.attribute_)) {
        os_log_error(OS_LOG_DEFAULT, "NSLayoutAnchor: cannot constrain %s to %s",
                     attributeName(attribute_), attributeName(other.attribute_));
        return nullptr;
    }
    if (!std::isfinite(constant)) {
        os_log_error(OS_LOG_DEFAULT, "NSLayoutAnchor: constant is not finite");
        return nullptr;
    }
    return std::make_shared<NSLayoutConstraint>(view_, attribute_, other.view_, other.attribute_,
                                                constant);
}

NSLayoutConstraintPtr NSLayoutAnchor::constraintEqualToConstant(double constant) const {
    if (view_.expired() || !isDimension(attribute_) || !std::isfinite(constant)) {
        os_log_error(OS_LOG_DEFAULT, "NSLayoutAnchor: cannot constrain %s to a constant",
                     attributeName(attribute_));
        return nullptr;
    }
    return std::make_shared<NSLayoutConstraint>(view_, attribute_, std::weak_ptr<NSView>(),
                                                NSLayoutAttributeNotAnAttribute, constant);
}

NSLayoutConstraint::NSLayoutConstraint(std::weak_ptr<NSView> firstItem,
                                       NSLayoutAttribute firstAttribute,
                                       std::weak_ptr<NSView> secondItem,
                                       NSLayoutAttribute secondAttribute, double constant)
    : first_(std::move(firstItem)),
      firstAttribute_(firstAttribute),
      second_(std::move(secondItem)),
      secondAttribute_(secondAttribute),
      constant_(std::isfinite(constant) ? constant : 0) {}

void NSLayoutConstraint::activateConstraints(
    const std::vector<NSLayoutConstraintPtr>& constraints) {
    for (const auto& c : constraints) {
        if (!c) {
            os_log_error(OS_LOG_DEFAULT, "NSLayoutConstraint: no constraint to activate; skipped");
            continue;
        }
        c->setActive(true);
    }
}

void NSLayoutConstraint::deactivateConstraints(
    const std::vector<NSLayoutConstraintPtr>& constraints) {
    for (const auto& c : constraints) {
        if (c) {
            c->setActive(false);
        }
    }
}

void NSLayoutConstraint::setActive(bool active) {
    if (active == active_) {
        return;
    }
    if (!active) {
        if (auto holder = holder_.lock()) {
            holder->removeConstraint(this);
        }
        holder_.reset();
        active_ = false;
        return;
    }
    const auto self = weak_from_this().lock();
    if (!self) {
        os_log_error(
            OS_LOG_DEFAULT,
            "NSLayoutConstraint: only a constraint held by a shared pointer can be active");
        return;
    }
    const auto a = first_.lock();
    const auto b = second_.lock();
    std::shared_ptr<NSView> holder;
    if (a && secondAttribute_ == NSLayoutAttributeNotAnAttribute) {
        holder = a;
    } else if (a && b && a != b) {
        const auto aSuper = a->superview();
        const auto bSuper = b->superview();
        if (bSuper == a) {
            holder = a;
        } else if (aSuper == b) {
            holder = b;
        } else if (aSuper && aSuper == bSuper) {
            holder = aSuper;
        }
    }
    if (!holder) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSLayoutConstraint: cannot activate %@: its views must be a view and its "
                     "superview, or two siblings",
                     *this);
        return;
    }
    active_ = true;
    holder_ = holder;
    holder->addConstraint(self);
    // A dimension constant is applied by the superview of its view.
    if (holder == a && secondAttribute_ == NSLayoutAttributeNotAnAttribute) {
        if (auto superview = a->superview()) {
            superview->layout();
        }
    } else {
        holder->layout();
    }
}

void NSLayoutConstraint::setConstant(double constant) {
    if (!std::isfinite(constant)) {
        os_log_error(OS_LOG_DEFAULT, "NSLayoutConstraint: constant is not finite; kept %f",
                     constant_);
        return;
    }
    constant_ = constant;
    if (!active_) {
        return;
    }
    active_ = false;
    if (auto holder = holder_.lock()) {
        holder->removeConstraint(this);
    }
    setActive(true);
}

QString NSLayoutConstraint::description() const {
    auto name = [](const std::shared_ptr<NSView>& v) {
        return v ? QString::asprintf("%p", static_cast<const void*>(v.get()))
                 : QStringLiteral("(none)");
    };
    if (secondAttribute_ == NSLayoutAttributeNotAnAttribute) {
        return QStringLiteral("<NSLayoutConstraint %1.%2 == %3>")
            .arg(name(first_.lock()), QLatin1String(attributeName(firstAttribute_)))
            .arg(constant_);
    }
    return QStringLiteral("<NSLayoutConstraint %1.%2 == %3.%4 + %5>")
        .arg(name(first_.lock()), QLatin1String(attributeName(firstAttribute_)),
             name(second_.lock()), QLatin1String(attributeName(secondAttribute_)))
        .arg(constant_);
}

// --- Layout: a view places its subviews that do not translate their masks from the constraints
// that name them.

void NSView::placeFromConstraints(NSView& view) {
    // The value of an anchor of this view (its bounds) or of a sibling of `view` (its frame).
    auto valueOf = [this](const NSView* item, NSLayoutAttribute attribute) -> double {
        const NSRect r = item == this ? bounds() : item->frame_;
        switch (attribute) {
            case NSLayoutAttributeLeft:
                return NSMinX(r);
            case NSLayoutAttributeRight:
                return NSMaxX(r);
            case NSLayoutAttributeTop:
                return NSMinY(r);
            case NSLayoutAttributeBottom:
                return NSMaxY(r);
            case NSLayoutAttributeWidth:
                return NSWidth(r);
            case NSLayoutAttributeHeight:
                return NSHeight(r);
            default:
                return 0;
        }
    };
    AxisWish horizontal;
    AxisWish vertical;
    auto wish = [&](NSLayoutAttribute attribute, double value) {
        switch (attribute) {
            case NSLayoutAttributeLeft:
                horizontal.leading = value;
                break;
            case NSLayoutAttributeRight:
                horizontal.trailing = value;
                break;
            case NSLayoutAttributeWidth:
                horizontal.size = value;
                break;
            case NSLayoutAttributeTop:
                vertical.leading = value;
                break;
            case NSLayoutAttributeBottom:
                vertical.trailing = value;
                break;
            case NSLayoutAttributeHeight:
                vertical.size = value;
                break;
            default:
                break;
        }
    };
    auto consider = [&](const NSLayoutConstraint& c) {
        if (!c.active_) {
            return;
        }
        const auto first = c.first_.lock();
        const auto second = c.second_.lock();
        const NSView* other = nullptr;
        NSLayoutAttribute own = NSLayoutAttributeNotAnAttribute;
        NSLayoutAttribute otherAttribute = NSLayoutAttributeNotAnAttribute;
        double sign = 1;
        if (first.get() == &view) {
            own = c.firstAttribute_;
            other = second.get();
            otherAttribute = c.secondAttribute_;
        } else if (second.get() == &view) {
            own = c.secondAttribute_;
            other = first.get();
            otherAttribute = c.firstAttribute_;
            sign = -1;
        } else {
            return;
        }
        if (other == nullptr) {
            if (c.secondAttribute_ == NSLayoutAttributeNotAnAttribute && first.get() == &view) {
                wish(own, c.constant_);
            }
            return;
        }
        // Only this view or a sibling of `view` place it; a constraint between `view` and
        // one of its own subviews places the subview.
        if (other != this && other->superview_.lock().get() != this) {
            return;
        }
        if (other == &view) {
            return;
        }
        // Between siblings the first item is the one placed; the second is its reference.
        if (sign < 0 && other != this) {
            return;
        }
        wish(own, valueOf(other, otherAttribute) + sign * c.constant_);
    };
    for (const auto& c : constraints_) {
        consider(*c);
    }
    for (const auto& c : view.constraints_) {
        consider(*c);
    }
    NSRect f = view.frame_;
    horizontal.solve(f.origin.x, f.size.width);
    vertical.solve(f.origin.y, f.size.height);
    if (NSRectIsFinite(f) && !(f == view.frame_)) {
        view.applyFrame(f);
    }
}
