// The extension runtime's host side, inside the library: the request protocol's selectors, the
// running requests and their per-extension table, shared by the request state machine
// (NSExtensionRequest.cpp), the child launcher (NSExtensionLaunch.cpp) and the wire format
// (NSExtensionRequestWire.cpp). Request state changes on the main thread.
#pragma once

#include <QPointer>
#include <QProcess>
#include <QTimer>
#include <atomic>
#include <map>
#include <mutex>
#include <optional>

#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/xpc/NSInvocation.h"
#include "platform/xpc/NSXPCConnection.h"

namespace platform::extension {

inline constexpr char kCheckIn[] = "_checkInWithRequestIdentifier:reply:";
inline constexpr char kComplete[] = "_completeRequestReturningItems:reply:";
inline constexpr char kCancel[] = "_cancelRequestWithError:reply:";
inline constexpr char kRemoteView[] = "_remoteViewWithClassName:clientParameters:reply:";

// The interfaces of requestHostProtocol() and requestServiceProtocol(), made once.
std::shared_ptr<NSXPCInterface> hostInterface();
std::shared_ptr<NSXPCInterface> serviceInterface();

inline NSErrorPtr requestError(int64_t code, const QString& text) {
    return NSError::errorWithDomain(NSExtensionRequestErrorDomain, code,
                                    {{NSLocalizedDescriptionKey, text}});
}

inline void onMain(std::function<void()> block) {
    dispatch_async(dispatch_get_main_queue(), std::move(block));
}

// How long a child may take to connect, and how many children are not reaped yet.
extern std::atomic<int> gStartTimeoutMs;
extern std::atomic<int> gLiveChildren;

struct Request;

// One extension's blocks and running requests.
struct RequestTable {
    std::mutex mutex;
    NSExtension::RequestCompletionBlock completion;
    NSExtension::RequestCancellationBlock cancellation;
    NSExtension::RequestInterruptionBlock interruption;
    std::optional<NSExtensionContextClass> hostContextClass;
    std::shared_ptr<NSXPCInvocationTarget> auxiliaryObject;
    std::vector<std::shared_ptr<Request>> requests;  // changed on the main thread, under mutex
};

// Every running request of the process, by identifier (main thread only).
std::map<QUuid, std::shared_ptr<Request>>& runningRequests();

// Accepts the first peer of a listener with a fixed configuration and refuses later ones.
class OnePeerDelegate : public NSXPCListenerDelegate {
public:
    using Configure = std::function<void(const std::shared_ptr<NSXPCConnection>&)>;
    explicit OnePeerDelegate(Configure configure) : configure_(std::move(configure)) {}
    bool listener(NSXPCListener*, const std::shared_ptr<NSXPCConnection>& connection) override {
        if (taken_.exchange(true)) {
            return false;
        }
        configure_(connection);
        return true;
    }

private:
    Configure configure_;
    std::atomic<bool> taken_{false};
};

struct Request : std::enable_shared_from_this<Request> {
    // Answered: the child ended the request; the host waits for it to exit.
    enum class State { Starting, Running, Answered, Ended };

    QUuid uuid;
    QString extensionIdentifier;
    std::shared_ptr<RequestTable> table;
    std::vector<NSExtensionItemPtr> inputItems;
    NSExtension::RequestBeginCompletion begin;
    std::atomic<State> state{State::Starting};
    bool stopping = false;

    std::unique_ptr<NSXPCListener> requestListener;
    std::unique_ptr<NSXPCListener> auxiliaryListener;
    std::shared_ptr<OnePeerDelegate> requestDelegate;
    std::shared_ptr<OnePeerDelegate> auxiliaryDelegate;
    std::shared_ptr<NSXPCConnection> link;  // set on the main thread once the child checked in
    std::shared_ptr<NSXPCConnection> pendingLink;
    std::mutex pendingMutex;
    std::shared_ptr<NSExtensionContext> hostContext;
    QPointer<QProcess> process;
    QPointer<QTimer> startTimer;

    ~Request();

    void finishBegin(const QUuid& id, const NSErrorPtr& error);

    // Ends the request for good: blocks, listeners and the context go; the child is stopped
    // if it still runs and reaped when it ends.
    void end();

    void stop();

    // The host side of the link: the child's messages, moved to the main thread.
    void perform(const QString& selector, const QVariantList& arguments);

    void checkIn(const QUuid& claimed, const NSXPCBlock& reply);

    // The child's answers; false when the answer is refused (the request then runs on until
    // the child ends it properly or goes).
    bool completed(const QByteArray& data);

    bool cancelled(const NSErrorPtr& error);

    void processEnded(int exitCode, QProcess::ExitStatus status);
};

// Makes the request's listeners and host context and starts the extension's executable; on
// the main thread. A request that cannot start ends with its begin completion's error.
void launchRequest(const std::shared_ptr<RequestTable>& table,
                   const std::shared_ptr<Request>& request, const QString& executable,
                   const QString& principalClass, const QString& contextClassName);

}  // namespace platform::extension
