#include "daemon/LMDaemonProxy.h"

#include <QFile>
#include <cstdlib>

#include "daemon/LMDaemonProtocol.h"
#include "daemon/LMDaemonRequestCatalogue.h"
#include "logging/LMLog.h"
#include "platform/dispatch/dispatch.h"
#include "platform/foundation/NSBundle.h"
#include "platform/sandbox/sandbox.h"

using platform::xpc::argument;
using platform::xpc::arguments;
using platform::xpc::block;

struct LMDaemonRequest;  // see LMDaemonRequestCatalogue.h

namespace {

constexpr uint64_t kConnectionOptions = 256;

// The folder part of a path, as a path's last component is removed: "/a/b/c.mov" gives "/a/b",
// "/c.mov" gives "/", "c.mov" gives "".
QString stringByDeletingLastPathComponent(QString path) {
    while (path.size() > 1 && path.endsWith(QLatin1Char('/'))) {
        path.chop(1);
    }
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    if (slash < 0) {
        return {};
    }
    return slash == 0 ? QStringLiteral("/") : path.left(slash);
}

// A token string from the platform's C string, which is released at once.
QString takeToken(char* token) {
    QString string = QString::fromUtf8(token);
    free(token);  // NOLINT(cppcoreguidelines-no-malloc)
    return string;
}

void logEntry(const LMDaemonRequest& row, int line) {
    switch (row.logging) {
        case LMRequestLogging::Short:
            os_log_with_type(OS_LOG_DEFAULT, OS_LOG_TYPE_DEFAULT, row.entryText);
            break;
        case LMRequestLogging::ShortEntryDisabled:
            os_log_with_type(OS_LOG_DISABLED, OS_LOG_TYPE_DEFAULT, row.entryText);
            break;
        case LMRequestLogging::NoEntry:
            break;
        case LMRequestLogging::Tagged:
            LM_LOG_INFO_AT(row.method.c_str(), line, "");
            break;
    }
}

void logError(const LMDaemonRequest& row, int line, const NSErrorPtr& error) {
    const int code = error ? static_cast<int>(error->code()) : 0;
    if (row.logging != LMRequestLogging::Tagged) {
        os_log_with_type(OS_LOG_DEFAULT, OS_LOG_TYPE_ERROR, row.errorText, code);
    } else if (row.taggedError == LMTaggedErrorText::ProxyError) {
        LM_LOG_ERROR_AT(row.blockMethod.c_str(), line, "proxy error: %d", code);
    } else {
        LM_LOG_ERROR_AT(row.blockMethod.c_str(), line, "error: %d", code);
    }
}

NSXPCErrorHandler errorHandlerFor(const LMDaemonRequest& row, int line) {
    // The row is a static table entry: the handler holds no object.
    return [&row, line](const NSErrorPtr& error) {
        logError(row, line, error);
    };
}

}  // namespace

std::shared_ptr<LMDaemonProxy> LMDaemonProxy::daemonProxy() {
    static dispatch_once_t once;
    static std::shared_ptr<LMDaemonProxy>* shared = nullptr;  // set once, never released
    dispatch_once(&once, [] {
        shared = new std::shared_ptr<LMDaemonProxy>(std::make_shared<LMDaemonProxy>()->init());
    });
    return *shared;
}

std::shared_ptr<LMDaemonProxy> LMDaemonProxy::init() {
    auto self = shared_from_this();
    setConnection(NSXPCConnection::initWithMachServiceName(
        QString::fromLatin1(kLMDaemonServiceName), kConnectionOptions));
    connection_->setExportedObject(self);
    connection_->setExportedInterface(NSXPCInterface::interfaceWithProtocol(LMClientProtocol()));
    connection_->setRemoteObjectInterface(
        NSXPCInterface::interfaceWithProtocol(LMDaemonProtocol()));
    connection_->setDelegate(self);
    connection_->resume();
    issueSandboxExtensionForMainBundleRead();
    return self;
}

void LMDaemonProxy::connection(NSXPCConnection*, NSInvocation& invocation, bool isReply) {
    static constexpr const char* kMethod = "-[LMDaemonProxy connection:handleInvocation:isReply:]";
    const uint32_t level = __LMLogLevel.load(std::memory_order_relaxed);
    if (isReply) {
        if (level == 0) {
            os_log_with_type(OS_LOG_DEFAULT, OS_LOG_TYPE_DEFAULT,
                             " [DEBUG] %{public}s:%d received reply for invocation", kMethod,
                             __LINE__);
        }
        invocation.retainArguments();
    } else if (level == 0) {
        os_log_with_type(OS_LOG_DEFAULT, OS_LOG_TYPE_DEFAULT,
                         " [DEBUG] %{public}s:%d did not receive reply for invocation", kMethod,
                         __LINE__);
    }
    invocation.invoke();
    invocation.setTarget(NSNull::null());
}

void LMDaemonProxy::request(const LMDaemonRequest& row, int line, const QVariantList& args,
                            NSXPCBlock reply) {
    logEntry(row, line);
    // A proxy of its own for each request, as the error handler is the request's; it lives only
    // for the send.
    NSXPCRemoteObjectProxy(connection_, errorHandlerFor(row, line))
        .send(row.selector, args, std::move(reply));
}

void LMDaemonProxy::fileRequest(const LMDaemonRequest& row, int line, const QUrl& url,
                                QVariantList args, qsizetype tokenIndex, NSXPCBlock reply) {
    logEntry(row, line);
    const QString token = issueSandboxExtensionForClientFileWrite(url);
    NSXPCRemoteObjectProxy proxy(connection_, errorHandlerFor(row, line));
    if (!token.isNull()) {
        args.insert(tokenIndex, token);
        proxy.send(row.tokenSelector, args, std::move(reply));
        return;
    }
    LM_LOG_ERROR_AT(row.method.c_str(), line, "error issuing sandbox extension for client file %@",
                    url);
    proxy.send(row.selector, args, std::move(reply));
}

// --- The catalogue.

void LMDaemonProxy::stopCurrentActiveSessionWithHandler(FlagBlock handler) {
    request(LMDaemonRequestRow(1), __LINE__, {}, block(std::move(handler)));
}

void LMDaemonProxy::stopAllActiveClients() {
    request(LMDaemonRequestRow(2), __LINE__, {}, {});
}

void LMDaemonProxy::startInAppRecordingWithContextID(const QVariant& contextID,
                                                     const QSizeF& windowSize,
                                                     signed char microphoneEnabled,
                                                     signed char cameraEnabled,
                                                     SessionBlock withHandler) {
    request(LMDaemonRequestRow(3), __LINE__,
            arguments(contextID, windowSize, microphoneEnabled, cameraEnabled),
            block(std::move(withHandler)));
}

void LMDaemonProxy::stopInAppRecordingWithHandler(URLErrorBlock handler) {
    request(LMDaemonRequestRow(4), __LINE__, {}, block(std::move(handler)));
}

void LMDaemonProxy::stopInAppRecordingWithUrl(const QUrl& url, ErrorBlock handler) {
    fileRequest(LMDaemonRequestRow(5), __LINE__, url, arguments(url), 1, block(std::move(handler)));
}

void LMDaemonProxy::discardInAppRecordingWithHandler(VoidBlock handler) {
    request(LMDaemonRequestRow(6), __LINE__, {}, block(std::move(handler)));
}

void LMDaemonProxy::pauseInAppRecording() {
    request(LMDaemonRequestRow(7), __LINE__, {}, {});
}

void LMDaemonProxy::resumeInAppRecordingWithWindowLayerContextID(uint32_t contextID,
                                                                 SessionBlock completionHandler) {
    request(LMDaemonRequestRow(8), __LINE__, arguments(contextID),
            block(std::move(completionHandler)));
}

void LMDaemonProxy::startInAppCaptureWithContextID(const QVariant& contextID,
                                                   const QSizeF& windowSize,
                                                   signed char microphoneEnabled,
                                                   signed char cameraEnabled,
                                                   SessionBlock withHandler) {
    request(LMDaemonRequestRow(9), __LINE__,
            arguments(contextID, windowSize, microphoneEnabled, cameraEnabled),
            block(std::move(withHandler)));
}

void LMDaemonProxy::stopInAppCaptureWithHandler(ErrorBlock handler) {
    request(LMDaemonRequestRow(10), __LINE__, {}, block(std::move(handler)));
}

void LMDaemonProxy::pauseInAppCapture() {
    request(LMDaemonRequestRow(11), __LINE__, {}, {});
}

void LMDaemonProxy::resumeInAppCaptureWithWindowLayerContextID(uint32_t contextID,
                                                               SessionBlock completionHandler) {
    request(LMDaemonRequestRow(12), __LINE__, arguments(contextID),
            block(std::move(completionHandler)));
}

void LMDaemonProxy::setupBroadcastWithHostBundleID(const QString& hostBundleID,
                                                   const QString& broadcastExtensionBundleID,
                                                   const QByteArray& broadcastConfigurationData,
                                                   const QVariantMap& userInfo,
                                                   ErrorBlock handler) {
    request(
        LMDaemonRequestRow(13), __LINE__,
        arguments(hostBundleID, broadcastExtensionBundleID, broadcastConfigurationData, userInfo),
        block(std::move(handler)));
}

void LMDaemonProxy::startInAppBroadcastWithContextID(const QVariant& contextID,
                                                     const QSizeF& windowSize,
                                                     signed char microphoneEnabled,
                                                     signed char cameraEnabled,
                                                     const NSXPCListenerEndpoint& listenerEndpoint,
                                                     SessionBlock withHandler) {
    request(LMDaemonRequestRow(14), __LINE__,
            arguments(contextID, windowSize, microphoneEnabled, cameraEnabled, listenerEndpoint),
            block(std::move(withHandler)));
}

void LMDaemonProxy::stopInAppBroadcastWithHandler(ErrorBlock handler) {
    request(LMDaemonRequestRow(15), __LINE__, {}, block(std::move(handler)));
}

void LMDaemonProxy::pauseInAppBroadcast() {
    request(LMDaemonRequestRow(16), __LINE__, {}, {});
}

void LMDaemonProxy::resumeInAppBroadcastWithWindowLayerContextID(uint32_t contextID,
                                                                 SessionBlock completionHandler) {
    request(LMDaemonRequestRow(17), __LINE__, arguments(contextID),
            block(std::move(completionHandler)));
}

void LMDaemonProxy::consumeSandboxExtension(const QString& token,
                                            signed char processNewConnection) {
    request(LMDaemonRequestRow(18), __LINE__, arguments(token, processNewConnection), {});
}

void LMDaemonProxy::ledraApplicationDidResignActive() {
    request(LMDaemonRequestRow(19), __LINE__, {}, {});
}

void LMDaemonProxy::ledraApplicationDidBecomeActiveWithContextID(uint32_t contextID,
                                                                 SessionBlock completionHandler) {
    request(LMDaemonRequestRow(20), __LINE__, arguments(contextID),
            block(std::move(completionHandler)));
}

void LMDaemonProxy::appAudioCaptureOutputHandler(const QVariantMap& output) {
    request(LMDaemonRequestRow(21), __LINE__, arguments(output), {});
}

void LMDaemonProxy::saveVideo(const QUrl& url, ErrorBlock handler) {
    fileRequest(LMDaemonRequestRow(22), __LINE__, url, arguments(url), 1,
                block(std::move(handler)));
}

void LMDaemonProxy::saveVideoToCameraRoll(const QUrl& url, ErrorBlock handler) {
    request(LMDaemonRequestRow(23), __LINE__, arguments(url), block(std::move(handler)));
}

void LMDaemonProxy::saveClipToCameraRoll(const QUrl& url, ErrorBlock handler) {
    request(LMDaemonRequestRow(24), __LINE__, arguments(url), block(std::move(handler)));
}

void LMDaemonProxy::reportCameraUsage(int64_t usage) {
    request(LMDaemonRequestRow(25), __LINE__, arguments(usage), {});
}

void LMDaemonProxy::updateProcessIDForAudioCaptureWithPID(int32_t pid) {
    request(LMDaemonRequestRow(26), __LINE__, arguments(pid), {});
}

void LMDaemonProxy::setBroadcastURL(const QUrl& url) {
    request(LMDaemonRequestRow(27), __LINE__, arguments(url), {});
}

void LMDaemonProxy::startClipBufferingWithContextID(const QVariant& contextID,
                                                    const QSizeF& windowSize,
                                                    signed char microphoneEnabled,
                                                    signed char cameraEnabled,
                                                    SessionBlock withCompletionHandler) {
    request(LMDaemonRequestRow(28), __LINE__,
            arguments(contextID, windowSize, microphoneEnabled, cameraEnabled),
            block(std::move(withCompletionHandler)));
}

void LMDaemonProxy::stopClipBufferingWithCompletionHandler(ErrorBlock completionHandler) {
    request(LMDaemonRequestRow(29), __LINE__, {}, block(std::move(completionHandler)));
}

void LMDaemonProxy::exportClipToURL(const QUrl& url, double duration,
                                    ErrorBlock completionHandler) {
    fileRequest(LMDaemonRequestRow(30), __LINE__, url, arguments(url, duration), 2,
                block(std::move(completionHandler)));
}

void LMDaemonProxy::resumeInAppClipWithWindowLayerContextID(uint32_t contextID,
                                                            SessionBlock completionHandler) {
    request(LMDaemonRequestRow(31), __LINE__, arguments(contextID),
            block(std::move(completionHandler)));
}

void LMDaemonProxy::updateStreamWithStreamConfiguration(const QString& stream,
                                                        const QVariantMap& withStreamConfiguration,
                                                        const QVariantMap& streamData,
                                                        ErrorBlock completionHandler) {
    request(LMDaemonRequestRow(32), __LINE__,
            arguments(stream, withStreamConfiguration, streamData),
            block(std::move(completionHandler)));
}

void LMDaemonProxy::updateStreamWithContentFilter(const QString& stream,
                                                  const QVariantMap& withContentFilter,
                                                  const QVariantMap& streamData,
                                                  ErrorBlock completionHandler) {
    request(LMDaemonRequestRow(33), __LINE__, arguments(stream, withContentFilter, streamData),
            block(std::move(completionHandler)));
}

void LMDaemonProxy::startCapture(const QString& stream, const QVariantMap& withContentFilter,
                                 const QVariantMap& properties, ErrorBlock completionHandler) {
    request(LMDaemonRequestRow(34), __LINE__, arguments(stream, withContentFilter, properties),
            block(std::move(completionHandler)));
}

void LMDaemonProxy::stop(const QString& stream, const QVariantMap& streamData,
                         ErrorBlock withCompletionHandler) {
    request(LMDaemonRequestRow(35), __LINE__, arguments(stream, streamData),
            block(std::move(withCompletionHandler)));
}

void LMDaemonProxy::fetchShareableContentWithOption(uint32_t option, uint32_t windowID,
                                                    ShareableContentBlock withCompletionHandler) {
    request(LMDaemonRequestRow(36), __LINE__, arguments(option, windowID),
            block(std::move(withCompletionHandler)));
}

// --- Sandbox tokens.

void LMDaemonProxy::issueSandboxExtensionForMainBundleRead() {
    LM_LOG_INFO("-[LMDaemonProxy issueSandboxExtensionForMainBundleRead]", "");
    const QByteArray path = QFile::encodeName(NSBundle::mainBundle()->bundlePath());
    char* token =
        sandbox_extension_issue_file(APP_SANDBOX_READ, path.constData(), SANDBOX_EXTENSION_DEFAULT);
    if (token == nullptr) {
        return;  // nothing to hand over
    }
    consumeSandboxExtension(takeToken(token), 1);
}

QString LMDaemonProxy::issueSandboxExtensionForClientFileWrite(const QUrl& url) {
    static constexpr const char* kMethod =
        "-[LMDaemonProxy issueSandboxExtensionForClientFileWrite:]";
    const QString folder = stringByDeletingLastPathComponent(url.path());
    const QByteArray folderPath = QFile::encodeName(folder);
    char* token = sandbox_extension_issue_file(APP_SANDBOX_READ_WRITE, folderPath.constData(),
                                               SANDBOX_EXTENSION_DEFAULT);
    if (token != nullptr) {
        QString string = takeToken(token);
        LM_LOG_INFO(kMethod, "Issued sandbox extension for client folder path %s", folderPath);
        return string;
    }
    LM_LOG_ERROR(kMethod, "Error issuing sandbox extension for client folder path %s", folderPath);
    return {};
}

// --- LMClientProtocol.

void LMDaemonProxy::performSelector(const QString& selector, const QVariantList& a) {
    using platform::xpc::value;
    auto at = [&a](qsizetype i) {
        return i < a.size() ? a[i] : QVariant();
    };
    const QByteArray s = selector.toLatin1();
    if (s == "updateScreenRecordingStateWithCurrentState:") {
        updateScreenRecordingStateWithCurrentState(value<QVariantMap>(at(0)));
    } else if (s == "updateBroadcastServiceInfo:") {
        updateBroadcastServiceInfo(value<QVariantMap>(at(0)));
    } else if (s == "updateBroadcastURL:") {
        updateBroadcastURL(value<QUrl>(at(0)));
    } else if (s == "captureHandlerWithSample:timingData:") {
        captureHandlerWithSample(at(0), value<QByteArray>(at(1)));
    } else if (s == "captureHandlerWithAudioSample:bufferType:") {
        captureHandlerWithAudioSample(value<QVariantMap>(at(0)), value<int64_t>(at(1)));
    } else if (s == "recordingDidStopWithError:movieURL:") {
        recordingDidStopWithError(value<NSErrorPtr>(at(0)), value<QUrl>(at(1)));
    } else if (s == "recordingLockInterrupted:") {
        recordingLockInterrupted(value<NSErrorPtr>(at(0)));
    } else if (s == "shouldResumeSessionType:") {
        shouldResumeSessionType(value<QString>(at(0)));
    } else if (s == "recordingDidPause") {
        recordingDidPause();
    } else if (s == "recordingTimerDidUpdate:") {
        recordingTimerDidUpdate(value<QString>(at(0)));
    } else if (s == "appAudioCaptureStartWithDidStartHandler:") {
        appAudioCaptureStartWithDidStartHandler(at(0).value<NSXPCBlock>());
    } else if (s == "appAudioCaptureResumeWithHandler:") {
        appAudioCaptureResumeWithHandler(at(0).value<NSXPCBlock>());
    } else if (s == "appAudioCaptureStopWithHandler:") {
        appAudioCaptureStopWithHandler(at(0).value<NSXPCBlock>());
    } else if (s == "stream:didCaptureSurface:withDirtyRects:withDictionary:") {
        streamDidCaptureSurface(value<QString>(at(0)), at(1), value<QVariantList>(at(2)),
                                value<QVariantMap>(at(3)));
    } else if (s == "stream:didStopWithError:") {
        streamDidStopWithError(value<QString>(at(0)), value<NSErrorPtr>(at(1)));
    }
}
