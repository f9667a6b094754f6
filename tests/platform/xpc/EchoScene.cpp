#include "tests/platform/xpc/EchoScene.h"

#include "platform/dispatch/dispatch.h"

namespace lumaro::test {

const char* const kEchoObjects =
    "echoString:number:url:data:dictionary:array:error:endpoint:object:reply:";
const char* const kEchoScalars = "echoFlag:int32:uint32:int64:double:size:reply:";
const char* const kNote = "note:";
const char* const kMisbehave = "misbehave:reply:";
const char* const kCallMeBack = "callMeBack:reply:";

const NSXPCProtocolDescription& EchoProtocol() {
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
    return protocol;
}

void EchoObject::performSelector(const QString& selector, const QVariantList& arguments) {
    const std::string s = selector.toStdString();
    if (s == kNote) {
        {
            std::lock_guard lock(mutex_);
            noteObjects_.append(arguments.value(0));
        }
        notes++;
        return;
    }
    QVariantList values = arguments;
    const NSXPCBlock reply = values.takeLast().value<NSXPCBlock>();
    if (s == kEchoObjects || s == kEchoScalars) {
        reply(values);
    } else if (s == kMisbehave) {
        const QString how = values.value(0).toString();
        const QVariantMap one{{QStringLiteral("n"), 1}};
        if (how == QLatin1String("twice")) {
            reply({one});
            reply({QVariantMap{{QStringLiteral("n"), 2}}});
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
            reply({one});
        }
    } else if (s == kCallMeBack) {
        if (auto c = connection.lock()) {
            c->remoteObjectProxy()->send(kNote, {values.value(0)});
        }
        reply({values.value(0)});
    }
}

QVariantList EchoObject::noteObjects() const {
    std::lock_guard lock(mutex_);
    return noteObjects_;
}

size_t EchoObject::heldCount() const {
    std::lock_guard lock(mutex_);
    return held_.size();
}

void EchoObject::dropHeld() {
    std::vector<NSXPCBlock> dropped;
    std::lock_guard lock(mutex_);
    dropped.swap(held_);
}

std::shared_ptr<Outcome> send(const std::shared_ptr<NSXPCConnection>& connection,
                              std::string_view selector, const QVariantList& arguments, bool wait) {
    auto outcome = std::make_shared<Outcome>();
    auto proxy = connection->remoteObjectProxyWithErrorHandler([outcome](const NSErrorPtr& e) {
        {
            std::lock_guard lock(outcome->mutex);
            outcome->error = e;
        }
        outcome->errors++;
    });
    const auto* method = connection->remoteObjectInterface()
                             ? connection->remoteObjectInterface()->methodForSelector(selector)
                             : nullptr;
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

std::shared_ptr<EchoScene> EchoScene::make(Transport transport, const QString& busName) {
    auto scene = std::make_shared<EchoScene>();
    scene->listener_ = transport == Transport::Bus ? std::make_unique<NSXPCListener>(busName)
                                                   : NSXPCListener::anonymousListener();
    scene->listener_->setExportedInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
    scene->listener_->setDelegate(scene);
    if (!scene->listener_->resume()) {
        return nullptr;
    }
    scene->client = transport == Transport::Bus
                        ? NSXPCConnection::initWithMachServiceName(busName, 0)
                        : NSXPCConnection::initWithListenerEndpoint(scene->listener_->endpoint());
    scene->client->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
    scene->client->setExportedInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
    scene->client->setExportedObject(scene->clientObject);
    scene->clientObject->connection = scene->client;
    scene->client->resume();
    return scene;
}

EchoScene::~EchoScene() {
    client.reset();
    listener_.reset();
}

bool EchoScene::listener(NSXPCListener*, const std::shared_ptr<NSXPCConnection>& connection) {
    if (refuse) {
        return false;
    }
    connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
    connection->setExportedObject(serverObject);
    serverObject->connection = connection;
    std::lock_guard lock(mutex_);
    accepted_.push_back(connection);
    return true;
}

std::vector<std::shared_ptr<NSXPCConnection>> EchoScene::accepted() const {
    std::lock_guard lock(mutex_);
    return accepted_;
}

}  // namespace lumaro::test
