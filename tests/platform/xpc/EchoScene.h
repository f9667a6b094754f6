// A tiny protocol for exercising connections end to end, an exported object that answers it, and
// a scene that puts a listener (on a bus name, or anonymous behind an endpoint) and a client
// connection in this process.
#pragma once

#include <QString>
#include <QVariantList>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/xpc/NSXPCConnection.h"

namespace lumaro::test {

// "com.example.xpc.Echo" at "/com/example/xpc/Echo":
//   echoString:number:url:data:dictionary:array:error:endpoint:object:reply:  objects, echoed
//   echoFlag:int32:uint32:int64:double:size:reply:                          scalars, echoed
//   note:                                              one object, no reply block (recorded)
//   misbehave:reply:  a string naming what to do; the block takes a dictionary. "twice": calls
//                     the block twice; "wrongType": with a string; "wrongCount": with nothing;
//                     "nulls": with a dictionary holding nulls; "hold": keeps the block uncalled
//   callMeBack:reply: calls note: on the caller's exported object with the string, then replies
const NSXPCProtocolDescription& EchoProtocol();
extern const char* const kEchoObjects;
extern const char* const kEchoScalars;
extern const char* const kNote;
extern const char* const kMisbehave;
extern const char* const kCallMeBack;

// The exported object of both sides.
class EchoObject final : public NSXPCInvocationTarget {
public:
    void performSelector(const QString& selector, const QVariantList& arguments) override;

    std::atomic<int> notes{0};
    QVariantList noteObjects() const;           // the object of every note, in the order they came
    std::weak_ptr<NSXPCConnection> connection;  // for callMeBack:
    size_t heldCount() const;
    void dropHeld();

private:
    mutable std::mutex mutex_;
    QVariantList noteObjects_;
    std::vector<NSXPCBlock> held_;  // blocks kept by "hold"
};

// What one send came back with: the reply's values, or an error; with how often each came.
struct Outcome {
    std::atomic<int> replies{0};
    std::atomic<int> errors{0};
    std::mutex mutex;
    QVariantList values;
    NSErrorPtr error;

    bool done() const { return replies.load() + errors.load() > 0; }
};

// Sends `selector` with `arguments` over `connection` and, when the method has a reply block,
// waits (running the main loop) until the reply or the error came; answers the outcome.
std::shared_ptr<Outcome> send(const std::shared_ptr<NSXPCConnection>& connection,
                              std::string_view selector, const QVariantList& arguments,
                              bool wait = true);

enum class Transport { Bus, Peer };

// A listener serving EchoProtocol and a client connected to it; both export an EchoObject.
class EchoScene final : public NSXPCListenerDelegate,
                        public std::enable_shared_from_this<EchoScene> {
public:
    // Bus: the listener owns `busName` on the session bus (DBUS_SESSION_BUS_ADDRESS).
    static std::shared_ptr<EchoScene> make(
        Transport transport, const QString& busName = QStringLiteral("com.example.xpc.Echo"));
    ~EchoScene() override;

    bool listener(NSXPCListener* listener,
                  const std::shared_ptr<NSXPCConnection>& connection) override;

    std::shared_ptr<NSXPCConnection> client;
    std::shared_ptr<EchoObject> clientObject = std::make_shared<EchoObject>();
    std::shared_ptr<EchoObject> serverObject = std::make_shared<EchoObject>();
    std::unique_ptr<NSXPCListener> listener_;
    std::atomic<bool> refuse{false};

    // The connections the listener accepted, in order.
    std::vector<std::shared_ptr<NSXPCConnection>> accepted() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<NSXPCConnection>> accepted_;
};

}  // namespace lumaro::test
