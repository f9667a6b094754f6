// Peer-to-peer connections: an anonymous listener's endpoint, handed over a bus connection like
// any value, is enough to connect to it; errors reach error handlers on such links; a listener
// that goes away, refuses, or was never there ends each call once.
#include <gtest/gtest.h>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "tests/platform/xpc/EchoScene.h"
#include "tests/support/TestBus.h"

using lumaro::test::EchoProtocol;
using lumaro::test::EchoScene;
using lumaro::test::kCallMeBack;
using lumaro::test::kEchoObjects;
using lumaro::test::kMisbehave;
using lumaro::test::kNote;
using lumaro::test::Transport;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

std::shared_ptr<NSXPCConnection> connectTo(const NSXPCListenerEndpoint& endpoint,
                                           std::shared_ptr<lumaro::test::EchoObject> object = {}) {
    auto c = NSXPCConnection::initWithListenerEndpoint(endpoint);
    c->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
    if (object) {
        c->setExportedInterface(NSXPCInterface::interfaceWithProtocol(EchoProtocol()));
        c->setExportedObject(object);
    }
    c->resume();
    return c;
}

int64_t errorCode(const std::shared_ptr<lumaro::test::Outcome>& outcome) {
    std::lock_guard lock(outcome->mutex);
    return outcome->error ? outcome->error->code() : 0;
}

TEST(PeerTest, AnEndpointSentOverTheBusConnectsToItsListener) {
    ASSERT_TRUE(lumaro::test::sharedBus().isRunning());
    auto viaBus = EchoScene::make(Transport::Bus, QStringLiteral("com.example.xpc.Peers"));
    auto direct = EchoScene::make(Transport::Peer);
    ASSERT_TRUE(viaBus && direct);
    const NSXPCListenerEndpoint endpoint = direct->listener_->endpoint();
    ASSERT_FALSE(endpoint.isNull());
    EXPECT_TRUE(endpoint.address().startsWith(QStringLiteral("unix:")));

    QVariantList values(9);
    values[7] = QVariant::fromValue(endpoint);
    auto echoed = lumaro::test::send(viaBus->client, kEchoObjects, values);
    ASSERT_EQ(echoed->replies.load(), 1);
    NSXPCListenerEndpoint received;
    {
        std::lock_guard lock(echoed->mutex);
        received = echoed->values.value(7).value<NSXPCListenerEndpoint>();
    }
    EXPECT_EQ(received, endpoint);

    auto object = std::make_shared<lumaro::test::EchoObject>();
    auto peer = connectTo(received, object);
    EXPECT_TRUE(peer->uniqueBusName().isEmpty());  // no bus in between
    auto outcome = lumaro::test::send(peer, kCallMeBack, {QStringLiteral("over the endpoint")});
    ASSERT_EQ(outcome->replies.load(), 1);
    ASSERT_TRUE(runMainLoopUntil([&] { return object->notes.load() == 1; }, 10000));
    EXPECT_EQ(object->lastNote(), QVariantList{QStringLiteral("over the endpoint")});
    // Two peers on one listener: one accepted connection each, callbacks to the right one.
    ASSERT_EQ(direct->accepted().size(), 2u);
    EXPECT_EQ(direct->clientObject->notes.load(), 0);
}

TEST(PeerTest, ErrorsFromTheListenerSideReachTheErrorHandler) {
    auto scene = EchoScene::make(Transport::Peer);
    ASSERT_TRUE(scene);
    scene->exportNothing = true;
    auto peer = connectTo(scene->listener_->endpoint());
    auto outcome = lumaro::test::send(peer, kMisbehave, {QStringLiteral("x")});
    EXPECT_EQ(outcome->replies.load(), 0);
    EXPECT_EQ(outcome->errors.load(), 1);
    EXPECT_EQ(errorCode(outcome), NSXPCConnectionInvalid);
    // A call without a reply block learns it too, through its empty return.
    auto note = lumaro::test::send(peer, kNote, {QVariant()}, false);
    ASSERT_TRUE(runMainLoopUntil([&] { return note->done(); }, 10000));
    EXPECT_EQ(note->errors.load(), 1);
}

TEST(PeerTest, AListenerThatGoesAwayEndsPendingAndLaterCallsOnce) {
    auto scene = EchoScene::make(Transport::Peer);
    ASSERT_TRUE(scene);
    auto peer = connectTo(scene->listener_->endpoint());
    auto pending = lumaro::test::send(peer, kMisbehave, {QStringLiteral("hold")}, false);
    ASSERT_TRUE(runMainLoopUntil([&] { return scene->serverObject->heldCount() == 1; }, 10000));
    scene->listener_->invalidate();
    ASSERT_TRUE(runMainLoopUntil([&] { return pending->done(); }, 10000));
    EXPECT_EQ(pending->replies.load(), 0);
    EXPECT_EQ(pending->errors.load(), 1);
    EXPECT_EQ(errorCode(pending), NSXPCConnectionInterrupted);
    // The held block answers into a closed link: nobody hears it, nothing breaks.
    scene->serverObject->dropHeld();

    auto later = lumaro::test::send(peer, kMisbehave, {QStringLiteral("y")});
    EXPECT_EQ(later->replies.load(), 0);
    EXPECT_EQ(later->errors.load(), 1);
    EXPECT_TRUE(errorCode(later) == NSXPCConnectionInvalid ||
                errorCode(later) == NSXPCConnectionInterrupted)
        << errorCode(later);
    // A new connection to the old endpoint finds nobody.
    LogCapture capture;
    auto again = lumaro::test::send(connectTo(scene->listener_->endpoint()), kMisbehave,
                                    {QStringLiteral("z")});
    EXPECT_EQ(again->errors.load(), 1);
}

TEST(PeerTest, RefusedOrUnreachableEndpointsFailEachCallOnce) {
    auto scene = EchoScene::make(Transport::Peer);
    ASSERT_TRUE(scene);
    scene->refuse = true;
    auto refused = lumaro::test::send(connectTo(scene->listener_->endpoint()), kMisbehave,
                                      {QStringLiteral("x")});
    EXPECT_EQ(refused->replies.load(), 0);
    EXPECT_EQ(refused->errors.load(), 1);
    EXPECT_LE(scene->accepted().size(), 1u);  // at most the scene's own, if it came in first

    for (const char* address : {"unix:path=/nonexistent/lumaro-socket", "not an address", ""}) {
        SCOPED_TRACE(address);
        LogCapture capture;
        auto peer = connectTo(NSXPCListenerEndpoint(QString::fromLatin1(address)));
        auto outcome = lumaro::test::send(peer, kMisbehave, {QStringLiteral("x")});
        EXPECT_EQ(outcome->replies.load(), 0);
        EXPECT_EQ(outcome->errors.load(), 1);
        EXPECT_EQ(errorCode(outcome), NSXPCConnectionInvalid);
        bool logged = false;
        for (const auto& text : capture.texts()) {
            logged = logged || text.rfind("NSXPCConnection: cannot connect to", 0) == 0;
        }
        EXPECT_TRUE(logged);
    }
}

}  // namespace
