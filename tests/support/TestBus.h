// Test fixtures for anything that talks over D-Bus: a private bus daemon and child processes.
#pragma once

#include <sys/types.h>
#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <memory>

namespace lumaro::test {

// A dbus-daemon of its own, with no service directories, so that nothing is activated behind a
// test's back. Stopped by its process id when the object goes.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool isRunning() const { return pid_ > 0; }
    const QString& address() const { return address_; }
    // Sets DBUS_SESSION_BUS_ADDRESS for this process and the children it starts later.
    void exportToEnvironment() const;
    // Waits until `name` has (or has not) an owner on this bus.
    bool waitForName(const QString& name, bool owned, int timeoutMs) const;

private:
    QString address_;
    pid_t pid_ = -1;
};

// One private bus for the whole test binary, started on first use and exported to the environment.
PrivateBus& sharedBus();

// A program run as a child process, killed (SIGKILL) and reaped when the object goes.
class ChildProcess {
public:
    ChildProcess(QString program, QStringList arguments);
    ~ChildProcess();

    bool start();
    void kill();
    QByteArray readStandardError();

private:
    std::unique_ptr<QProcess> process_;
    QString program_;
    QStringList arguments_;
};

// LUMARO_BUILD_DIR (set by the test runner) joined with `relative`.
QString buildPath(const QString& relative);
QString sourcePath(const QString& relative);
// Every JSON object of a file written one per line (missing file: none).
QList<QJsonObject> readJsonLines(const QString& path);

}  // namespace lumaro::test
