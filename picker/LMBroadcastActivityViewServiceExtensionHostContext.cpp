#include "picker/LMBroadcastActivityViewServiceExtensionHostContext.h"

#include "platform/appkit/NSViewController.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"

std::shared_ptr<NSViewController>
LMBroadcastActivityViewServiceExtensionHostContext::hostViewController() const {
    const std::lock_guard lock(mutex_);
    return hostViewController_.lock();
}

void LMBroadcastActivityViewServiceExtensionHostContext::setHostViewController(
    const std::shared_ptr<NSViewController>& controller) {
    std::vector<std::pair<QString, QVariantList>> pending;
    {
        const std::lock_guard lock(mutex_);
        hostViewController_ = controller;
        hasHostViewController_ = controller != nullptr;
        if (hasHostViewController_) {
            pending.swap(pending_);
        }
    }
    // Delivered outside the lock: the controller may call back into the context.
    if (auto target = std::dynamic_pointer_cast<NSXPCInvocationTarget>(controller)) {
        for (const auto& [selector, arguments] : pending) {
            target->performSelector(selector, arguments);
        }
    }
}

void LMBroadcastActivityViewServiceExtensionHostContext::performSelector(
    const QString& selector, const QVariantList& arguments) {
    std::shared_ptr<NSViewController> controller;
    {
        const std::lock_guard lock(mutex_);
        if (!hasHostViewController_) {
            pending_.emplace_back(selector, arguments);
            return;
        }
        controller = hostViewController_.lock();
    }
    if (auto target = std::dynamic_pointer_cast<NSXPCInvocationTarget>(controller)) {
        target->performSelector(selector, arguments);
    }
}

NSExtensionContextClass LMBroadcastActivityViewServiceExtensionHostContext::contextClass() {
    NSExtensionContextClass cls;
    cls.alloc = [] {
        return std::make_shared<LMBroadcastActivityViewServiceExtensionHostContext>();
    };
    cls._extensionAuxiliaryHostProtocol =
        BroadcastActivityViewServiceExtension::__LMBroadcastActivity_viewServiceHostInterface;
    cls._extensionAuxiliaryVendorProtocol =
        BroadcastActivityViewServiceExtension::__LMBroadcastActivity_viewServiceExtensionInterface;
    return cls;
}
