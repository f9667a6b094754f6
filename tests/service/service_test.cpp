// The view service: the shared context (none before the first request, replaced by every new
// context, also by nothing), the interfaces built once whatever the thread, and the empty openURL.
// The context class found by name and the host methods travel in every end-to-end road.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "service/LMBroadcastActivityViewServiceExtensionContext.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"
#include "tests/support/TestMain.h"

namespace {

using namespace BroadcastActivityViewServiceExtension;
using Context = LMBroadcastActivityViewServiceExtensionContext;

// Declared first: the shared context is empty only until the first request of the process.
TEST(ExtensionContextTest, SharedContextIsEmptyBeforeAndReplacedByEveryNewContext) {
    EXPECT_FALSE(Context::sharedInstance());
    auto first = std::make_shared<Context>();
    const QUuid uuid = QUuid::createUuid();
    EXPECT_EQ(first->initWithInputItems({std::make_shared<NSExtensionItem>()}, nullptr, uuid),
              first);
    EXPECT_EQ(Context::sharedInstance(), first);
    EXPECT_EQ(first->inputItems().size(), 1u);
    EXPECT_EQ(first->_UUID(), uuid);
    EXPECT_FALSE(first->remoteProxy());  // no auxiliary connection
    auto second = std::make_shared<Context>();
    second->initWithInputItems({}, nullptr, QUuid::createUuid());
    EXPECT_EQ(Context::sharedInstance(), second);

    // A context the base cannot initialise (not held by a shared pointer) stores its nothing.
    Context unowned;
    platform::log::LogCapture capture;
    EXPECT_FALSE(unowned.initWithInputItems({}, nullptr, QUuid::createUuid()));
    EXPECT_FALSE(Context::sharedInstance());
}

TEST(ViewServiceInterfaceTest, EachInterfaceIsBuiltOnceWhateverTheThread) {
    std::vector<std::shared_ptr<NSXPCInterface>> hosts(8), extensions(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < hosts.size(); ++i) {
        threads.emplace_back([&, i] {
            hosts[i] = __LMBroadcastActivity_viewServiceHostInterface();
            extensions[i] = __LMBroadcastActivity_viewServiceExtensionInterface();
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(hosts[0] && extensions[0]);
    EXPECT_NE(hosts[0], extensions[0]);
    for (size_t i = 0; i < hosts.size(); ++i) {
        EXPECT_EQ(hosts[i], hosts[0]);
        EXPECT_EQ(extensions[i], extensions[0]);
    }
    EXPECT_EQ(Context::_extensionAuxiliaryHostProtocol(), hosts[0]);
    EXPECT_EQ(Context::_extensionAuxiliaryVendorProtocol(), extensions[0]);
}

TEST(ExtensionContextTest, OpenURLNeverCompletes) {
    auto context = std::make_shared<Context>();
    context->initWithInputItems({}, nullptr, QUuid::createUuid());
    std::atomic<int> completions{0};
    context->openURL(QUrl("https://example.test/"), [&completions](bool) { completions++; });
    context->openURL(QUrl(), {});
    lumaro::test::flushMainQueue();
    EXPECT_EQ(completions.load(), 0);
}

}  // namespace
