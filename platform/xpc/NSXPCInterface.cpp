#include "platform/xpc/NSXPCInterface.h"

#include <QXmlStreamWriter>

bool NSXPCTypeIsObject(NSXPCType type) {
    switch (type) {
        case NSXPCType::Object:
        case NSXPCType::String:
        case NSXPCType::Number:
        case NSXPCType::URL:
        case NSXPCType::Data:
        case NSXPCType::Dictionary:
        case NSXPCType::Array:
        case NSXPCType::Error:
        case NSXPCType::Endpoint:
            return true;
        default:
            return false;
    }
}

const char* NSXPCTypeSignature(NSXPCType type) {
    switch (type) {
        case NSXPCType::SignedChar:
            return "y";
        case NSXPCType::Int32:
            return "i";
        case NSXPCType::UInt32:
            return "u";
        case NSXPCType::Int64:
            return "x";
        case NSXPCType::Double:
            return "d";
        case NSXPCType::Size:
            return "(dd)";
        default:
            return "av";
    }
}

const char* NSXPCTypeName(NSXPCType type) {
    switch (type) {
        case NSXPCType::Object:
            return "id";
        case NSXPCType::String:
            return "NSString";
        case NSXPCType::Number:
            return "NSNumber";
        case NSXPCType::URL:
            return "NSURL";
        case NSXPCType::Data:
            return "NSData";
        case NSXPCType::Dictionary:
            return "NSDictionary";
        case NSXPCType::Array:
            return "NSArray";
        case NSXPCType::Error:
            return "NSError";
        case NSXPCType::Endpoint:
            return "NSXPCListenerEndpoint";
        case NSXPCType::SignedChar:
            return "signed char";
        case NSXPCType::Int32:
            return "int32_t";
        case NSXPCType::UInt32:
            return "uint32_t";
        case NSXPCType::Int64:
            return "int64_t";
        case NSXPCType::Double:
            return "double";
        case NSXPCType::Size:
            return "CGSize";
    }
    return "?";
}

namespace platform::xpc {

QString memberForSelector(std::string_view selector) {
    QString member;
    member.reserve(static_cast<qsizetype>(selector.size()) + 4);
    for (char c : selector) {
        if (c == ':') {
            member += QLatin1Char('_');
        } else if (c == '_') {
            member += QLatin1String("_0");
        } else {
            member += QLatin1Char(c);
        }
    }
    return member;
}

std::optional<QString> selectorForMember(const QString& member) {
    QString selector;
    for (qsizetype i = 0; i < member.size(); ++i) {
        const QChar c = member.at(i);
        if (c == QLatin1Char('_')) {
            if (i + 1 < member.size() && member.at(i + 1) == QLatin1Char('0')) {
                selector += QLatin1Char('_');
                ++i;
            } else {
                selector += QLatin1Char(':');
            }
        } else if (c.isLetterOrNumber() && c.unicode() < 128) {
            selector += c;
        } else {
            return std::nullopt;
        }
    }
    if (selector.isEmpty() || memberForSelector(selector.toStdString()) != member) {
        return std::nullopt;
    }
    return selector;
}

}  // namespace platform::xpc

NSXPCInterface::NSXPCInterface(const NSXPCProtocolDescription& protocol)
    : protocol_(&protocol),
      dbusInterface_(QString::fromUtf8(protocol.dbusInterface.data(),
                                       static_cast<qsizetype>(protocol.dbusInterface.size()))),
      objectPath_(QString::fromUtf8(protocol.objectPath.data(),
                                    static_cast<qsizetype>(protocol.objectPath.size()))) {
    members_.reserve(protocol.methods.size());
    for (const auto& method : protocol.methods) {
        members_.push_back(platform::xpc::memberForSelector(method.selector));
    }
}

std::shared_ptr<NSXPCInterface> NSXPCInterface::interfaceWithProtocol(
    const NSXPCProtocolDescription& protocol) {
    return std::make_shared<NSXPCInterface>(protocol);
}

const NSXPCMethodDescription* NSXPCInterface::methodForSelector(std::string_view selector) const {
    for (const auto& method : protocol_->methods) {
        if (method.selector == selector) {
            return &method;
        }
    }
    return nullptr;
}

const NSXPCMethodDescription* NSXPCInterface::methodForMember(const QString& member) const {
    for (size_t i = 0; i < members_.size(); ++i) {
        if (members_[i] == member) {
            return &protocol_->methods[i];
        }
    }
    return nullptr;
}

QString NSXPCInterface::introspectionXml() const {
    QString xml;
    QXmlStreamWriter w(&xml);
    w.setAutoFormatting(true);
    w.setAutoFormattingIndent(2);
    w.writeStartElement(QStringLiteral("interface"));
    w.writeAttribute(QStringLiteral("name"), dbusInterface());
    w.writeStartElement(QStringLiteral("annotation"));
    w.writeAttribute(QStringLiteral("name"), QStringLiteral("com.vantor.xpc.Protocol"));
    w.writeAttribute(
        QStringLiteral("value"),
        QString::fromUtf8(protocol_->name.data(), static_cast<qsizetype>(protocol_->name.size())));
    w.writeEndElement();
    for (size_t m = 0; m < protocol_->methods.size(); ++m) {
        const auto& method = protocol_->methods[m];
        w.writeStartElement(QStringLiteral("method"));
        w.writeAttribute(QStringLiteral("name"), members_[m]);
        auto annotate = [&w](const QString& name, const QString& value) {
            w.writeStartElement(QStringLiteral("annotation"));
            w.writeAttribute(QStringLiteral("name"), name);
            w.writeAttribute(QStringLiteral("value"), value);
            w.writeEndElement();
        };
        annotate(QStringLiteral("com.vantor.xpc.Selector"),
                 QString::fromUtf8(method.selector.data(),
                                   static_cast<qsizetype>(method.selector.size())));
        if (method.optional) {
            annotate(QStringLiteral("com.vantor.xpc.Optional"), QStringLiteral("true"));
        }
        if (!method.hasReply) {
            annotate(QStringLiteral("com.vantor.xpc.NoReplyBlock"), QStringLiteral("true"));
        }
        int index = 0;
        auto arg = [&w, &index](NSXPCType type, const char* direction) {
            const bool in = direction[0] == 'i';
            w.writeStartElement(QStringLiteral("arg"));
            w.writeAttribute(
                QStringLiteral("name"),
                (in ? QStringLiteral("arg%1") : QStringLiteral("reply%1")).arg(index++));
            w.writeAttribute(QStringLiteral("type"), QString::fromLatin1(NSXPCTypeSignature(type)));
            w.writeAttribute(QStringLiteral("direction"), QString::fromLatin1(direction));
            w.writeStartElement(QStringLiteral("annotation"));
            w.writeAttribute(QStringLiteral("name"), QStringLiteral("com.vantor.xpc.Type"));
            w.writeAttribute(QStringLiteral("value"), QString::fromLatin1(NSXPCTypeName(type)));
            w.writeEndElement();
            w.writeEndElement();
        };
        for (NSXPCType type : method.arguments) {
            arg(type, "in");
        }
        index = 0;
        for (NSXPCType type : method.replyArguments) {
            arg(type, "out");
        }
        w.writeEndElement();
    }
    w.writeEndElement();
    return xml;
}
