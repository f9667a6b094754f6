// The process-wide scene of a daemon-client test binary: a fresh home folder (with the daemon's
// support folder, which the sandbox lets a client write), a private bus exported to the
// environment, and optionally the reference daemon as a child, all set up before the shared
// LMDaemonProxy is first used.
#pragma once

#include <QString>
#include <QStringList>
#include <memory>

#include "tests/support/TempDir.h"
#include "tests/support/TestBus.h"

namespace lumaro::test {

class DaemonEnvironment {
public:
    // `daemonArguments` null: no daemon on the bus.
    explicit DaemonEnvironment(const QStringList* daemonArguments);

    const QString& recordPath() const { return record_; }
    ChildProcess* daemon() { return daemon_.get(); }
    // Restarts the reference daemon with the same arguments.
    bool startDaemon();
    // Waits until the record holds `count` lines with this selector; answers the last one.
    QJsonObject waitForRecord(const QString& selector, int count, int timeoutMs = 10000);
    // How many lines the record holds with this selector; `last` takes the last of them.
    int recordCount(const QString& selector, QJsonObject* last = nullptr);

private:
    TempDir home_;
    QString record_;
    QStringList arguments_;
    std::unique_ptr<PrivateBus> bus_;
    std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace lumaro::test
