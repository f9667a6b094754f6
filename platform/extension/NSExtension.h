// Installed extensions as the registry describes them, and the registry queries.
//
// An extension is read from its manifest (see NSExtensionRegistry.h and manifest.schema.json)
// and never changes afterwards; records are shared freely between threads.
#pragma once

#include <QString>
#include <QUrl>
#include <QUuid>
#include <QVariantList>
#include <QVariantMap>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/foundation/NSError.h"

// Keys of the query dictionary of extensionsWithMatchingAttributes.
inline const QString NSExtensionPointName = QStringLiteral("NSExtensionPointName");
inline const QString PKProtocolAttribute = QStringLiteral("PKProtocolAttribute");
inline const QString LSExtensionPlatformsAttribute = QStringLiteral("LS:ExtensionPlatforms");

// Keys of an extension's information dictionary and attributes.
inline const QString kCFBundleDisplayNameKey = QStringLiteral("CFBundleDisplayName");
inline const QString kCFBundleNameKey = QStringLiteral("CFBundleName");
inline const QString kCFBundleIdentifierKey = QStringLiteral("CFBundleIdentifier");
inline const QString NSExtensionKey = QStringLiteral("NSExtension");
inline const QString NSExtensionPointIdentifierKey = QStringLiteral("NSExtensionPointIdentifier");
inline const QString NSExtensionActivationRuleKey = QStringLiteral("NSExtensionActivationRule");
inline const QString NSExtensionContainingViewControllerClassKey =
    QStringLiteral("NSExtensionContainingViewControllerClass");
inline const QString NSExtensionPrincipalClassKey = QStringLiteral("NSExtensionPrincipalClass");
inline const QString NSExtensionContextClassKey = QStringLiteral("NSExtensionContextClass");

// Platform numbers of the plug-in record.
constexpr int64_t kExtensionPlatformNative = 1;
constexpr int64_t kExtensionPlatformPrism = 6;

// Errors of the registry itself (a failed search, a malformed query).
inline const QString NSExtensionRegistryErrorDomain =
    QStringLiteral("NSExtensionRegistryErrorDomain");
enum : int64_t {
    NSExtensionRegistryInvalidQueryError = 1,
    NSExtensionRegistryNotFoundError = 2,
};

// The registry's record of an extension's plug-in: where it lives and what the runtime starts.
class NSExtensionPlugIn {
public:
    NSExtensionPlugIn(QString identifier, QUrl containingUrl, int64_t platform, QUrl executableUrl,
                      QVariantMap plugInDictionary, QString manifestPath);

    const QString& identifier() const { return identifier_; }
    // The folder of the containing application (which holds its icon).
    const QUrl& containingUrl() const { return containingUrl_; }
    // 1 for a native desktop extension, 6 for one built for Prism.
    int64_t platform() const { return platform_; }
    const QUrl& executableUrl() const { return executableUrl_; }
    // The NSExtension dictionary the extension declares.
    const QVariantMap& plugInDictionary() const { return plugInDictionary_; }
    const QString& manifestPath() const { return manifestPath_; }

private:
    QString identifier_;
    QUrl containingUrl_;
    int64_t platform_;
    QUrl executableUrl_;
    QVariantMap plugInDictionary_;
    QString manifestPath_;
};

// The extension's bundle as the registry knows it: its manifest and information dictionary.
class NSExtensionBundle {
public:
    NSExtensionBundle(QString bundlePath, QString bundleIdentifier);
    const QString& bundlePath() const { return bundlePath_; }
    const QString& bundleIdentifier() const { return bundleIdentifier_; }
    // "NSExtensionBundle <path> (identifier)"
    QString description() const;

private:
    QString bundlePath_;
    QString bundleIdentifier_;
};

class NSExtension;
using NSExtensionPtr = std::shared_ptr<NSExtension>;
class NSExtensionItem;
class NSExtensionContext;
struct NSExtensionContextClass;
class NSXPCInvocationTarget;
namespace platform::extension {
struct RequestTable;
}

class NSExtension {
public:
    NSExtension(QString identifier, QVariantMap attributes, QVariantMap infoDictionary,
                std::shared_ptr<const NSExtensionPlugIn> plugIn,
                std::shared_ptr<const NSExtensionBundle> bundle);

    const QString& identifier() const { return identifier_; }
    // The extension point named by the attributes' NSExtensionPointIdentifier.
    const QString& extensionPointIdentifier() const { return extensionPointIdentifier_; }
    // The declared NSExtension dictionary (activation rule, class names, process mode).
    const QVariantMap& attributes() const { return attributes_; }
    // The information dictionary; its "NSExtension" entry is the attributes.
    const QVariantMap& infoDictionary() const { return infoDictionary_; }
    const std::shared_ptr<const NSExtensionBundle>& _extensionBundle() const { return bundle_; }
    const std::shared_ptr<const NSExtensionPlugIn>& _plugIn() const { return plugIn_; }

    QString description() const;

    using MatchingCompletion =
        std::function<void(std::vector<NSExtensionPtr> extensions, NSErrorPtr error)>;

    // extensionsWithMatchingAttributes:completion:. Answers, on a global queue and never
    // inline, the installed extensions that match every entry of `attributes`:
    //   NSExtensionPointName  (string, required)  the extension point;
    //   PKProtocolAttribute   (array of strings)  the extension point must be one of them;
    //   "LS:ExtensionPlatforms" (array of numbers) the plug-in's platform must be one of them.
    // Other keys are ignored. The array is ordered by identifier (byte order), one extension per
    // identifier. The error is set only when the query is malformed or a folder of the search
    // path exists but cannot be listed; the extensions found elsewhere still come with it.
    // An empty completion is allowed.
    static void extensionsWithMatchingAttributes(const QVariantMap& attributes,
                                                 MatchingCompletion completion);

    // extensionWithIdentifier:error:: the installed extension with this identifier, looked up
    // synchronously; an empty pointer and an error when there is none.
    static NSExtensionPtr extensionWithIdentifier(const QString& identifier, NSErrorPtr* error);

    // --- Extension requests (the runtime, NSExtensionRequest.cpp). Each request runs the
    // extension's executable as a child process linked to this one by a private peer-to-peer
    // connection; see NSExtensionRequest.h for the protocol.

    // beginExtensionRequestWithInputItems:completion: starts the executable and sends it
    // `inputItems`. The completion runs once, on the main queue: with a fresh request identifier
    // once the child has connected and taken its items, or with a null identifier and an error
    // (NSExtensionRequestErrorDomain) when the executable is missing, cannot start, dies or
    // stops before connecting, or does not connect within the start timeout.
    using RequestBeginCompletion = std::function<void(QUuid requestIdentifier, NSErrorPtr error)>;
    void beginExtensionRequestWithInputItems(
        std::vector<std::shared_ptr<NSExtensionItem>> inputItems,
        RequestBeginCompletion completion);

    // setRequestCompletionBlock: — called, on the main queue, with the request identifier and the
    // items that the extension returns with completeRequestReturningItems (an empty list for
    // none). Replaces the block set before; requests already running use the newest block.
    using RequestCompletionBlock =
        std::function<void(QUuid requestIdentifier, std::vector<std::shared_ptr<NSExtensionItem>>)>;
    void setRequestCompletionBlock(RequestCompletionBlock block);
    // setRequestCancellationBlock: — called, on the main queue, when the extension ends a request
    // with cancelRequestWithError.
    using RequestCancellationBlock = std::function<void(QUuid requestIdentifier, NSErrorPtr)>;
    void setRequestCancellationBlock(RequestCancellationBlock block);
    // setRequestInterruptionBlock: — called, on the main queue, when the child goes away (dies,
    // or closes its link) before it ended a running request.
    using RequestInterruptionBlock = std::function<void(QUuid requestIdentifier)>;
    void setRequestInterruptionBlock(RequestInterruptionBlock block);

    // cancelExtensionRequestWithIdentifier: — the host ends the request: the child is stopped
    // (terminated, then killed if it lingers) and reaped; no block is called for it.
    void cancelExtensionRequestWithIdentifier(const QUuid& requestIdentifier);

    // _extensionContextForUUID: — the host-side context of a running request: its input items,
    // identifier and the host's end of the auxiliary connection. Empty once the request ended.
    std::shared_ptr<NSExtensionContext> _extensionContextForUUID(const QUuid& uuid) const;
    // The identifiers of this extension's running requests, oldest first.
    std::vector<QUuid> _runningRequestIdentifiers() const;

    // The class of the host-side contexts (default: the base NSExtensionContext, with the
    // auxiliary protocols of the context class that the manifest names, when this process has
    // it registered). Set before beginning a request.
    void _setHostContextClass(const NSExtensionContextClass& cls);
    // The object that the host exports on the auxiliary connection. Default: the host-side
    // context itself when it is an invocation target, else nothing is exported.
    void _setAuxiliaryExportedObject(std::shared_ptr<NSXPCInvocationTarget> object);

    // How long a child may take to connect (default 10 s; tests shorten it).
    static void _setRequestStartTimeout(int milliseconds);
    static int _requestStartTimeout();

    // The runtime's per-extension state (made on first use).
    std::shared_ptr<platform::extension::RequestTable> _requestTable() const;

private:
    mutable std::shared_ptr<platform::extension::RequestTable> requestTable_;
    QString identifier_;
    QString extensionPointIdentifier_;
    QVariantMap attributes_;
    QVariantMap infoDictionary_;
    std::shared_ptr<const NSExtensionPlugIn> plugIn_;
    std::shared_ptr<const NSExtensionBundle> bundle_;
};
