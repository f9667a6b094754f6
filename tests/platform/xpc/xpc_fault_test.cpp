// Faults on a link: a raw QtDBus peer that answers in the wrong shape or with an error, a listener
// that goes away with a call in flight, endpoints that refuse or lead nowhere. Each call ends once,
// in one clear error (to the error handler, and logged); nothing crashes, nothing hangs. (Calls
// that a peer does not take, and a peer killed with calls in flight: the end-to-end fault test.)
#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <algorithm>
#include <functional>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "tests/platform/xpc/EchoScene.h"
#include "tests/support/TestBus.h"

using lumaro::test::EchoInterface;
using lumaro::test::EchoScene;
using lumaro::test::kMisbehave;
using lumaro::test::send;
using lumaro::test::Transport;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

const QString kRawName = QStringLiteral("com.example.xpc.Raw");

std::shared_ptr<NSXPCConnection> connectTo(const NSXPCListenerEndpoint& endpoint) {
    auto c = NSXPCConnection::initWithListenerEndpoint(endpoint);
    c->setRemoteObjectInterface(EchoInterface());
    c->resume();
    return c;
}

// Answers every call at the echo path with `answer` (on the main thread).
class RawObject final : public QDBusVirtualObject {
public:
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        answer(message, connection);
        return true;
    }
    std::function<void(const QDBusMessage&, const QDBusConnection&)> answer;
};

class RawPeerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(lumaro::test::sharedBus().isRunning());
        ASSERT_TRUE(raw_.isConnected());
        ASSERT_TRUE(raw_.registerVirtualObject(QStringLiteral("/com/example/xpc/Echo"), &object_));
        ASSERT_TRUE(raw_.registerService(kRawName));
        client_->setRemoteObjectInterface(EchoInterface());
        client_->resume();
    }
    void TearDown() override {
        client_.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("raw-peer"));
    }

    RawObject object_;
    QDBusConnection raw_ = QDBusConnection::connectToBus(lumaro::test::sharedBus().address(),
                                                         QStringLiteral("raw-peer"));
    std::shared_ptr<NSXPCConnection> client_ =
        NSXPCConnection::initWithMachServiceName(kRawName, 0);
};

TEST_F(RawPeerTest, RepliesOfTheWrongShapeReachTheErrorHandlerOnce) {
    const auto object = [](const QVariantList& items) {
        return QVariant(items);
    };
    for (const QVariantList& reply : std::vector<QVariantList>{
             {42},
             {},
             {object({}), object({})},
             {object({QVariantMap(), QVariantMap()})},
             {object({QStringLiteral("not a dictionary")})},
         }) {
        SCOPED_TRACE(QVariant(reply).toString().toStdString());
        LogCapture capture;
        object_.answer = [&reply](const QDBusMessage& m, const QDBusConnection& b) {
            b.send(m.createReply(reply));
        };
        auto outcome = send(client_, kMisbehave, {QStringLiteral("any")});
        EXPECT_EQ(outcome->replies.load(), 0);
        ASSERT_EQ(outcome->errors.load(), 1);
        EXPECT_EQ(outcome->errorCode(), NSXPCConnectionReplyInvalid);
        ASSERT_EQ(capture.records().size(), 1u);
        EXPECT_EQ(capture.records()[0].type, OS_LOG_TYPE_ERROR);
        EXPECT_NE(capture.texts()[0].find("reply to misbehave:reply: does not match its block"),
                  std::string::npos);
    }
}

// An error reply ends a call with a reply block, and a one-way call through its empty return.
TEST_F(RawPeerTest, AnErrorReplyEndsTheCallOnce) {
    object_.answer = [](const QDBusMessage& m, const QDBusConnection& b) {
        b.send(m.createErrorReply(QStringLiteral("com.example.Error.Any"), QStringLiteral("no")));
    };
    for (const char* selector : {kMisbehave, lumaro::test::kNote}) {
        SCOPED_TRACE(selector);
        auto outcome = send(client_, selector, {QStringLiteral("a")}, false);
        ASSERT_TRUE(runMainLoopUntil([&] { return outcome->done(); }, 10000));
        EXPECT_EQ(outcome->replies.load(), 0);
        EXPECT_EQ(outcome->errors.load(), 1);
        EXPECT_EQ(outcome->errorCode(), NSXPCConnectionInvalid);
    }
}

// An anonymous listener invalidated with a call in flight: the held reply block does not keep the
// link open, the pending call and every later one end in an error, and its endpoint leads nowhere.
TEST(PeerTest, AListenerThatGoesAwayEndsPendingAndLaterCallsOnce) {
    auto scene = EchoScene::make(Transport::Peer);
    ASSERT_TRUE(scene);
    auto pending = send(scene->client, kMisbehave, {QStringLiteral("hold")}, false);
    ASSERT_TRUE(runMainLoopUntil([&] { return scene->serverObject->heldCount() == 1; }, 10000));
    scene->listener_->invalidate();
    ASSERT_TRUE(runMainLoopUntil([&] { return pending->done(); }, 10000));
    EXPECT_EQ(pending->replies.load(), 0);
    EXPECT_EQ(pending->errors.load(), 1);
    EXPECT_EQ(pending->errorCode(), NSXPCConnectionInterrupted);
    scene->serverObject->dropHeld();  // answers into a closed link: nobody hears it

    LogCapture capture;
    for (const auto& connection : {scene->client, connectTo(scene->listener_->endpoint())}) {
        auto later = send(connection, kMisbehave, {QStringLiteral("y")});
        EXPECT_EQ(later->replies.load(), 0);
        EXPECT_EQ(later->errors.load(), 1);
    }
}

TEST(PeerTest, RefusedOrUnreachableEndpointsFailEachCallOnce) {
    auto scene = EchoScene::make(Transport::Peer);
    ASSERT_TRUE(scene);
    scene->refuse = true;
    auto refused = send(connectTo(scene->listener_->endpoint()), kMisbehave, {QStringLiteral("x")});
    EXPECT_EQ(refused->replies.load(), 0);
    EXPECT_EQ(refused->errors.load(), 1);
    EXPECT_LE(scene->accepted().size(), 1u);  // at most the scene's own, if it came in first

    for (const char* address : {"unix:path=/nonexistent/lumaro-socket", "not an address"}) {
        SCOPED_TRACE(address);
        LogCapture capture;
        auto outcome = send(connectTo(NSXPCListenerEndpoint(QString::fromLatin1(address))),
                            kMisbehave, {QStringLiteral("x")});
        EXPECT_EQ(outcome->replies.load(), 0);
        EXPECT_EQ(outcome->errors.load(), 1);
        EXPECT_EQ(outcome->errorCode(), NSXPCConnectionInvalid);
        const auto texts = capture.texts();
        EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
            return text.rfind("NSXPCConnection: cannot connect to", 0) == 0;
        }));
    }
}

}  // namespace
