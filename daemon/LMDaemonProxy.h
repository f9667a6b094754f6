// LMDaemonProxy: the one process-wide client of the recording daemon. It owns the connection to
// the daemon's bus name, exports itself on it as the receiver of the daemon's callbacks
// (LMClientProtocol, all empty here), watches every incoming invocation as the connection's
// delegate, and offers every daemon request under the daemon's own selector.
//
// C++ names: a selector becomes a member named by its first keyword with the other keywords as
// parameter names; where two selectors would collide the next keyword is appended
// (updateStreamWithContentFilter, streamDidStopWithError).
#pragma once

#include <QSizeF>
#include <QString>
#include <QUrl>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/foundation/NSError.h"
#include "platform/xpc/NSXPCConnection.h"

struct LMDaemonRequest;

class LMDaemonProxy final : public NSXPCConnectionDelegate,
                            public NSXPCInvocationTarget,
                            public std::enable_shared_from_this<LMDaemonProxy> {
public:
    using ErrorBlock = std::function<void(NSErrorPtr)>;
    using SessionBlock = std::function<void(NSErrorPtr, signed char, signed char)>;
    using URLErrorBlock = std::function<void(QUrl, NSErrorPtr)>;
    using VoidBlock = std::function<void()>;
    using FlagBlock = std::function<void(signed char)>;
    using ShareableContentBlock =
        std::function<void(QVariantList, QVariantList, QVariantList, NSErrorPtr)>;

    // The shared instance, created on first use (once, from any thread) and never replaced.
    static std::shared_ptr<LMDaemonProxy> daemonProxy();

    LMDaemonProxy() = default;
    // Sets up the connection and hands the daemon the bundle's read token; answers the instance.
    std::shared_ptr<LMDaemonProxy> init();

    const std::shared_ptr<NSXPCConnection>& connection() const { return connection_; }
    void setConnection(std::shared_ptr<NSXPCConnection> connection) {
        connection_ = std::move(connection);
    }
    // Never written here: reads an empty URL for the object's life.
    const QUrl& broadcastURL() const { return broadcastURL_; }
    // Stores nothing: forwards the URL to the daemon's setBroadcastURL:.
    void setBroadcastURL(const QUrl& url);

    // NSXPCConnectionDelegate: connection:handleInvocation:isReply:.
    bool respondsToHandleInvocation() const override { return true; }
    void connection(NSXPCConnection* connection, NSInvocation& handleInvocation,
                    bool isReply) override;

    // --- Requests, in catalogue order.
    void stopCurrentActiveSessionWithHandler(FlagBlock handler);
    void stopAllActiveClients();
    void startInAppRecordingWithContextID(const QVariant& contextID, const QSizeF& windowSize,
                                          signed char microphoneEnabled, signed char cameraEnabled,
                                          SessionBlock withHandler);
    void stopInAppRecordingWithHandler(URLErrorBlock handler);
    void stopInAppRecordingWithUrl(const QUrl& url, ErrorBlock handler);
    void discardInAppRecordingWithHandler(VoidBlock handler);
    void pauseInAppRecording();
    void resumeInAppRecordingWithWindowLayerContextID(uint32_t contextID,
                                                      SessionBlock completionHandler);
    void startInAppCaptureWithContextID(const QVariant& contextID, const QSizeF& windowSize,
                                        signed char microphoneEnabled, signed char cameraEnabled,
                                        SessionBlock withHandler);
    void stopInAppCaptureWithHandler(ErrorBlock handler);
    void pauseInAppCapture();
    void resumeInAppCaptureWithWindowLayerContextID(uint32_t contextID,
                                                    SessionBlock completionHandler);
    void setupBroadcastWithHostBundleID(const QString& hostBundleID,
                                        const QString& broadcastExtensionBundleID,
                                        const QByteArray& broadcastConfigurationData,
                                        const QVariantMap& userInfo, ErrorBlock handler);
    void startInAppBroadcastWithContextID(const QVariant& contextID, const QSizeF& windowSize,
                                          signed char microphoneEnabled, signed char cameraEnabled,
                                          const NSXPCListenerEndpoint& listenerEndpoint,
                                          SessionBlock withHandler);
    void stopInAppBroadcastWithHandler(ErrorBlock handler);
    void pauseInAppBroadcast();
    void resumeInAppBroadcastWithWindowLayerContextID(uint32_t contextID,
                                                      SessionBlock completionHandler);
    void consumeSandboxExtension(const QString& token, signed char processNewConnection);
    void ledraApplicationDidResignActive();
    void ledraApplicationDidBecomeActiveWithContextID(uint32_t contextID,
                                                      SessionBlock completionHandler);
    void appAudioCaptureOutputHandler(const QVariantMap& output);
    void saveVideo(const QUrl& url, ErrorBlock handler);
    void saveVideoToCameraRoll(const QUrl& url, ErrorBlock handler);
    void saveClipToCameraRoll(const QUrl& url, ErrorBlock handler);
    void reportCameraUsage(int64_t usage);
    void updateProcessIDForAudioCaptureWithPID(int32_t pid);
    // setBroadcastURL: is above, with the property.
    void startClipBufferingWithContextID(const QVariant& contextID, const QSizeF& windowSize,
                                         signed char microphoneEnabled, signed char cameraEnabled,
                                         SessionBlock withCompletionHandler);
    void stopClipBufferingWithCompletionHandler(ErrorBlock completionHandler);
    void exportClipToURL(const QUrl& url, double duration, ErrorBlock completionHandler);
    void resumeInAppClipWithWindowLayerContextID(uint32_t contextID,
                                                 SessionBlock completionHandler);
    void updateStreamWithStreamConfiguration(const QString& stream,
                                             const QVariantMap& withStreamConfiguration,
                                             const QVariantMap& streamData,
                                             ErrorBlock completionHandler);
    void updateStreamWithContentFilter(const QString& stream, const QVariantMap& withContentFilter,
                                       const QVariantMap& streamData, ErrorBlock completionHandler);
    void startCapture(const QString& stream, const QVariantMap& withContentFilter,
                      const QVariantMap& properties, ErrorBlock completionHandler);
    void stop(const QString& stream, const QVariantMap& streamData,
              ErrorBlock withCompletionHandler);
    void fetchShareableContentWithOption(uint32_t option, uint32_t windowID,
                                         ShareableContentBlock withCompletionHandler);

    // --- Sandbox tokens.
    void issueSandboxExtensionForMainBundleRead();
    // A read-write token for the folder holding `url`'s file, or a null string.
    QString issueSandboxExtensionForClientFileWrite(const QUrl& url);

    // --- LMClientProtocol: every callback is accepted and ignored.
    void updateScreenRecordingStateWithCurrentState(const QVariantMap&) {}
    void updateBroadcastServiceInfo(const QVariantMap&) {}
    void updateBroadcastURL(const QUrl&) {}
    void captureHandlerWithSample(const QVariant&, const QByteArray& timingData) {}
    void captureHandlerWithAudioSample(const QVariantMap&, int64_t bufferType) {}
    void recordingDidStopWithError(const NSErrorPtr&, const QUrl& movieURL) {}
    void recordingLockInterrupted(const NSErrorPtr&) {}
    void shouldResumeSessionType(const QString&) {}
    void recordingDidPause() {}
    void recordingTimerDidUpdate(const QString&) {}
    void appAudioCaptureStartWithDidStartHandler(const NSXPCBlock&) {}
    void appAudioCaptureResumeWithHandler(const NSXPCBlock&) {}
    void appAudioCaptureStopWithHandler(const NSXPCBlock&) {}
    void streamDidCaptureSurface(const QString&, const QVariant& didCaptureSurface,
                                 const QVariantList& withDirtyRects,
                                 const QVariantMap& withDictionary) {}
    void streamDidStopWithError(const QString&, const NSErrorPtr& didStopWithError) {}

    // NSXPCInvocationTarget: the daemon's calls, by selector.
    void performSelector(const QString& selector, const QVariantList& arguments) override;

private:
    void request(const LMDaemonRequest& row, int line, const QVariantList& arguments,
                 NSXPCBlock block);
    void fileRequest(const LMDaemonRequest& row, int line, const QUrl& url, QVariantList arguments,
                     qsizetype tokenIndex, NSXPCBlock block);

    QUrl broadcastURL_;
    std::shared_ptr<NSXPCConnection> connection_;
};
