// The host's side of a view-service request: the context that the runtime makes in the host
// process for each request it begins, with a writable host view controller.
//
// On the auxiliary connection the host offers the view service's host interface and expects the
// extension interface. The context is the object the host exports there (the runtime exports the
// context when it is an invocation target): each host message is handed to the host view
// controller. Messages that arrive before a host view controller is set are kept, in order, and
// handed over when one is set, so that a controller bound after the request began misses none.
#pragma once

#include <QString>
#include <QVariantList>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/extension/NSExtensionContext.h"
#include "platform/xpc/NSInvocation.h"

class NSViewController;

inline const QString kLMBroadcastActivityViewServiceExtensionHostContextClassName =
    QStringLiteral("LMBroadcastActivityViewServiceExtensionHostContext");

class LMBroadcastActivityViewServiceExtensionHostContext : public NSExtensionContext,
                                                           public NSXPCInvocationTarget {
public:
    // The controller that shows the request's remote view. Held weakly: the controller keeps
    // its context, not the other way round.
    std::shared_ptr<NSViewController> hostViewController() const;
    void setHostViewController(const std::shared_ptr<NSViewController>& controller);

    // A host message from the extension: handed to the host view controller when it is an
    // invocation target, or kept until one is set.
    void performSelector(const QString& selector, const QVariantList& arguments) override;

    // The class as the runtime knows it: made by alloc, offering the host interface and
    // expecting the extension interface on the auxiliary connection.
    static NSExtensionContextClass contextClass();

private:
    mutable std::mutex mutex_;
    std::weak_ptr<NSViewController> hostViewController_;
    bool hasHostViewController_ = false;
    std::vector<std::pair<QString, QVariantList>> pending_;
};
