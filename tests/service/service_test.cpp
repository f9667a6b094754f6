// The view service: the shared context (none before the first request, every new context
// replacing it, also with nothing), the interfaces built once however many threads ask, the
// host protocol's methods and type encodings, the context class as the runtime finds it by name,
// and the empty openURL.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "service/LMBroadcastActivityViewServiceExtensionContext.h"
#include "service/LMBroadcastActivityViewServiceProtocols.h"

namespace {

using namespace BroadcastActivityViewServiceExtension;

// Declared first: the shared context is empty only until the first request of the process.
TEST(ExtensionContextTest, SharedContextIsEmptyBeforeAndReplacedByEveryNewContext) {
    EXPECT_FALSE(LMBroadcastActivityViewServiceExtensionContext::sharedInstance());

    auto first = std::make_shared<LMBroadcastActivityViewServiceExtensionContext>();
    const auto item = std::make_shared<NSExtensionItem>();
    const QUuid uuid = QUuid::createUuid();
    EXPECT_EQ(first->initWithInputItems({item}, nullptr, uuid), first);
    EXPECT_EQ(LMBroadcastActivityViewServiceExtensionContext::sharedInstance(), first);
    EXPECT_EQ(first->inputItems(), std::vector<NSExtensionItemPtr>{item});
    EXPECT_EQ(first->_UUID(), uuid);
    EXPECT_FALSE(first->remoteProxy());  // no auxiliary connection

    auto second = std::make_shared<LMBroadcastActivityViewServiceExtensionContext>();
    second->initWithInputItems({}, nullptr, QUuid::createUuid());
    EXPECT_EQ(LMBroadcastActivityViewServiceExtensionContext::sharedInstance(), second);

    // A context the base cannot initialise (not held by a shared pointer) stores its nothing.
    LMBroadcastActivityViewServiceExtensionContext unowned;
    platform::log::LogCapture capture;
    EXPECT_FALSE(unowned.initWithInputItems({}, nullptr, QUuid::createUuid()));
    EXPECT_FALSE(LMBroadcastActivityViewServiceExtensionContext::sharedInstance());
}

TEST(ViewServiceInterfaceTest, EachInterfaceIsBuiltOnceWhateverTheThread) {
    constexpr int kThreads = 8;
    std::vector<std::shared_ptr<NSXPCInterface>> hosts(kThreads), extensions(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            hosts[i] = __LMBroadcastActivity_viewServiceHostInterface();
            extensions[i] = __LMBroadcastActivity_viewServiceExtensionInterface();
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(hosts[0]);
    ASSERT_TRUE(extensions[0]);
    EXPECT_NE(hosts[0], extensions[0]);
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(hosts[i], hosts[0]);
        EXPECT_EQ(extensions[i], extensions[0]);
    }
    EXPECT_EQ(__LMBroadcastActivity_viewServiceHostInterface(), hosts[0]);
    EXPECT_EQ(LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryHostProtocol(),
              hosts[0]);
    EXPECT_EQ(LMBroadcastActivityViewServiceExtensionContext::_extensionAuxiliaryVendorProtocol(),
              extensions[0]);
}

TEST(ViewServiceInterfaceTest, HostProtocolHasTwoOptionalOneWayMethodsAndTheExtensionNone) {
    EXPECT_EQ(kLMBroadcastActivityViewServiceProtocol, "com.vantor.lumaro.broadcast-picker");
    const auto host = __LMBroadcastActivity_viewServiceHostInterface();
    EXPECT_EQ(host->protocol().name, "LMBroadcastActivityViewServiceHostProtocol");
    ASSERT_EQ(host->protocol().methods.size(), 2u);
    const auto* sheet = host->methodForSelector("presentBroadcastActivitySheet");
    const auto* finish = host->methodForSelector(
        "extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:");
    ASSERT_TRUE(sheet && finish);
    EXPECT_EQ(&host->protocol().methods[0], sheet);
    for (const auto* method : {sheet, finish}) {
        EXPECT_TRUE(method->optional);
        EXPECT_TRUE(method->oneway);
        EXPECT_FALSE(method->hasReply);
    }
    EXPECT_TRUE(sheet->arguments.empty());
    EXPECT_EQ(finish->arguments,
              (std::vector<NSXPCType>{NSXPCType::URL, NSXPCType::URL, NSXPCType::String,
                                      NSXPCType::SignedChar}));
    EXPECT_STREQ(LMBroadcastActivityViewServiceHostMethodTypeEncoding(sheet->selector), "Vv16@0:8");
    EXPECT_STREQ(LMBroadcastActivityViewServiceHostMethodTypeEncoding(finish->selector),
                 R"(Vv44@0:8@"NSURL"16@"NSURL"24@"NSString"32c40)");
    EXPECT_EQ(LMBroadcastActivityViewServiceHostMethodTypeEncoding("openURL:"), nullptr);

    const auto extension = __LMBroadcastActivity_viewServiceExtensionInterface();
    EXPECT_EQ(extension->protocol().name, "LMBroadcastActivityViewServiceExtensionProtocol");
    EXPECT_TRUE(extension->protocol().methods.empty());
}

TEST(ExtensionContextTest, RuntimeMakesTheClassByNameWithItsHooks) {
    const NSExtensionContextClass* cls =
        NSExtensionLookupContextClass("LMBroadcastActivityViewServiceExtensionContext");
    ASSERT_NE(cls, nullptr);
    ASSERT_TRUE(cls->alloc && cls->_extensionAuxiliaryHostProtocol &&
                cls->_extensionAuxiliaryVendorProtocol);
    EXPECT_EQ(cls->_extensionAuxiliaryHostProtocol(),
              __LMBroadcastActivity_viewServiceHostInterface());
    EXPECT_EQ(cls->_extensionAuxiliaryVendorProtocol(),
              __LMBroadcastActivity_viewServiceExtensionInterface());
    const auto context = cls->alloc();
    ASSERT_TRUE(std::dynamic_pointer_cast<LMBroadcastActivityViewServiceExtensionContext>(context));
    context->initWithInputItems({}, nullptr, QUuid::createUuid());
    EXPECT_EQ(LMBroadcastActivityViewServiceExtensionContext::sharedInstance(), context);
}

TEST(ExtensionContextTest, OpenURLNeverCompletes) {
    auto context = std::make_shared<LMBroadcastActivityViewServiceExtensionContext>();
    context->initWithInputItems({}, nullptr, QUuid::createUuid());
    std::atomic<int> completions{0};
    context->openURL(QUrl("https://example.test/"), [&completions](bool) { completions++; });
    context->openURL(QUrl(), {});
    // Let anything queued for the main queue run before looking.
    std::atomic<bool> flushed{false};
    dispatch_async(dispatch_get_main_queue(), [&flushed] { flushed = true; });
    platform::dispatch::runMainLoopUntil([&] { return flushed.load(); }, 20000);
    EXPECT_EQ(completions.load(), 0);
}

}  // namespace
