// Contexts in one process: initialisation, the end of a request, classes by name. (The vendor
// that finds a request's context: the picker's loadView tests.)
#include <gtest/gtest.h>

#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionContext.h"

namespace {

const NSXPCProtocolDescription kHostProtocol{
    "TestHostProtocol", "org.test.Host", "/org/test/Host", {}};

NSExtensionItemPtr titled(const QString& title) {
    auto item = std::make_shared<NSExtensionItem>();
    item->setAttributedTitle(title);
    return item;
}

}  // namespace

TEST(ExtensionContext, InitialisesOnlyInsideASharedPointerAndDropsNullItems) {
    NSExtensionContext onStack;
    EXPECT_EQ(onStack.initWithInputItems({}, nullptr, QUuid::createUuid()), nullptr);
    auto context = std::make_shared<NSExtensionContext>();
    ASSERT_EQ(context->initWithInputItems({titled("a"), nullptr, titled("b")}, nullptr,
                                          QUuid::createUuid()),
              context);
    ASSERT_EQ(context->inputItems().size(), 2u);
    EXPECT_EQ(context->inputItems()[1]->attributedTitle(), "b");
}

TEST(ExtensionContext, RequestEndsOnceThroughItsHandler) {
    auto context = std::make_shared<NSExtensionContext>();
    context->initWithInputItems({}, nullptr, QUuid::createUuid());

    int ends = 0;
    std::vector<NSExtensionItemPtr> returned;
    NSErrorPtr error;
    context->_setRequestEndHandler([&](std::vector<NSExtensionItemPtr> items, NSErrorPtr e) {
        ++ends;
        returned = std::move(items);
        error = std::move(e);
        return true;
    });
    std::vector<bool> answers;
    context->completeRequestReturningItems({titled("x"), nullptr},
                                           [&](bool ok) { answers.push_back(ok); });
    context->completeRequestReturningItems({titled("y")}, [&](bool ok) { answers.push_back(ok); });
    context->cancelRequestWithError(nullptr);
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil([&] { return answers.size() == 2; }, 5000));
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(answers, (std::vector<bool>{true, false}));
    ASSERT_EQ(returned.size(), 1u);
    EXPECT_EQ(returned[0]->attributedTitle(), "x");
    EXPECT_EQ(error, nullptr);
    EXPECT_TRUE(context->_isRequestEnded());

    // Without a host, completing reports that nothing was handed over; cancelling carries an
    // error even when the caller gave none.
    auto alone = std::make_shared<NSExtensionContext>();
    bool answered = false, handed = true;
    alone->completeRequestReturningItems({}, [&](bool ok) { answered = true, handed = ok; });
    ASSERT_TRUE(platform::dispatch::runMainLoopUntil([&] { return answered; }, 5000));
    EXPECT_FALSE(handed);

    auto cancelled = std::make_shared<NSExtensionContext>();
    NSErrorPtr got;
    cancelled->_setRequestEndHandler([&](auto, NSErrorPtr e) {
        got = e;
        return true;
    });
    cancelled->cancelRequestWithError(nullptr);
    ASSERT_NE(got, nullptr);
}

TEST(ExtensionContext, ClassesByName) {
    ASSERT_NE(NSExtensionLookupContextClass("NSExtensionContext"), nullptr);
    EXPECT_EQ(NSExtensionLookupContextClass("NoSuchContext"), nullptr);

    NSExtensionRegisterContextClass(
        "RecordingContext", {[] { return std::make_shared<NSExtensionContext>(); }, nullptr,
                             [] {
                                 return NSXPCInterface::interfaceWithProtocol(kHostProtocol);
                             }});
    const NSExtensionContextClass* cls = NSExtensionLookupContextClass("RecordingContext");
    ASSERT_NE(cls, nullptr);
    EXPECT_FALSE(cls->_extensionAuxiliaryVendorProtocol);
    EXPECT_TRUE(cls->_extensionAuxiliaryHostProtocol);
    // Registering again replaces the class in place.
    NSExtensionRegisterContextClass("RecordingContext", {[] {
                                        return std::make_shared<NSExtensionContext>();
                                    }});
    EXPECT_EQ(NSExtensionLookupContextClass("RecordingContext"), cls);
    EXPECT_FALSE(cls->_extensionAuxiliaryHostProtocol);
}
