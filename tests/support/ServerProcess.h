// What the tests' private display servers (Xvfb, weston) share: waiting for a server to come up
// while it still runs, and stopping it by its process id.
#pragma once

#include <QDeadlineTimer>
#include <QProcess>
#include <memory>

namespace lumaro::test {

// Waits up to `limitMs` for `up()` while `process` runs; true once it is up and still running.
template <class Up>
bool waitUntilServing(QProcess& process, Up up, int limitMs) {
    QDeadlineTimer limit(limitMs);
    while (!up() && process.state() == QProcess::Running && !limit.hasExpired()) {
        process.waitForFinished(50);  // returns early only if the server gives up
    }
    return up() && process.state() == QProcess::Running;
}

// Terminates the server by its process id (SIGTERM, then SIGKILL), waits for it and lets it go;
// harmless when there is none.
inline void stopServer(std::unique_ptr<QProcess>& process) {
    if (process && process->state() != QProcess::NotRunning) {
        process->terminate();
        if (!process->waitForFinished(10000)) {
            process->kill();
            process->waitForFinished(10000);
        }
    }
    process.reset();
}

}  // namespace lumaro::test
