#include "tests/daemon/DaemonEnvironment.h"

#include <QDir>

#include "platform/dispatch/dispatch.h"
#include "platform/sandbox/entitlements.h"

namespace lumaro::test {

DaemonEnvironment::DaemonEnvironment(const QStringList* daemonArguments) {
    qputenv("HOME", home_.path().toUtf8());
    QDir().mkpath(home_.path() + QStringLiteral("/Library/Application Support/com.vantor.lumarod"));
    // The client runs sandboxed with the entitlements it ships with: its bundle for reading and
    // the daemon's support folder for writing.
    platform::sandbox::setEntitlementsForTesting(
        {{QString::fromLatin1(platform::sandbox::kAppSandboxEntitlement), true},
         {QString::fromLatin1(platform::sandbox::kHomeRelativeReadWriteEntitlement),
          QStringList{QStringLiteral("/Library/Application Support/com.vantor.lumarod/")}}});
    record_ = home_.file(QStringLiteral("record.jsonl"));
    bus_ = std::make_unique<PrivateBus>();
    bus_->exportToEnvironment();
    if (daemonArguments != nullptr) {
        arguments_ = QStringList{QStringLiteral("--record"), record_} + *daemonArguments;
        startDaemon();
    }
}

bool DaemonEnvironment::startDaemon() {
    daemon_ = std::make_unique<ChildProcess>(
        buildPath(QStringLiteral("programs/lumarod-reference/lumarod-reference")), arguments_);
    return daemon_->start() && bus_->waitForName(QStringLiteral("com.vantor.lumarod"), true, 10000);
}

int DaemonEnvironment::recordCount(const QString& selector, QJsonObject* last) {
    int n = 0;
    for (const QJsonObject& line : readJsonLines(record_)) {
        if (line.value(QStringLiteral("selector")).toString() == selector) {
            ++n;
            if (last != nullptr) {
                *last = line;
            }
        }
    }
    return n;
}

QJsonObject DaemonEnvironment::waitForRecord(const QString& selector, int count, int timeoutMs) {
    QJsonObject last;
    platform::dispatch::runMainLoopUntil([&] { return recordCount(selector, &last) >= count; },
                                         timeoutMs);
    return last;
}

}  // namespace lumaro::test
