// The picker's D-Bus front door: any application, in any language, asks for a broadcast set-up
// with one call and receives the outcome as one signal.
//
//   com.vantor.lumaro.BroadcastPicker at /com/vantor/lumaro/BroadcastPicker:
//     SetupBroadcast(s parent_window, a{sv} options) -> (o handle)
//   com.vantor.lumaro.Request at the returned handle,
//   /com/vantor/lumaro/BroadcastPicker/request/SENDER/TOKEN:
//     Close(); signal Response(u response, a{sv} results), sent once to the caller
//
// SENDER is the caller's unique name without its ':' and with '.' as '_'; TOKEN is the
// handle_token option or one made up here, so that a caller can subscribe before it calls.
// Response 0: an outcome that is not cancelled; 1: a cancelled outcome; 2: no outcome (the
// picker or setup UI ended, Close, the time limit). Every request runs its own picker
// process. A caller that leaves the bus ends its requests; the service quits when it has been
// idle for a while.
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QString>
#include <QVariantMap>
#include <map>
#include <memory>

namespace lumaro::broadcast {
class SetupRequest;
}
class QDBusServiceWatcher;
class QTimer;

class BroadcastPickerPortal {
public:
    struct Settings {
        int requestTimeLimitSeconds = 900;
        int idleExitSeconds = 30;
    };

    BroadcastPickerPortal(QDBusConnection bus, Settings settings);
    ~BroadcastPickerPortal();

    // Registers the object and takes the bus name; false with `error` when either fails.
    bool start(QString* error);

    // One message for the front door's objects, on the main thread.
    void handle(const QDBusMessage& message);

    static const char* introspection(bool requestObject);

private:
    struct Request;

    void setupBroadcast(const QDBusMessage& message);
    void close(const QDBusMessage& message);
    void finish(const QString& path, uint response, const QVariantMap& results);
    void watchCaller(const QString& caller);
    void forgetCaller(const QString& caller);
    void armIdleTimer();

    QDBusConnection bus_;
    Settings settings_;
    std::unique_ptr<class PortalObject> object_;
    std::unique_ptr<QDBusServiceWatcher> callers_;
    std::unique_ptr<QTimer> idle_;
    std::map<QString, std::unique_ptr<Request>> requests_;  // by handle path
    unsigned madeUpTokens_ = 0;
};
