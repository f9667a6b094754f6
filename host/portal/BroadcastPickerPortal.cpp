#include "BroadcastPickerPortal.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>
#include <QImageReader>
#include <QPointer>
#include <QRegularExpression>
#include <QTimer>
#include <cstdio>

#include "host/SetupRequestAccess.h"

namespace {

const QString kName = QStringLiteral("com.vantor.lumaro.BroadcastPicker");
const QString kPath = QStringLiteral("/com/vantor/lumaro/BroadcastPicker");
const QString kInterface = QStringLiteral("com.vantor.lumaro.BroadcastPicker");
const QString kRequestInterface = QStringLiteral("com.vantor.lumaro.Request");
const QString kRequestPrefix = kPath + QStringLiteral("/request/");
const QString kInvalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");

using Options = LMBroadcastHostRequestOptions;

// The options that go into the host request as they are, each to its field; what a caller leaves
// out keeps the host request's default.
const std::map<QString, QString Options::*>& textOptions() {
    static const std::map<QString, QString Options::*> fields{
        {QStringLiteral("app-name"), &Options::appName},
        {QStringLiteral("bundle-id"), &Options::bundleID},
        {QStringLiteral("preferred-extension"), &Options::preferredExtension},
        {QStringLiteral("title"), &Options::localizedBroadcastTitle},
        {QStringLiteral("no-service"), &Options::localizedNoService},
        {QStringLiteral("find-apps"), &Options::localizedFindBroadcastApps},
        {QStringLiteral("not-installed-title"), &Options::notInstalledTitle},
        {QStringLiteral("not-installed-message"), &Options::notInstalledMessage},
    };
    return fields;
}
const std::map<QString, double Options::*>& numberOptions() {
    static const std::map<QString, double Options::*> fields{
        {QStringLiteral("x"), &Options::sourceX},
        {QStringLiteral("y"), &Options::sourceY},
        {QStringLiteral("width"), &Options::width},
        {QStringLiteral("height"), &Options::height},
    };
    return fields;
}

// The D-Bus signature an option must have; none for an unknown option (ignored).
const char* signatureOf(const QString& option) {
    if (textOptions().count(option) != 0 || option == QLatin1String("handle_token")) {
        return "s";
    }
    if (numberOptions().count(option) != 0) {
        return "d";
    }
    return option == QLatin1String("icon") ? "ay" : nullptr;
}

// Whether a value of the type QtDBus hands over for `signature`.
bool hasSignature(const QVariant& value, const char* signature) {
    switch (value.typeId()) {
    case QMetaType::QString:
        return qstrcmp(signature, "s") == 0;
    case QMetaType::Double:
        return qstrcmp(signature, "d") == 0;
    case QMetaType::QByteArray:
        return qstrcmp(signature, "ay") == 0;
    default:
        return false;
    }
}

}  // namespace

// Receives every message for the front door's paths. QtDBus may call it on its own thread, so
// it only answers introspection itself and hands everything else to the main thread.
class PortalObject final : public QDBusVirtualObject {
public:
    explicit PortalObject(BroadcastPickerPortal* portal) : portal_(portal) {}

    QString introspect(const QString& path) const override {
        return QString::fromLatin1(BroadcastPickerPortal::introspection(path != kPath));
    }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection&) override {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [portal = portal_, message] { portal->handle(message); }, Qt::QueuedConnection);
        return true;
    }

private:
    BroadcastPickerPortal* portal_;
};

struct BroadcastPickerPortal::Request {
    QString owner;
    std::unique_ptr<lumaro::broadcast::SetupRequest> setup;
};

BroadcastPickerPortal::BroadcastPickerPortal(QDBusConnection bus, Settings settings)
    : bus_(std::move(bus)),
      settings_(settings),
      object_(std::make_unique<PortalObject>(this)),
      callers_(std::make_unique<QDBusServiceWatcher>()),
      idle_(std::make_unique<QTimer>()) {
    callers_->setConnection(bus_);
    callers_->setWatchMode(QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(callers_.get(), &QDBusServiceWatcher::serviceUnregistered,
                     [this](const QString& caller) { forgetCaller(caller); });
    idle_->setSingleShot(true);
    QObject::connect(idle_.get(), &QTimer::timeout, [this] {
        if (requests_.empty()) {
            std::fprintf(stderr, "lumaro-broadcast-portal: idle, exiting\n");
            QCoreApplication::quit();
        }
    });
}

BroadcastPickerPortal::~BroadcastPickerPortal() {
    bus_.unregisterService(kName);
    bus_.unregisterObject(kPath, QDBusConnection::UnregisterTree);
    requests_.clear();
}

bool BroadcastPickerPortal::start(QString* error) {
    if (!bus_.isConnected()) {
        *error = QStringLiteral("no session bus: %1").arg(bus_.lastError().message());
        return false;
    }
    if (!bus_.registerVirtualObject(kPath, object_.get(), QDBusConnection::SubPath)) {
        *error = QStringLiteral("cannot register %1: %2").arg(kPath, bus_.lastError().message());
        return false;
    }
    if (!bus_.registerService(kName)) {
        *error = QStringLiteral("cannot own %1: %2").arg(kName, bus_.lastError().message());
        return false;
    }
    armIdleTimer();
    return true;
}

void BroadcastPickerPortal::handle(const QDBusMessage& message) {
    if (message.type() != QDBusMessage::MethodCallMessage) {
        return;
    }
    const QString& member = message.member();
    if (message.path() == kPath && member == QLatin1String("SetupBroadcast") &&
        (message.interface().isEmpty() || message.interface() == kInterface)) {
        setupBroadcast(message);
    } else if (message.path().startsWith(kRequestPrefix) && member == QLatin1String("Close") &&
               (message.interface().isEmpty() || message.interface() == kRequestInterface)) {
        close(message);
    } else if (message.interface() == QLatin1String("org.freedesktop.DBus.Introspectable")) {
        bus_.send(message.createReply(QString::fromLatin1(introspection(message.path() != kPath))));
    } else {
        bus_.send(message.createErrorReply(
            QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"),
            QStringLiteral("no method %1.%2 at %3")
                .arg(message.interface(), member, message.path())));
    }
}

void BroadcastPickerPortal::setupBroadcast(const QDBusMessage& message) {
    const auto refuse = [&](const QString& name, const QString& text) {
        bus_.send(message.createErrorReply(name, text));
    };
    if (message.signature() != QLatin1String("sa{sv}")) {
        refuse(kInvalidArgs, QStringLiteral("SetupBroadcast takes (sa{sv}), not (%1)")
                                 .arg(message.signature()));
        return;
    }
    QVariantMap options;
    message.arguments().at(1).value<QDBusArgument>() >> options;
    for (auto it = options.cbegin(); it != options.cend(); ++it) {
        const char* signature = signatureOf(it.key());
        if (signature != nullptr && !hasSignature(it.value(), signature)) {
            refuse(kInvalidArgs, QStringLiteral("option %1 must be of type %2")
                                     .arg(it.key(), QLatin1String(signature)));
            return;
        }
    }
    QString token = options.value(QStringLiteral("handle_token")).toString();
    static const QRegularExpression pathElement(QStringLiteral("^[A-Za-z0-9_]+$"));
    if (options.contains(QStringLiteral("handle_token")) && !pathElement.match(token).hasMatch()) {
        refuse(kInvalidArgs,
               QStringLiteral("option handle_token must be letters, digits and '_', not \"%1\"")
                   .arg(token));
        return;
    }
    const QByteArray icon = options.value(QStringLiteral("icon")).toByteArray();
    if (options.contains(QStringLiteral("icon"))) {
        QBuffer buffer;
        buffer.setData(icon);
        if (!QImageReader(&buffer).canRead()) {
            refuse(kInvalidArgs, QStringLiteral("option icon is not image data"));
            return;
        }
    }
    const QString caller = message.service();
    QString sender = caller.mid(caller.startsWith(QLatin1Char(':')) ? 1 : 0);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    if (token.isEmpty()) {
        do {
            token = QStringLiteral("lumaro%1").arg(++madeUpTokens_);
        } while (requests_.count(kRequestPrefix + sender + QLatin1Char('/') + token) != 0);
    }
    const QString path = kRequestPrefix + sender + QLatin1Char('/') + token;
    if (requests_.count(path) != 0) {
        refuse(kInvalidArgs, QStringLiteral("a request with handle_token %1 is already open").arg(token));
        return;
    }

    auto setup = std::make_unique<lumaro::broadcast::SetupRequest>();
    Options& asked = lumaro::broadcast::SetupRequestAccess::options(*setup);
    for (auto it = options.cbegin(); it != options.cend(); ++it) {
        if (const auto text = textOptions().find(it.key()); text != textOptions().end()) {
            asked.*(text->second) = it.value().toString();
        } else if (const auto number = numberOptions().find(it.key());
                   number != numberOptions().end()) {
            asked.*(number->second) = it.value().toDouble();
        }
    }
    asked.iconData = icon;
    setup->setTimeLimit(settings_.requestTimeLimitSeconds);

    // The handle goes out before anything can be reported on it.
    bus_.send(message.createReply(QVariant::fromValue(QDBusObjectPath(path))));
    auto& request = requests_[path];
    request = std::make_unique<Request>();
    request->owner = caller;
    request->setup = std::move(setup);
    watchCaller(caller);
    idle_->stop();
    std::string error;
    const bool started = request->setup->start(
        [this, path](const lumaro::broadcast::SetupResult& result) {
            QVariantMap results;
            if (!result.finished) {
                std::fprintf(stderr, "lumaro-broadcast-portal: %s: no outcome: %s\n",
                             qPrintable(path), result.failure.c_str());
                finish(path, 2, results);
                return;
            }
            results.insert(QStringLiteral("cancelled"), result.cancelled);
            const auto put = [&results](const char* key, const std::string& value) {
                if (!value.empty()) {
                    results.insert(QString::fromLatin1(key), QString::fromStdString(value));
                }
            };
            put("broadcast-url", result.broadcastURL);
            put("extension-bundle-id", result.extensionBundleID);
            put("launch-url", result.launchURL);
            finish(path, result.cancelled ? 1 : 0, results);
        },
        &error);
    if (!started) {
        std::fprintf(stderr, "lumaro-broadcast-portal: %s: %s\n", qPrintable(path), error.c_str());
        finish(path, 2, {});
    }
}

void BroadcastPickerPortal::close(const QDBusMessage& message) {
    const auto it = requests_.find(message.path());
    if (it == requests_.end()) {
        bus_.send(message.createErrorReply(
            QStringLiteral("org.freedesktop.DBus.Error.UnknownObject"),
            QStringLiteral("no open request at %1").arg(message.path())));
        return;
    }
    if (it->second->owner != message.service()) {
        bus_.send(message.createErrorReply(
            QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
            QStringLiteral("the request at %1 belongs to another caller").arg(message.path())));
        return;
    }
    it->second->setup->cancel();
    bus_.send(message.createReply());
    finish(message.path(), 2, {});
}

void BroadcastPickerPortal::finish(const QString& path, uint response, const QVariantMap& results) {
    const auto it = requests_.find(path);
    if (it == requests_.end()) {
        return;
    }
    QDBusMessage signal = QDBusMessage::createTargetedSignal(
        it->second->owner, path, kRequestInterface, QStringLiteral("Response"));
    signal << response << results;
    bus_.send(signal);
    // The request object may be inside its own completion here: let it go on the next turn.
    std::unique_ptr<Request> ended = std::move(it->second);
    requests_.erase(it);
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [ended = std::shared_ptr<Request>(std::move(ended))] {},
        Qt::QueuedConnection);
    armIdleTimer();
}

void BroadcastPickerPortal::watchCaller(const QString& caller) {
    if (callers_->watchedServices().contains(caller)) {
        return;
    }
    callers_->addWatchedService(caller);
    // The caller may have left before the watch was in place: ask the bus once, after it.
    auto* pending = new QDBusPendingCallWatcher(bus_.asyncCall(QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner")) << caller),
        callers_.get());
    QObject::connect(pending, &QDBusPendingCallWatcher::finished,
                     [this, caller](QDBusPendingCallWatcher* call) {
                         const QDBusPendingReply<bool> reply = *call;
                         call->deleteLater();
                         if (reply.isValid() && !reply.value()) {
                             forgetCaller(caller);
                         }
                     });
}

void BroadcastPickerPortal::forgetCaller(const QString& caller) {
    callers_->removeWatchedService(caller);
    for (auto it = requests_.begin(); it != requests_.end();) {
        if (it->second->owner == caller) {
            std::fprintf(stderr, "lumaro-broadcast-portal: %s: the caller left the bus\n",
                         qPrintable(it->first));
            it->second->setup->cancel();
            it = requests_.erase(it);
        } else {
            ++it;
        }
    }
    armIdleTimer();
}

void BroadcastPickerPortal::armIdleTimer() {
    if (requests_.empty() && settings_.idleExitSeconds > 0) {
        idle_->start(settings_.idleExitSeconds * 1000);
    }
}

const char* BroadcastPickerPortal::introspection(bool requestObject) {
    if (requestObject) {
        return R"(  <interface name="com.vantor.lumaro.Request">
    <method name="Close"/>
    <signal name="Response">
      <arg type="u" name="response"/>
      <arg type="a{sv}" name="results"/>
    </signal>
  </interface>
)";
    }
    return R"(  <interface name="com.vantor.lumaro.BroadcastPicker">
    <method name="SetupBroadcast">
      <arg type="s" name="parent_window" direction="in"/>
      <arg type="a{sv}" name="options" direction="in"/>
      <arg type="o" name="handle" direction="out"/>
    </method>
  </interface>
)";
}
