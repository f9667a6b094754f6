#include "platform/appkit/NSViewController.h"

#include "platform/log/os_log.h"

std::shared_ptr<NSView> NSViewController::view() {
    if (view_ || loading_) {
        return view_;
    }
    loading_ = true;
    loadView();
    if (!view_) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSViewController %p: loadView set no view; using an empty view",
                     static_cast<const void*>(this));
        view_ = std::make_shared<NSView>(NSZeroRect);
    }
    loading_ = false;
    viewDidLoad();
    return view_;
}

void NSViewController::setView(std::shared_ptr<NSView> view) {
    view_ = std::move(view);
}

void NSViewController::loadView() {
    setView(std::make_shared<NSView>(NSZeroRect));
}

void NSViewController::addChildViewController(const std::shared_ptr<NSViewController>& child) {
    if (!child) {
        os_log_error(OS_LOG_DEFAULT, "NSViewController: addChildViewController: with none");
        return;
    }
    for (const NSViewController* c = this; c != nullptr;) {
        if (c == child.get()) {
            os_log_error(OS_LOG_DEFAULT,
                         "NSViewController: addChildViewController: would make a controller its "
                         "own descendant; ignored");
            return;
        }
        const auto parent = c->parent_.lock();
        c = parent.get();
    }
    const auto self = weak_from_this().lock();
    if (!self) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSViewController: addChildViewController: on a controller not owned by a "
                     "shared pointer; ignored");
        return;
    }
    child->removeFromParentViewController();
    children_.push_back(child);
    child->parent_ = self;
}

void NSViewController::removeFromParentViewController() {
    const auto parent = parent_.lock();
    if (!parent) {
        return;
    }
    const auto self = shared_from_this();  // the parent may hold the last reference
    std::erase(parent->children_, self);
    parent_.reset();
}

void NSViewController::beginRequestWithExtensionContext(
    std::shared_ptr<NSExtensionContext> context) {
    context_ = std::move(context);
}
