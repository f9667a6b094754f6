// View controllers: a lazily loaded view, child controllers, a preferred content size and the
// extension context a request was begun with; and the service view controller, the base of a
// controller that a host shows as a remote view.
#pragma once

#include <QVariant>
#include <memory>
#include <vector>

#include "platform/appkit/NSGeometry.h"
#include "platform/appkit/NSView.h"

class NSExtensionContext;
class NSXPCInterface;

class NSViewController : public std::enable_shared_from_this<NSViewController> {
public:
    NSViewController() = default;
    virtual ~NSViewController() = default;
    NSViewController(const NSViewController&) = delete;
    NSViewController& operator=(const NSViewController&) = delete;

    // The controller's view. The first call loads it: `loadView`, then `viewDidLoad`, once.
    // While `loadView` runs, this answers whatever view is set so far without loading again.
    // If `loadView` sets no view, an error line is written and an empty view of zero size
    // stands in, so that the answer is never empty once loaded.
    std::shared_ptr<NSView> view();
    void setView(std::shared_ptr<NSView> view);
    bool isViewLoaded() const { return view_ != nullptr; }
    void loadViewIfNeeded() { (void)view(); }

    // Makes the view; the default sets an empty view of zero size.
    virtual void loadView();
    // Called once after `loadView`; the default does nothing.
    virtual void viewDidLoad() {}
    // Called when the view is shown to a host (the runtime served it as a remote view); the
    // default does nothing.
    virtual void viewDidAppear() {}

    // Children are held strongly, the parent weakly. Adding a child that has another parent
    // moves it; adding the controller itself or one of its ancestors is refused with an error
    // line. The child's view is not touched: the caller places it.
    void addChildViewController(const std::shared_ptr<NSViewController>& child);
    void removeFromParentViewController();
    std::vector<std::shared_ptr<NSViewController>> childViewControllers() const {
        return children_;
    }
    std::shared_ptr<NSViewController> parentViewController() const { return parent_.lock(); }

    NSSize preferredContentSize() const { return preferredContentSize_; }
    void setPreferredContentSize(const NSSize& size) { preferredContentSize_ = size; }

    // Binds the controller to an extension request's context (kept strongly; an empty pointer
    // clears it). Subclasses may override either member; `extensionContext` answers the
    // context last begun with.
    virtual void beginRequestWithExtensionContext(std::shared_ptr<NSExtensionContext> context);
    virtual std::shared_ptr<NSExtensionContext> extensionContext() const { return context_; }

private:
    std::shared_ptr<NSView> view_;
    bool loading_ = false;
    std::vector<std::shared_ptr<NSViewController>> children_;
    std::weak_ptr<NSViewController> parent_;
    NSSize preferredContentSize_;
    std::shared_ptr<NSExtensionContext> context_;
};

// The base of a controller that runs in a service process and is shown inside a host's window.
class NSServiceViewController : public NSViewController {
public:
    // What the host passed when it asked for this controller: a dictionary (QVariantMap) as a
    // rule, but any value, or none, may arrive; readers check the type.
    QVariant hostAppClientParameters() const { return hostAppClientParameters_; }
    void setHostAppClientParameters(const QVariant& parameters) {
        hostAppClientParameters_ = parameters;
    }

    // The interface of the object this controller exports to the host; none by default.
    virtual std::shared_ptr<NSXPCInterface> exportedInterface() const { return nullptr; }

private:
    QVariant hostAppClientParameters_;
};
