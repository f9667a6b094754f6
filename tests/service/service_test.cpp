// The view service: the shared context (none before the first request, replaced by every new
// context, also by nothing), the interfaces built once whatever the thread, the host protocol's
// methods and type encodings, the context class as the runtime finds it by name, and the empty
// openURL.
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

    // The runtime makes the class by name, with its two hooks, once it is registered.
    LMBroadcastActivityViewServiceExtensionContextRegisterClass();
    const NSExtensionContextClass* cls =
        NSExtensionLookupContextClass("LMBroadcastActivityViewServiceExtensionContext");
    ASSERT_TRUE(cls && cls->alloc && cls->_extensionAuxiliaryHostProtocol &&
                cls->_extensionAuxiliaryVendorProtocol);
    EXPECT_EQ(cls->_extensionAuxiliaryHostProtocol(),
              __LMBroadcastActivity_viewServiceHostInterface());
    EXPECT_EQ(cls->_extensionAuxiliaryVendorProtocol(),
              __LMBroadcastActivity_viewServiceExtensionInterface());
    const auto second = cls->alloc();
    ASSERT_TRUE(std::dynamic_pointer_cast<Context>(second));
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

// The methods themselves travel in every end-to-end road; their type encodings are read nowhere
// else.
TEST(ViewServiceInterfaceTest, HostMethodsAreOneWayWithTheirTypeEncodings) {
    EXPECT_EQ(kLMBroadcastActivityViewServiceProtocol, "com.vantor.lumaro.broadcast-picker");
    const NSXPCProtocolDescription& host =
        __LMBroadcastActivity_viewServiceHostInterface()->protocol();
    ASSERT_EQ(host.methods.size(), 2u);
    for (const auto& method : host.methods) {
        EXPECT_TRUE(method.optional && method.oneway && !method.hasReply);
    }
    EXPECT_STREQ(LMBroadcastActivityViewServiceHostMethodTypeEncoding(host.methods[0].selector),
                 "Vv16@0:8");
    EXPECT_STREQ(LMBroadcastActivityViewServiceHostMethodTypeEncoding(host.methods[1].selector),
                 R"(Vv44@0:8@"NSURL"16@"NSURL"24@"NSString"32c40)");
    EXPECT_EQ(LMBroadcastActivityViewServiceHostMethodTypeEncoding("openURL:"), nullptr);
    EXPECT_TRUE(__LMBroadcastActivity_viewServiceExtensionInterface()->protocol().methods.empty());
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
