// The context of an extension request, as the extension's process sees it: the input items the
// host sent, the request's identifier, the auxiliary connection to the host, and the calls that
// end the request. Context classes are registered by name so that the runtime can make the one
// an extension's manifest names; the vendor keeps the contexts of this process by identifier.
#pragma once

#include <QString>
#include <QUrl>
#include <QUuid>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/extension/NSExtensionItem.h"
#include "platform/foundation/NSError.h"
#include "platform/xpc/NSXPCConnection.h"  // NSXPCConnection, NSXPCRemoteObjectProxy
#include "platform/xpc/NSXPCInterface.h"
#include "platform/xpc/NSXPCValue.h"  // NSXPCListenerEndpoint

class NSExtensionContext : public std::enable_shared_from_this<NSExtensionContext> {
public:
    NSExtensionContext();
    virtual ~NSExtensionContext();
    NSExtensionContext(const NSExtensionContext&) = delete;
    NSExtensionContext& operator=(const NSExtensionContext&) = delete;

    // initWithInputItems:listenerEndpoint:contextUUID: — stores the three values and answers this
    // context (as a shared_ptr; call it on an object already owned by a shared_ptr), or an empty
    // pointer when it cannot. Subclasses override it, call the base, and may store the result.
    virtual std::shared_ptr<NSExtensionContext> initWithInputItems(
        std::vector<NSExtensionItemPtr> inputItems,
        std::shared_ptr<NSXPCListenerEndpoint> listenerEndpoint, const QUuid& contextUUID);
    const std::vector<NSExtensionItemPtr>& inputItems() const;
    const QUuid& _UUID() const;
    const std::shared_ptr<NSXPCListenerEndpoint>& _listenerEndpoint() const;

    // The auxiliary connection to the host (set up by the runtime; may be empty).
    std::shared_ptr<NSXPCConnection> _auxiliaryConnection() const;
    void _setAuxiliaryConnection(std::shared_ptr<NSXPCConnection> connection);

    // Opens a URL in the desktop's handler; completes with whether it was opened.
    virtual void openURL(const QUrl& url, std::function<void(bool)> completionHandler);
    // Ends the request: hands `items` back to the host (the host's request completion block).
    // The completion handler is called with whether the items were handed over; a request ends
    // once, so a second call completes with false.
    virtual void completeRequestReturningItems(std::vector<NSExtensionItemPtr> items,
                                               std::function<void(bool)> completionHandler);
    // Ends the request with an error instead of items.
    virtual void cancelRequestWithError(const NSErrorPtr& error);

    // Where the request's end goes (runtime use, and tests in one process): called once, with the
    // returned items (completion) or with the error (cancellation; items then empty). Answers
    // whether the host took it.
    using RequestEndHandler =
        std::function<bool(std::vector<NSExtensionItemPtr> items, NSErrorPtr error)>;
    void _setRequestEndHandler(RequestEndHandler handler);
    // Whether the request has ended (completed or cancelled).
    bool _isRequestEnded() const;

private:
    bool endRequest(std::vector<NSExtensionItemPtr> items, NSErrorPtr error);

    mutable std::mutex mutex_;
    std::vector<NSExtensionItemPtr> inputItems_;
    std::shared_ptr<NSXPCListenerEndpoint> listenerEndpoint_;
    QUuid uuid_;
    std::shared_ptr<NSXPCConnection> auxiliaryConnection_;
    RequestEndHandler requestEndHandler_;
    bool ended_ = false;
};

// A context class as the runtime knows it: made by name (the manifest's context class), with
// its two class hooks. The system registers its classes at start-up (static registration).
struct NSExtensionContextClass {
    std::function<std::shared_ptr<NSExtensionContext>()> alloc;
    std::function<std::shared_ptr<NSXPCInterface>()> _extensionAuxiliaryVendorProtocol =
        nullptr;  // may be empty
    std::function<std::shared_ptr<NSXPCInterface>()> _extensionAuxiliaryHostProtocol =
        nullptr;  // may be empty
};
// Registers (or replaces) the class under `className`. Thread-safe; usable from static
// initialisers.
void NSExtensionRegisterContextClass(const QString& className, NSExtensionContextClass cls);
// The class registered under `className`; "NSExtensionContext" is always known (the base class,
// without hooks). Null for an unknown name. The pointer stays valid for the process's life.
const NSExtensionContextClass* NSExtensionLookupContextClass(const QString& className);

// The private context vendor: contexts of this process by identifier.
class _NSExtensionContextVendor {
public:
    static std::shared_ptr<_NSExtensionContextVendor> _sharedExtensionContextVendor();
    std::shared_ptr<NSExtensionContext> _extensionContextForUUID(const QUuid& uuid) const;
    void _setExtensionContext(const std::shared_ptr<NSExtensionContext>& context);  // runtime use
    // Forgets the context of `uuid` (runtime use, when its request ends for good).
    void _removeExtensionContext(const QUuid& uuid);

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<NSExtensionContext>> contexts_;
};
