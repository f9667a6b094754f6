// The extension context of a picker request. Every context made through its initialiser becomes
// the process's shared context, replacing the one before; the picker reads the shared context's
// input items and reports to the host through its remote proxy.
//
// The class is registered with the extension runtime under its own name (see
// kLMBroadcastActivityViewServiceExtensionContextClassName) when the program starts, so that the
// runtime can make it from the manifest's context class.
#pragma once

#include <QString>
#include <QUrl>
#include <functional>
#include <memory>

#include "platform/extension/NSExtensionContext.h"

inline const QString kLMBroadcastActivityViewServiceExtensionContextClassName =
    QStringLiteral("LMBroadcastActivityViewServiceExtensionContext");

class LMBroadcastActivityViewServiceExtensionContext : public NSExtensionContext {
public:
    // The shared context: the one made last, or none before the first request.
    static std::shared_ptr<LMBroadcastActivityViewServiceExtensionContext> sharedInstance();

    // Class hooks: the interface this process vends on the auxiliary connection (the extension
    // protocol) and the interface of the host's exported object (the host protocol).
    static std::shared_ptr<NSXPCInterface> _extensionAuxiliaryVendorProtocol();
    static std::shared_ptr<NSXPCInterface> _extensionAuxiliaryHostProtocol();

    // Calls the base initialiser and stores its result as the shared context, as it is (also
    // when it is none), then answers it.
    std::shared_ptr<NSExtensionContext> initWithInputItems(
        std::vector<NSExtensionItemPtr> inputItems,
        std::shared_ptr<NSXPCListenerEndpoint> listenerEndpoint, const QUuid& contextUUID) override;

    // The auxiliary connection's remote object proxy (answering the host protocol), asked for
    // without an error handler; none when the context has no auxiliary connection.
    std::shared_ptr<NSXPCRemoteObjectProxy> remoteProxy() const;

    // Does nothing at all: the URL is not opened and the handler is never called.
    void openURL(const QUrl& url, std::function<void(bool)> completionHandler) override;

    // The class as the runtime knows it (alloc and the two hooks).
    static NSExtensionContextClass contextClass();
};

// Registers the context class with the runtime under its name. Runs by itself when the program
// starts; calling it again is harmless (and makes sure the registration is linked in).
void LMBroadcastActivityViewServiceExtensionContextRegisterClass();
