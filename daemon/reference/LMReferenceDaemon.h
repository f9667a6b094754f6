// A reference daemon: owns the daemon's bus name, accepts every LMDaemonProtocol request, records
// each one as a JSON line, verifies the sandbox tokens it receives, answers every reply block
// (success unless told to fail a selector with an error code), and can call a client back.
#pragma once

#include <QFile>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>

#include "platform/xpc/NSXPCConnection.h"

struct LMReferenceDaemonOptions {
    QString recordPath;                   // empty: standard output
    std::map<QString, int64_t> failures;  // selector -> error code to answer with
    QStringList callbacks;                // LMClientProtocol selectors to call after a request
};

class LMReferenceDaemon final : public NSXPCListenerDelegate,
                                public std::enable_shared_from_this<LMReferenceDaemon> {
public:
    explicit LMReferenceDaemon(LMReferenceDaemonOptions options);
    ~LMReferenceDaemon() override;

    // Opens the record and owns the bus name; false with `error` set when either fails.
    bool start(QString* error);

    bool listener(NSXPCListener* listener,
                  const std::shared_ptr<NSXPCConnection>& connection) override;

    // One request from `connection`'s peer (arguments as delivered, the reply block last).
    void handle(const std::shared_ptr<NSXPCConnection>& connection, const QString& selector,
                const QVariantList& arguments);

    // The error domain of the failures asked for with --fail.
    static QString errorDomain();
    // A value as JSON: data as base64, absent as null, errors and sizes as objects.
    static QJsonValue toJson(const QVariant& value);
    // "SELECTOR=CODE" as a failure; false when malformed.
    static bool parseFailure(const QString& text, QString* selector, int64_t* code);

private:
    void record(const QJsonObject& line);
    void callBack(const std::shared_ptr<NSXPCConnection>& connection, const QString& selector);

    LMReferenceDaemonOptions options_;
    std::unique_ptr<NSXPCListener> listener_;
    std::mutex recordMutex_;
    QFile record_;
};
