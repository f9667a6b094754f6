#include "service/LMBroadcastActivityViewServiceProtocols.h"

#include "platform/dispatch/dispatch.h"

namespace {

struct HostMethod {
    std::string_view selector;
    const char* typeEncoding;
};

// The host's methods in declaration order, with their type encodings.
constexpr HostMethod kHostMethods[] = {
    {kLMPresentBroadcastActivitySheetSelector, "Vv16@0:8"},
    {kLMExtensionDidFinishSelector, "Vv44@0:8@\"NSURL\"16@\"NSURL\"24@\"NSString\"32c40"},
};

NSXPCMethodDescription oneWayOptional(std::string_view selector, std::vector<NSXPCType> args) {
    return {selector, std::move(args), false, {}, /*optional=*/true, /*oneway=*/true};
}

}  // namespace

const NSXPCProtocolDescription& LMBroadcastActivityViewServiceHostProtocol() {
    static const NSXPCProtocolDescription protocol{
        "LMBroadcastActivityViewServiceHostProtocol",
        "com.vantor.lumaro.BroadcastActivityViewServiceHost",
        "/com/vantor/lumaro/BroadcastActivityViewService",
        {
            oneWayOptional(kLMPresentBroadcastActivitySheetSelector, {}),
            oneWayOptional(
                kLMExtensionDidFinishSelector,
                {NSXPCType::URL, NSXPCType::URL, NSXPCType::String, NSXPCType::SignedChar}),
        },
    };
    return protocol;
}

const NSXPCProtocolDescription& LMBroadcastActivityViewServiceExtensionProtocol() {
    static const NSXPCProtocolDescription protocol{
        "LMBroadcastActivityViewServiceExtensionProtocol",
        "com.vantor.lumaro.BroadcastActivityViewServiceExtension",
        "/com/vantor/lumaro/BroadcastActivityViewService",
        {},
    };
    return protocol;
}

const char* LMBroadcastActivityViewServiceHostMethodTypeEncoding(std::string_view selector) {
    for (const HostMethod& method : kHostMethods) {
        if (method.selector == selector) {
            return method.typeEncoding;
        }
    }
    return nullptr;
}

namespace BroadcastActivityViewServiceExtension {

std::shared_ptr<NSXPCInterface> __LMBroadcastActivity_viewServiceHostInterface() {
    static dispatch_once_t once;
    static std::shared_ptr<NSXPCInterface> interface;
    dispatch_once(&once, [] {
        interface =
            NSXPCInterface::interfaceWithProtocol(LMBroadcastActivityViewServiceHostProtocol());
    });
    return interface;
}

std::shared_ptr<NSXPCInterface> __LMBroadcastActivity_viewServiceExtensionInterface() {
    static dispatch_once_t once;
    static std::shared_ptr<NSXPCInterface> interface;
    dispatch_once(&once, [] {
        interface = NSXPCInterface::interfaceWithProtocol(
            LMBroadcastActivityViewServiceExtensionProtocol());
    });
    return interface;
}

}  // namespace BroadcastActivityViewServiceExtension
