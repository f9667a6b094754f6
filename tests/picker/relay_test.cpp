// The two host messages relayed by the picker controller over a real connection (on a private bus):
// they reach the host's exported object in order with their values unchanged (absent objects
// stay absent), always addressed through the newest shared context; without a connection they
// go nowhere and nothing fails.
#include <gtest/gtest.h>

#include <mutex>

#include "platform/dispatch/dispatch.h"
#include "platform/xpc/NSXPCConnection.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"
#include "tests/picker/PickerFixture.h"
#include "tests/platform/xpc/TestBus.h"

using namespace lumaro::test;

namespace {

using Host = RecordingHost;

// A host owning `name` on the bus, and the auxiliary connection a request would have to it.
struct HostLink {
    explicit HostLink(const QString& name) : listener(std::make_unique<NSXPCListener>(name)) {
        host->self = host;
        listener->setDelegate(host);
        ok = listener->resume();
        connection = NSXPCConnection::initWithMachServiceName(name, 0);
        connection->setRemoteObjectInterface(
            LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryHostProtocol());
        connection->setExportedInterface(
            LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryVendorProtocol());
        connection->resume();
    }
    ~HostLink() {
        connection->invalidate();
        listener->invalidate();
    }
    std::shared_ptr<Host> host = std::make_shared<Host>();
    std::unique_ptr<NSXPCListener> listener;
    std::shared_ptr<NSXPCConnection> connection;
    bool ok = false;
};

TEST(RelayTest, HostMessagesArriveInOrderWithValuesUnchangedAtTheNewestRequest) {
    PrivateBus bus;
    ASSERT_TRUE(bus.isRunning());
    bus.exportToEnvironment();
    HostLink oldHost("com.test.pickerhost.old");
    HostLink newHost("com.test.pickerhost.new");
    ASSERT_TRUE(oldHost.ok && newHost.ok);
    const auto first = makeRequest({});
    first->_setAuxiliaryConnection(oldHost.connection);
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    const auto second = makeRequest({});  // made after the controller: still its context
    second->_setAuxiliaryConnection(newHost.connection);

    controller->presentBroadcastActivitySheet();
    controller->extensionDidFinishWithLaunchURL(QUrl(), QUrl(), QString(), true);
    controller->extensionDidFinishWithLaunchURL(QUrl(), QUrl("https://watch.test/1"),
                                                "com.test.ext", false);
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil(
        [&] { return newHost.host->received().size() >= 3; }, 20000));
    const auto messages = newHost.host->received();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].first, "presentBroadcastActivitySheet");
    EXPECT_TRUE(messages[0].second.isEmpty());
    EXPECT_EQ(messages[1].first,
              "extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:");
    ASSERT_EQ(messages[1].second.size(), 4);
    EXPECT_FALSE(messages[1].second[0].isValid());
    EXPECT_FALSE(messages[1].second[1].isValid());
    EXPECT_FALSE(messages[1].second[2].isValid());
    EXPECT_EQ(messages[1].second[3].toInt(), 1);
    ASSERT_EQ(messages[2].second.size(), 4);
    EXPECT_FALSE(messages[2].second[0].isValid());
    EXPECT_EQ(messages[2].second[1].toUrl(), QUrl("https://watch.test/1"));
    EXPECT_EQ(messages[2].second[2].toString(), "com.test.ext");
    EXPECT_EQ(messages[2].second[3].toInt(), 0);
    EXPECT_TRUE(oldHost.host->received().empty());
}

TEST(RelayTest, WithoutAConnectionTheMessagesGoNowhere) {
    makeRequest({});
    platform::log::LogCapture capture;
    auto controller = std::make_shared<LMBroadcastActivityExtensionNSViewController>();
    controller->presentBroadcastActivitySheet();
    controller->extensionDidFinishWithLaunchURL(QUrl(), QUrl(), QString(), true);
    EXPECT_FALSE(controller->broadcastExtensionContext()->remoteProxy());
    EXPECT_TRUE(capture.texts().empty());
}

}  // namespace
