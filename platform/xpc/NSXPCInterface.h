// Interfaces of inter-process objects: a protocol description (selectors in declaration order, with
// argument types, one-way flag and reply-block parameter types, required or optional) and the
// interface built from it. The description also names the D-Bus interface and object path under
// which the protocol travels, and each selector's D-Bus member is derived from it reversibly:
// every ':' becomes '_', and an '_' that the selector itself contains becomes "_0" (a keyword never
// begins with a digit, so the two cannot be confused).
#pragma once

#include <QString>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

// The types that arguments and reply-block parameters may have. Object types may be absent (nil);
// scalar types may not.
enum class NSXPCType : uint8_t {
    Object,      // any object (untyped id)
    String,      // NSString: QString
    Number,      // NSNumber: an integer, double or boolean QVariant
    URL,         // NSURL: QUrl
    Data,        // NSData: QByteArray
    Dictionary,  // NSDictionary: QVariantMap
    Array,       // NSArray: QVariantList
    Error,       // NSError: NSErrorPtr
    Endpoint,    // NSXPCListenerEndpoint
    SignedChar,  // BOOL / signed char: int
    Int32,
    UInt32,
    Int64,
    Double,
    Size,  // CGSize, two doubles: QSizeF
};

bool NSXPCTypeIsObject(NSXPCType type);
// The type's D-Bus signature: "av" (zero or one element) for objects, so that nil travels as nil.
const char* NSXPCTypeSignature(NSXPCType type);
const char* NSXPCTypeName(NSXPCType type);

struct NSXPCMethodDescription {
    std::string_view selector;
    std::vector<NSXPCType> arguments;  // without the reply block
    bool hasReply = false;             // the last argument is a reply block
    std::vector<NSXPCType> replyArguments;
    bool optional = false;
    bool oneway = true;  // void result; replies only through the block
};

struct NSXPCProtocolDescription {
    std::string_view name;
    std::string_view dbusInterface;
    std::string_view objectPath;
    std::vector<NSXPCMethodDescription> methods;  // in declaration order
};

namespace platform::xpc {
QString memberForSelector(std::string_view selector);
// The selector for a member, or nullopt when `member` is not one that memberForSelector makes.
std::optional<QString> selectorForMember(const QString& member);
}  // namespace platform::xpc

class NSXPCInterface {
public:
    explicit NSXPCInterface(const NSXPCProtocolDescription& protocol);
    static std::shared_ptr<NSXPCInterface> interfaceWithProtocol(
        const NSXPCProtocolDescription& protocol);

    const NSXPCProtocolDescription& protocol() const { return *protocol_; }
    const QString& dbusInterface() const { return dbusInterface_; }
    const QString& objectPath() const { return objectPath_; }
    const NSXPCMethodDescription* methodForSelector(std::string_view selector) const;
    const NSXPCMethodDescription* methodForMember(const QString& member) const;
    // The D-Bus member of one of this interface's methods (as methodForSelector answers them).
    const QString& memberForMethod(const NSXPCMethodDescription& method) const {
        return members_[size_t(&method - protocol_->methods.data())];
    }

    // The introspection XML of the protocol's D-Bus interface (one <interface> element).
    QString introspectionXml() const;

private:
    const NSXPCProtocolDescription* protocol_;
    // Made once: every message sent or checked names them.
    QString dbusInterface_;
    QString objectPath_;
    std::vector<QString> members_;  // in the order of the protocol's methods
};
