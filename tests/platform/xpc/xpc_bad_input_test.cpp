// A raw QtDBus peer that does not keep the contract: replies of the wrong shape, replies twice,
// answers with errors or never. Each fault ends in one clear error (returned to the error handler,
// and logged); nothing crashes, nothing hangs, no block is called twice, and the link goes on
// working. (Calls that an exported object does not take: the end-to-end fault test.)
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
using lumaro::test::kMisbehave;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

const QString kRawName = QStringLiteral("com.example.xpc.Raw");
const QString kPath = QStringLiteral("/com/example/xpc/Echo");

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
        client_->resume();
    }
    void TearDown() override {
        client_.reset();
        raw_.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("raw-peer"));
    }

    RawObject object_;
    std::unique_ptr<QDBusConnection> raw_;
    std::shared_ptr<NSXPCConnection> client_;
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

}  // namespace
