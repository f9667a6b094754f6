#include "daemon/reference/LMReferenceDaemon.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSizeF>
#include <QUrl>
#include <algorithm>

#include "daemon/LMDaemonProtocol.h"
#include "platform/log/os_log.h"
#include "platform/sandbox/sandbox.h"
#include "platform/xpc/NSXPCValue.h"

namespace {

// The exported object of one client's connection.
class PeerObject final : public NSXPCInvocationTarget {
public:
    PeerObject(std::weak_ptr<LMReferenceDaemon> daemon, std::weak_ptr<NSXPCConnection> connection)
        : daemon_(std::move(daemon)), connection_(std::move(connection)) {}
    void performSelector(const QString& selector, const QVariantList& arguments) override {
        auto daemon = daemon_.lock();
        auto connection = connection_.lock();
        if (daemon && connection) {
            daemon->handle(connection, selector, arguments);
        }
    }

private:
    std::weak_ptr<LMReferenceDaemon> daemon_;
    std::weak_ptr<NSXPCConnection> connection_;
};

// Where the token sits in the requests that carry one.
int tokenIndex(const QString& selector) {
    if (selector == QLatin1String("consumeSandboxExtension:processNewConnection:")) {
        return 0;
    }
    if (selector == QLatin1String("stopInAppRecordingWithUrl:extensionToken:handler:") ||
        selector == QLatin1String("saveVideo:extensionToken:handler:")) {
        return 1;
    }
    if (selector == QLatin1String("exportClipToURL:duration:extensionToken:completionHandler:")) {
        return 2;
    }
    return -1;
}

QVariant successValue(NSXPCType type) {
    switch (type) {
        case NSXPCType::SignedChar:
            return 1;
        case NSXPCType::URL:
            return QUrl(QStringLiteral("file:///tmp/lumarod-reference/recording.mov"));
        case NSXPCType::Array:
            return QVariantList();
        case NSXPCType::Int32:
        case NSXPCType::UInt32:
        case NSXPCType::Int64:
            return 0;
        case NSXPCType::Double:
            return 0.0;
        case NSXPCType::Size:
            return QSizeF();
        default:
            return {};  // nil objects, no error
    }
}

QVariant callbackValue(NSXPCType type) {
    switch (type) {
        case NSXPCType::String:
            return QStringLiteral("reference");
        case NSXPCType::Dictionary:
            return QVariantMap{{QStringLiteral("state"), 1}};
        case NSXPCType::Error:
            return QVariant::fromValue(
                NSError::errorWithDomain(LMReferenceDaemon::errorDomain(), 1));
        case NSXPCType::Data:
            return QByteArray("timing");
        default:
            return successValue(type);
    }
}

}  // namespace

LMReferenceDaemon::LMReferenceDaemon(LMReferenceDaemonOptions options)
    : options_(std::move(options)) {}

LMReferenceDaemon::~LMReferenceDaemon() {
    listener_.reset();
}

QString LMReferenceDaemon::errorDomain() {
    return QStringLiteral("com.vantor.lumarod.reference");
}

bool LMReferenceDaemon::parseFailure(const QString& text, QString* selector, int64_t* code) {
    const qsizetype eq = text.lastIndexOf(QLatin1Char('='));
    if (eq <= 0) {
        return false;
    }
    bool ok = false;
    const qlonglong value = text.mid(eq + 1).toLongLong(&ok);
    if (!ok) {
        return false;
    }
    *selector = text.left(eq);
    *code = value;
    return true;
}

bool LMReferenceDaemon::start(QString* error) {
    if (options_.recordPath.isEmpty()) {
        if (!record_.open(stdout, QIODevice::WriteOnly | QIODevice::Unbuffered)) {
            *error = QStringLiteral("cannot write to standard output");
            return false;
        }
    } else {
        record_.setFileName(options_.recordPath);
        if (!record_.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
            *error = QStringLiteral("cannot open %1: %2")
                         .arg(options_.recordPath, record_.errorString());
            return false;
        }
    }
    listener_ = std::make_unique<NSXPCListener>(QString::fromLatin1(kLMDaemonServiceName));
    listener_->setExportedInterface(NSXPCInterface::interfaceWithProtocol(LMDaemonProtocol()));
    listener_->setDelegate(weak_from_this());
    return listener_->resume(error);
}

bool LMReferenceDaemon::listener(NSXPCListener*,
                                 const std::shared_ptr<NSXPCConnection>& connection) {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol(LMDaemonProtocol()));
    connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol(LMClientProtocol()));
    connection->setExportedObject(std::make_shared<PeerObject>(weak_from_this(), connection));
    return true;
}

QJsonValue LMReferenceDaemon::toJson(const QVariant& value) {
    if (!value.isValid()) {
        return QJsonValue::Null;
    }
    const int id = value.typeId();
    if (id == QMetaType::QByteArray) {
        return QString::fromLatin1(value.toByteArray().toBase64());
    }
    if (id == QMetaType::QUrl) {
        return value.toUrl().toString();
    }
    if (id == QMetaType::QSizeF) {
        return QJsonObject{{QStringLiteral("width"), value.toSizeF().width()},
                           {QStringLiteral("height"), value.toSizeF().height()}};
    }
    if (id == qMetaTypeId<NSErrorPtr>()) {
        const NSErrorPtr error = value.value<NSErrorPtr>();
        if (!error) {
            return QJsonValue::Null;
        }
        return QJsonObject{{QStringLiteral("domain"), error->domain()},
                           {QStringLiteral("code"), static_cast<qint64>(error->code())},
                           {QStringLiteral("userInfo"), toJson(error->userInfo())}};
    }
    if (id == qMetaTypeId<NSXPCListenerEndpoint>()) {
        return QJsonObject{
            {QStringLiteral("endpoint"), value.value<NSXPCListenerEndpoint>().address()}};
    }
    if (id == QMetaType::QVariantMap) {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            object.insert(it.key(), toJson(it.value()));
        }
        return object;
    }
    if (id == QMetaType::QVariantList) {
        QJsonArray array;
        for (const QVariant& item : value.toList()) {
            array.append(toJson(item));
        }
        return array;
    }
    if (id == qMetaTypeId<NSXPCBlock>()) {
        return QStringLiteral("<block>");
    }
    return QJsonValue::fromVariant(value);
}

void LMReferenceDaemon::record(const QJsonObject& line) {
    const QByteArray bytes = QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n';
    std::lock_guard lock(recordMutex_);
    record_.write(bytes);
}

void LMReferenceDaemon::handle(const std::shared_ptr<NSXPCConnection>& connection,
                               const QString& selector, const QVariantList& arguments) {
    auto iface = connection->exportedInterface();
    const NSXPCMethodDescription* method =
        iface ? iface->methodForSelector(selector.toStdString()) : nullptr;
    if (method == nullptr) {
        return;  // the connection only delivers the interface's own methods
    }
    QJsonArray args;
    for (qsizetype i = 0; i < qsizetype(method->arguments.size()) && i < arguments.size(); ++i) {
        args.append(toJson(arguments[i]));
    }
    QJsonObject line{{QStringLiteral("selector"), selector},
                     {QStringLiteral("args"), args},
                     {QStringLiteral("sender"), connection->serviceName()}};
    const int tokenAt = tokenIndex(selector);
    if (tokenAt >= 0) {
        const QVariant token = arguments.value(tokenAt);
        auto check = platform::sandbox::verifyToken(token.toString().toStdString());
        // A file request's token must grant writing in the folder of the file it names.
        if (check.valid && tokenAt > 0) {
            const QString path = arguments.value(0).toUrl().path();
            const QString folder = path.left(std::max<qsizetype>(path.lastIndexOf(u'/'), 1));
            if (!platform::sandbox::tokenGrants(check, APP_SANDBOX_READ_WRITE,
                                                folder.toStdString())) {
                check.valid = false;
                check.reason = "does not grant this path";
            }
        }
        line.insert(QStringLiteral("tokenValid"), check.valid);
        if (check.valid) {
            line.insert(QStringLiteral("tokenClass"), QString::fromStdString(check.extensionClass));
            line.insert(QStringLiteral("tokenPath"), QString::fromStdString(check.path));
        } else {
            line.insert(QStringLiteral("tokenReason"), QString::fromStdString(check.reason));
        }
    }
    record(line);

    if (method->hasReply && !arguments.isEmpty()) {
        const NSXPCBlock reply = arguments.last().value<NSXPCBlock>();
        QVariantList params;
        const auto failure = options_.failures.find(selector);
        for (NSXPCType type : method->replyArguments) {
            QVariant v = successValue(type);
            if (failure != options_.failures.end()) {
                if (type == NSXPCType::Error) {
                    v = QVariant::fromValue(
                        NSError::errorWithDomain(errorDomain(), failure->second));
                } else if (type == NSXPCType::SignedChar) {
                    v = 0;
                } else if (type == NSXPCType::URL) {
                    v = QVariant();
                }
            }
            params.push_back(v);
        }
        if (reply) {
            reply(params);
        }
    }
    for (const QString& callback : options_.callbacks) {
        callBack(connection, callback);
    }
}

void LMReferenceDaemon::callBack(const std::shared_ptr<NSXPCConnection>& connection,
                                 const QString& selector) {
    auto iface = connection->remoteObjectInterface();
    const std::string name = selector.toStdString();
    const NSXPCMethodDescription* method = iface ? iface->methodForSelector(name) : nullptr;
    if (method == nullptr) {
        os_log_error(OS_LOG_DEFAULT, "lumarod-reference: %s is not a client callback", name);
        return;
    }
    QVariantList args;
    for (NSXPCType type : method->arguments) {
        args.push_back(callbackValue(type));
    }
    NSXPCBlock reply;
    if (method->hasReply) {
        auto self = weak_from_this();
        reply = [self, selector, sender = connection->serviceName()](const QVariantList&) {
            if (auto daemon = self.lock()) {
                daemon->record(QJsonObject{{QStringLiteral("callbackReply"), selector},
                                           {QStringLiteral("sender"), sender}});
            }
        };
    }
    record(QJsonObject{{QStringLiteral("callback"), selector},
                       {QStringLiteral("sender"), connection->serviceName()}});
    auto self = weak_from_this();
    connection
        ->remoteObjectProxyWithErrorHandler([self, selector](const NSErrorPtr& error) {
            if (auto daemon = self.lock()) {
                daemon->record(QJsonObject{
                    {QStringLiteral("callbackError"), selector},
                    {QStringLiteral("code"), static_cast<qint64>(error ? error->code() : 0)}});
            }
        })
        ->send(name, args, reply);
}
