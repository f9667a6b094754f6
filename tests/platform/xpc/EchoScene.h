// A tiny protocol for exercising connections end to end, an exported object that answers it, and
// a scene that puts a listener (on a bus name, or anonymous behind an endpoint) and a client
// connection in this process.
#pragma once

#include <QString>
#include <QVariantList>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/dispatch/dispatch.h"
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
inline constexpr const char* kEchoObjects =
    "echoString:number:url:data:dictionary:array:error:endpoint:object:reply:";
inline constexpr const char* kEchoScalars = "echoFlag:int32:uint32:int64:double:size:reply:";
inline constexpr const char* kNote = "note:";
inline constexpr const char* kMisbehave = "misbehave:reply:";
inline constexpr const char* kCallMeBack = "callMeBack:reply:";

inline std::shared_ptr<NSXPCInterface> EchoInterface() {
    using T = NSXPCType;
    static const std::vector<T> objects = {T::String, T::Number,     T::URL,
                                           T::Data,   T::Dictionary, T::Array,
                                           T::Error,  T::Endpoint,   T::Object};
    static const std::vector<T> scalars = {T::SignedChar, T::Int32,  T::UInt32,
                                           T::Int64,      T::Double, T::Size};
    static const NSXPCProtocolDescription protocol{
        "XPCEchoProtocol",
        "com.example.xpc.Echo",
        "/com/example/xpc/Echo",
        {
            {kEchoObjects, objects, true, objects},
            {kEchoScalars, scalars, true, scalars},
            {kNote, {T::Object}, false, {}},
            {kMisbehave, {T::String}, true, {T::Dictionary}},
            {kCallMeBack, {T::String}, true, {T::String}},
        }};
    return NSXPCInterface::interfaceWithProtocol(protocol);
}

// The exported object of both sides.
class EchoObject final : public NSXPCInvocationTarget {
public:
    void performSelector(const QString& selector, const QVariantList& arguments) override {
        if (selector == QLatin1String(kNote)) {
            std::lock_guard lock(mutex_);
            noteObjects_.append(arguments.value(0));
            notes++;
            return;
        }
        QVariantList values = arguments;
        const NSXPCBlock reply = values.takeLast().value<NSXPCBlock>();
        const QString how = values.value(0).toString();
        if (selector == QLatin1String(kCallMeBack)) {
            if (auto c = connection.lock()) {
                c->remoteObjectProxy()->send(kNote, {how});
            }
            reply({how});
        } else if (selector != QLatin1String(kMisbehave)) {
            reply(values);  // the echoes
        } else if (how == QLatin1String("wrongType")) {
            reply({QStringLiteral("not a dictionary")});
        } else if (how == QLatin1String("wrongCount")) {
            reply({});
        } else if (how == QLatin1String("nulls")) {
            reply({QVariantMap{
                {QStringLiteral("null"), QVariant()},
                {QStringLiteral("kept"), 1},
                {QStringLiteral("inner"), QVariantMap{{QStringLiteral("null"), QVariant()}}},
                {QStringLiteral("list"), QVariantList{QVariant(), 2}}}});
        } else if (how == QLatin1String("hold")) {
            std::lock_guard lock(mutex_);
            held_.push_back(reply);
        } else {
            reply({QVariantMap{{QStringLiteral("n"), 1}}});
            if (how == QLatin1String("twice")) {
                reply({QVariantMap{{QStringLiteral("n"), 2}}});
            }
        }
    }

    // The object of every note, in the order they came.
    QVariantList noteObjects() const {
        std::lock_guard lock(mutex_);
        return noteObjects_;
    }
    size_t heldCount() const {
        std::lock_guard lock(mutex_);
        return held_.size();
    }
    void dropHeld() {
        std::vector<NSXPCBlock> dropped;
        std::lock_guard lock(mutex_);
        dropped.swap(held_);
    }

    std::atomic<int> notes{0};
    std::weak_ptr<NSXPCConnection> connection;  // for callMeBack:

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
    int64_t errorCode() {  // 0 when no error came
        std::lock_guard lock(mutex);
        return error ? error->code() : 0;
    }
};

// Sends `selector` with `arguments` over `connection` and, when the method has a reply block,
// waits (running the main loop) until the reply or the error came; answers the outcome.
inline std::shared_ptr<Outcome> send(const std::shared_ptr<NSXPCConnection>& connection,
                                     std::string_view selector, const QVariantList& arguments,
                                     bool wait = true) {
    auto outcome = std::make_shared<Outcome>();
    auto proxy = connection->remoteObjectProxyWithErrorHandler([outcome](const NSErrorPtr& e) {
        {
            std::lock_guard lock(outcome->mutex);
            outcome->error = e;
        }
        outcome->errors++;
    });
    const auto* method = connection->remoteObjectInterface()->methodForSelector(selector);
    NSXPCBlock reply;
    if (method == nullptr || method->hasReply) {
        reply = [outcome](const QVariantList& values) {
            {
                std::lock_guard lock(outcome->mutex);
                outcome->values = values;
            }
            outcome->replies++;
        };
    }
    proxy->send(selector, arguments, reply);
    if (wait && reply) {
        platform::dispatch::runMainLoopUntil([&] { return outcome->done(); }, 10000);
    }
    return outcome;
}

enum class Transport { Bus, Peer };

// A listener serving the echo protocol and a client connected to it; both export an EchoObject.
// On the bus, the listener owns "com.example.xpc.Echo" on the session bus.
class EchoScene final : public NSXPCListenerDelegate,
                        public std::enable_shared_from_this<EchoScene> {
public:
    static std::shared_ptr<EchoScene> make(Transport transport) {
        const QString name = QStringLiteral("com.example.xpc.Echo");
        auto scene = std::make_shared<EchoScene>();
        scene->listener_ = transport == Transport::Bus ? std::make_unique<NSXPCListener>(name)
                                                       : NSXPCListener::anonymousListener();
        scene->listener_->setExportedInterface(EchoInterface());
        scene->listener_->setDelegate(scene);
        if (!scene->listener_->resume()) {
            return nullptr;
        }
        scene->client =
            transport == Transport::Bus
                ? NSXPCConnection::initWithMachServiceName(name, 0)
                : NSXPCConnection::initWithListenerEndpoint(scene->listener_->endpoint());
        scene->client->setRemoteObjectInterface(EchoInterface());
        scene->client->setExportedInterface(EchoInterface());
        scene->client->setExportedObject(scene->clientObject);
        scene->clientObject->connection = scene->client;
        scene->client->resume();
        return scene;
    }
    ~EchoScene() override {
        client.reset();
        listener_.reset();
    }

    bool listener(NSXPCListener*, const std::shared_ptr<NSXPCConnection>& connection) override {
        if (refuse) {
            return false;
        }
        connection->setRemoteObjectInterface(EchoInterface());
        connection->setExportedInterface(EchoInterface());
        connection->setExportedObject(serverObject);
        serverObject->connection = connection;
        std::lock_guard lock(mutex_);
        accepted_.push_back(connection);
        return true;
    }

    // The connections the listener accepted, in order.
    std::vector<std::shared_ptr<NSXPCConnection>> accepted() const {
        std::lock_guard lock(mutex_);
        return accepted_;
    }

    std::shared_ptr<NSXPCConnection> client;
    std::shared_ptr<EchoObject> clientObject = std::make_shared<EchoObject>();
    std::shared_ptr<EchoObject> serverObject = std::make_shared<EchoObject>();
    std::unique_ptr<NSXPCListener> listener_;
    std::atomic<bool> refuse{false};

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<NSXPCConnection>> accepted_;
};

}  // namespace lumaro::test
