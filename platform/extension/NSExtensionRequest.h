// The extension runtime's request protocol, shared by the host (NSExtension's request methods)
// and the extension's process (NSExtensionMain).
//
// For each request the host makes two anonymous listeners (private peer-to-peer D-Bus servers)
// and starts the extension's executable with this environment:
//   LUMARO_EXTENSION_ENDPOINT            the request link's address
//   LUMARO_EXTENSION_AUXILIARY_ENDPOINT  the auxiliary connection's address
//   LUMARO_EXTENSION_REQUEST_IDENTIFIER  the request identifier (a UUID with braces)
//   LUMARO_EXTENSION_IDENTIFIER          the extension's identifier
//   LUMARO_EXTENSION_PRINCIPAL_CLASS     NSExtensionPrincipalClass of the manifest
//   LUMARO_EXTENSION_CONTEXT_CLASS       NSExtensionContextClass of the manifest (may be empty)
// The child connects to the request link and checks in with the identifier; the reply carries
// the input items (a keyed archive of their plain values). From then on the request runs: the
// child's context ends it with `_completeRequestReturningItems:reply:` or
// `_cancelRequestWithError:reply:`. The host asks the child for remote views over the same link
// (`_remoteViewWithClassName:clientParameters:reply:`), and each remote view gets a link of its
// own to a listener of the child. The auxiliary connection is the child's connection to the
// second listener: the child sends the host protocol's messages on it, in order.
#pragma once

#include <QByteArray>
#include <QSizeF>
#include <QString>
#include <QUuid>
#include <QVariant>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "platform/extension/NSExtensionContext.h"
#include "platform/extension/NSExtensionItem.h"
#include "platform/foundation/NSError.h"
#include "platform/xpc/NSXPCInterface.h"
#include "platform/xpc/NSXPCValue.h"

inline const QString NSExtensionRequestErrorDomain =
    QStringLiteral("NSExtensionRequestErrorDomain");
enum : int64_t {
    NSExtensionRequestExecutableMissingError = 1,  // no executable, or not executable
    NSExtensionRequestCannotStartError = 2,        // cannot listen, or the process did not start
    NSExtensionRequestExitedError = 3,             // the child ended before it connected
    NSExtensionRequestTimeoutError = 4,            // the child did not connect in time
    NSExtensionRequestNotRunningError = 5,         // no such running request (remote views)
    NSExtensionRequestNoViewControllerError = 6,   // the child could not make the view controller
};

namespace platform::extension {

inline constexpr char kEnvRequestEndpoint[] = "LUMARO_EXTENSION_ENDPOINT";
inline constexpr char kEnvAuxiliaryEndpoint[] = "LUMARO_EXTENSION_AUXILIARY_ENDPOINT";
inline constexpr char kEnvRequestIdentifier[] = "LUMARO_EXTENSION_REQUEST_IDENTIFIER";
inline constexpr char kEnvExtensionIdentifier[] = "LUMARO_EXTENSION_IDENTIFIER";
inline constexpr char kEnvPrincipalClass[] = "LUMARO_EXTENSION_PRINCIPAL_CLASS";
inline constexpr char kEnvContextClass[] = "LUMARO_EXTENSION_CONTEXT_CLASS";

// What the host offers on the request link, and what the child offers there.
const NSXPCProtocolDescription& requestHostProtocol();
const NSXPCProtocolDescription& requestServiceProtocol();

// Items to and from the bytes that travel on the request link. decodeItems answers nullopt for
// bytes that are not an archive of item values; single malformed items are left out.
QByteArray encodeItems(const std::vector<NSExtensionItemPtr>& items);
std::optional<std::vector<NSExtensionItemPtr>> decodeItems(const QByteArray& data);

// The answer of the child to a remote-view request.
struct RemoteViewAnswer {
    NSXPCListenerEndpoint endpoint;  // the remote view's own link (null: none)
    qint64 windowId = 0;             // the view's top-level window, when shown on X11
    QSizeF size;                     // the view's frame size
    NSErrorPtr error;                // set when no view came
};
using RemoteViewReply = std::function<void(RemoteViewAnswer)>;

// --- The host's side.

// Asks the child of a running request of `extensionIdentifier` for a remote view of
// `className`: the request `requestIdentifier`, or the newest running one when it is null.
// `reply` runs once, on the main queue (an error of NSExtensionRequestErrorDomain when no such
// request runs or the child fails).
void requestRemoteView(const QString& extensionIdentifier, const QUuid& requestIdentifier,
                       const QString& className, const QVariant& clientParameters,
                       RemoteViewReply reply);

// How many requests of this process are running (started and not yet cleaned up).
int runningRequestCount();
// How many children of requests have not been reaped yet (a stopped request's child counts
// until it has ended).
int liveChildCount();

// --- The extension's side.

struct Launch {
    QString requestEndpoint;
    QString auxiliaryEndpoint;
    QUuid requestIdentifier;
    QString extensionIdentifier;
    QString principalClass;
    QString contextClass;
};
// The launch described by the environment; nullopt (and `reason`) when it is incomplete.
std::optional<Launch> launchFromEnvironment(QString* reason);

// Makes a remote view of `className` (the principal class when empty) for the host; runs on the
// main queue and calls the reply there.
using RemoteViewProvider = std::function<void(
    const QString& className, const QVariant& clientParameters, RemoteViewReply reply)>;

// The child's end of one request.
class ExtensionProcess {
public:
    // Connects to the host, checks in, makes the context (the launch's context class through
    // initWithInputItems:listenerEndpoint:contextUUID:), puts it into the vendor and sets up the
    // auxiliary connection with the class hooks' interfaces. `ready` runs on the main queue with
    // the context, or with none and a reason. `ended` runs on the main queue once the request
    // has ended and its end reached the host (or the host is gone).
    static std::shared_ptr<ExtensionProcess> start(
        const Launch& launch, RemoteViewProvider provider,
        std::function<void(std::shared_ptr<NSExtensionContext>, QString reason)> ready,
        std::function<void()> ended);
    ~ExtensionProcess();

    struct Private;

private:
    std::shared_ptr<Private> d_;
};

}  // namespace platform::extension

namespace platform::extension {

// A build tree lays out its extensions' manifests (with the built executables' paths) in
// <build>/share/lumaro/extensions, marked by a ".lumaro-build-tree" file. That folder is put
// first among the registry's fallback folders (which are searched only when
// LUMARO_EXTENSIONS_PATH is unset and no XDG extension folder exists). Applies to the programs of
// a build tree (<build>/programs/<name>/<name>); once per process; the registry queries of
// NSExtension call it.
void useBuildTreeExtensions();

}  // namespace platform::extension
