// A raw QtDBus peer that does not keep the contract: replies of the wrong shape, replies twice,
// answers with errors or never, and calls exported objects with what they do not take. Each
// fault ends in one clear error (returned to the error handler, or to the raw peer, and logged);
// nothing crashes, nothing hangs, no block is called twice, and the link goes on working.
#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <functional>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "platform/xpc/NSXPCInterface.h"
#include "tests/platform/xpc/EchoScene.h"
#include "tests/support/TestBus.h"

using lumaro::test::EchoProtocol;
using lumaro::test::EchoScene;
using lumaro::test::kMisbehave;
using lumaro::test::kNote;
using lumaro::test::Transport;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

const QString kRawName = QStringLiteral("com.example.xpc.Raw");
const QString kPath = QStringLiteral("/com/example/xpc/Echo");
const QString kInterface = QStringLiteral("com.example.xpc.Echo");

// Answers every call at kPath with `answer` (on the main thread).
class RawObject final : public QDBusVirtualObject {
public:
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        calls++;
        if (answer) {
            answer(message, connection);
        }
        return true;
    }
    std::function<void(const QDBusMessage&, const QDBusConnection&)> answer;
    int calls = 0;
};

QVariant av(const QVariantList& items) {
    return QVariant(items);
}

class BadInputTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(lumaro::test::sharedBus().isRunning());
        raw_ = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(
            lumaro::test::sharedBus().address(), QStringLiteral("raw-peer")));
        ASSERT_TRUE(raw_->isConnected());
        ASSERT_TRUE(raw_->registerVirtualObject(kPath, &object_));
        ASSERT_TRUE(raw_->registerService(kRawName));
        client_ = NSXPCConnection::initWithMachServiceName(kRawName, 0);
        client_->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
        client_->setExportedInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
        client_->setExportedObject(clientObject_);
        client_->resume();
    }
    void TearDown() override {
        client_.reset();
        raw_.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("raw-peer"));
    }

    // A call from the raw peer to `service` (blocking; the other side answers on its own thread).
    QDBusMessage rawCall(const QString& service, const QString& interface, const QString& member,
                         const QVariantList& arguments) {
        QDBusMessage call = QDBusMessage::createMethodCall(service, kPath, interface, member);
        call.setArguments(arguments);
        return raw_->call(call, QDBus::Block, 10000);
    }

    RawObject object_;
    std::unique_ptr<QDBusConnection> raw_;
    std::shared_ptr<NSXPCConnection> client_;
    std::shared_ptr<lumaro::test::EchoObject> clientObject_ =
        std::make_shared<lumaro::test::EchoObject>();
};

TEST_F(BadInputTest, RepliesOfTheWrongShapeReachTheErrorHandlerOnce) {
    struct Case {
        const char* what;
        QVariantList reply;
    };
    const std::vector<Case> cases = {
        {"wrong type", {42}},
        {"no values", {}},
        {"one value too many", {av({}), av({})}},
        {"two values in one object", {av({QVariantMap(), QVariantMap()})}},
        {"wrong type inside the object", {av({QStringLiteral("not a dictionary")})}},
        {"a bare dictionary", {QVariantMap{{QStringLiteral("k"), 1}}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture capture;
        object_.answer = [&c](const QDBusMessage& m, const QDBusConnection& b) {
            b.send(m.createReply(c.reply));
        };
        auto outcome = lumaro::test::send(client_, kMisbehave, {QStringLiteral("any")});
        ASSERT_TRUE(outcome->done());
        EXPECT_EQ(outcome->replies.load(), 0);
        ASSERT_EQ(outcome->errors.load(), 1);
        std::lock_guard lock(outcome->mutex);
        EXPECT_EQ(outcome->error->domain(), NSPlatformErrorDomain);
        EXPECT_EQ(outcome->error->code(), NSXPCConnectionReplyInvalid);
        ASSERT_EQ(capture.records().size(), 1u);
        EXPECT_EQ(capture.records()[0].type, OS_LOG_TYPE_ERROR);
        EXPECT_NE(capture.texts()[0].find("reply to misbehave:reply: does not match its block"),
                  std::string::npos);
    }
}

TEST_F(BadInputTest, ASecondReplyOrAnErrorAfterTheReplyIsIgnored) {
    object_.answer = [](const QDBusMessage& m, const QDBusConnection& b) {
        b.send(m.createReply(QVariantList{av({QVariantMap{{QStringLiteral("n"), 1}}})}));
        b.send(m.createReply(QVariantList{av({QVariantMap{{QStringLiteral("n"), 2}}})}));
        b.send(m.createErrorReply(QDBusError::Failed, QStringLiteral("late")));
    };
    auto first = lumaro::test::send(client_, kMisbehave, {QStringLiteral("a")});
    // A second call answered normally: whatever followed the first answer has arrived by then.
    object_.answer = [](const QDBusMessage& m, const QDBusConnection& b) {
        b.send(m.createReply(QVariantList{av({})}));
    };
    auto second = lumaro::test::send(client_, kMisbehave, {QStringLiteral("b")});
    EXPECT_EQ(second->replies.load(), 1);
    EXPECT_EQ(first->replies.load(), 1);
    EXPECT_EQ(first->errors.load(), 0);
    std::lock_guard lock(first->mutex);
    EXPECT_EQ(first->values.value(0), QVariant(QVariantMap{{QStringLiteral("n"), 1}}));
}

TEST_F(BadInputTest, ErrorRepliesAndAPeerThatLeavesWithoutAnsweringEndTheCallOnce) {
    object_.answer = [](const QDBusMessage& m, const QDBusConnection& b) {
        b.send(
            m.createErrorReply(QStringLiteral("com.example.Error.Whatever"), QStringLiteral("no")));
    };
    auto refused = lumaro::test::send(client_, kMisbehave, {QStringLiteral("a")});
    EXPECT_EQ(refused->replies.load(), 0);
    ASSERT_EQ(refused->errors.load(), 1);
    {
        std::lock_guard lock(refused->mutex);
        EXPECT_EQ(refused->error->code(), NSXPCConnectionInvalid);
    }

    object_.answer = nullptr;  // takes the call and never answers
    auto unanswered = lumaro::test::send(client_, kMisbehave, {QStringLiteral("b")}, false);
    ASSERT_TRUE(runMainLoopUntil([&] { return object_.calls == 2; }, 10000));
    EXPECT_FALSE(unanswered->done());
    raw_.reset();
    QDBusConnection::disconnectFromBus(QStringLiteral("raw-peer"));
    ASSERT_TRUE(runMainLoopUntil([&] { return unanswered->done(); }, 10000));
    EXPECT_EQ(unanswered->replies.load(), 0);
    EXPECT_EQ(unanswered->errors.load(), 1);
    std::lock_guard lock(unanswered->mutex);
    EXPECT_EQ(unanswered->error->code(), NSXPCConnectionInterrupted);
}

TEST_F(BadInputTest, CallsThatTheExportedObjectDoesNotTakeAreRefusedWithAReason) {
    const QString client = client_->uniqueBusName();
    ASSERT_FALSE(client.isEmpty());
    struct Case {
        const char* what;
        QString interface;
        QString member;
        QVariantList arguments;
        QString errorName;
    };
    const QString invalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
    const std::vector<Case> cases = {
        {"wrong type", kInterface, QStringLiteral("note_"), {42}, invalidArgs},
        {"wrong count", kInterface, QStringLiteral("note_"), {av({}), av({})}, invalidArgs},
        {"two values in one object",
         kInterface,
         QStringLiteral("note_"),
         {av({1, 2})},
         invalidArgs},
        {"bad size",
         kInterface,
         QStringLiteral("echoFlag_int32_uint32_int64_double_size_reply_"),
         {QVariant::fromValue(uchar(1)), 1, 1u, qlonglong(1), 1.0, QStringLiteral("wide")},
         invalidArgs},
        {"unknown member",
         kInterface,
         QStringLiteral("noSuchMethod_"),
         {},
         QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod")},
        {"member that is no selector",
         kInterface,
         QStringLiteral("note__1"),
         {av({})},
         QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod")},
        {"other interface",
         QStringLiteral("com.example.Other"),
         QStringLiteral("note_"),
         {av({})},
         QStringLiteral("org.freedesktop.DBus.Error.UnknownInterface")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture capture;
        const QDBusMessage answer = rawCall(client, c.interface, c.member, c.arguments);
        EXPECT_EQ(answer.type(), QDBusMessage::ErrorMessage);
        EXPECT_EQ(answer.errorName(), c.errorName);
        EXPECT_EQ(capture.records().size(), 1u);
        EXPECT_EQ(clientObject_->notes.load(), 0);
    }
    // The exported object still takes what fits.
    const QDBusMessage ok = rawCall(client, kInterface, QStringLiteral("note_"), {av({7})});
    EXPECT_EQ(ok.type(), QDBusMessage::ReplyMessage);
    ASSERT_TRUE(runMainLoopUntil([&] { return clientObject_->notes.load() == 1; }, 10000));
    EXPECT_EQ(clientObject_->lastNote(), QVariantList{7});
}

TEST_F(BadInputTest, AListenerRefusesWhatItsInterfaceDoesNotHoldAndStaysUp) {
    auto scene = EchoScene::make(Transport::Bus, QStringLiteral("com.example.xpc.Listening"));
    ASSERT_TRUE(scene);
    const QString listening = QStringLiteral("com.example.xpc.Listening");
    LogCapture capture;
    QDBusMessage answer =
        rawCall(listening, kInterface, QStringLiteral("note_"), {QStringLiteral("x")});
    EXPECT_EQ(answer.errorName(), QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"));
    answer = rawCall(listening, kInterface, QStringLiteral("nothing"), {});
    EXPECT_EQ(answer.errorName(), QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"));
    EXPECT_EQ(capture.records().size(), 2u);
    EXPECT_EQ(scene->serverObject->notes.load(), 0);
    // Introspection shows the interface, with each method's selector.
    QDBusMessage introspect = QDBusMessage::createMethodCall(
        listening, kPath, QStringLiteral("org.freedesktop.DBus.Introspectable"),
        QStringLiteral("Introspect"));
    const QString xml = raw_->call(introspect, QDBus::Block, 10000).arguments().value(0).toString();
    EXPECT_TRUE(xml.contains(QStringLiteral("<interface name=\"com.example.xpc.Echo\"")));
    EXPECT_TRUE(xml.contains(QStringLiteral("value=\"misbehave:reply:\"")));
    // A well-formed call from the same raw peer still goes through.
    answer = rawCall(listening, kInterface, QStringLiteral("note_"), {av({})});
    EXPECT_EQ(answer.type(), QDBusMessage::ReplyMessage);
    EXPECT_TRUE(runMainLoopUntil([&] { return scene->serverObject->notes.load() == 1; }, 10000));
}

}  // namespace
