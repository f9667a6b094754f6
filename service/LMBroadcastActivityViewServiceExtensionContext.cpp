#include "service/LMBroadcastActivityViewServiceExtensionContext.h"

#include <mutex>

#include "service/LMBroadcastActivityViewServiceProtocols.h"

namespace {

// The shared context. Written when the runtime makes a context, read by the picker; the mutex
// only makes the pointer copy itself safe between threads.
std::mutex& sharedMutex() {
    static std::mutex mutex;
    return mutex;
}
std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext>& sharedContext() {
    static std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext> context;
    return context;
}

}  // namespace

std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext>
LMBroadcastActivityViewServiceExtensionContext::sharedInstance() {
    const std::lock_guard lock(sharedMutex());
    return sharedContext();
}

std::shared_ptr<NSXPCInterface>
LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryVendorProtocol() {
    return BroadcastActivityViewServiceExtension::
        __LMBroadcastActivity_viewServiceExtensionInterface();
}

std::shared_ptr<NSXPCInterface>
LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryHostProtocol() {
    return BroadcastActivityViewServiceExtension::__LMBroadcastActivity_viewServiceHostInterface();
}

std::shared_ptr<NSExtensionContext>
LMBroadcastActivityViewServiceExtensionContext::initWithInputItems(
    std::vector<NSExtensionItemPtr> inputItems,
    std::shared_ptr<NSXPCListenerEndpoint> listenerEndpoint, const QUuid& contextUUID) {
    std::shared_ptr<NSExtensionContext> result = NSExtensionContext::initWithInputItems(
        std::move(inputItems), std::move(listenerEndpoint), contextUUID);
    // The result replaces the shared context whatever it is; the base answers this object.
    auto shared = std::dynamic_pointer_cast<LMBroadcastActivityViewServiceExtensionContext>(result);
    {
        const std::lock_guard lock(sharedMutex());
        sharedContext() = std::move(shared);
    }
    return result;
}

std::shared_ptr<NSXPCRemoteObjectProxy>
LMBroadcastActivityViewServiceExtensionContext::remoteProxy() const {
    const std::shared_ptr<NSXPCConnection> connection = _auxiliaryConnection();
    return connection ? connection->remoteObjectProxy() : nullptr;
}

void LMBroadcastActivityViewServiceExtensionContext::openURL(
    const QUrl& /*url*/, std::function<void(bool)> /*completionHandler*/) {
    // Intentionally empty: a picker request never opens URLs, and it never completes the call.
}

NSExtensionContextClass LMBroadcastActivityViewServiceExtensionContext::contextClass() {
    return {
        [] { return std::make_shared<LMBroadcastActivityViewServiceExtensionContext>(); },
        &LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryVendorProtocol,
        &LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryHostProtocol,
    };
}

void LMBroadcastActivityViewServiceExtensionContextRegisterClass() {
    NSExtensionRegisterContextClass(kLMBroadcastActivityViewServiceExtensionContextClassName,
                                    LMBroadcastActivityViewServiceExtensionContext::contextClass());
}
