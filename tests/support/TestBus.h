// Test fixtures for anything that talks over D-Bus: a private bus daemon and child processes.
//
//   lumaro::test::PrivateBus bus;             // starts dbus-daemon, stops it by pid on exit
//   bus.exportToEnvironment();                // DBUS_SESSION_BUS_ADDRESS for this process
//   lumaro::test::ChildProcess daemon(lumaro::test::buildPath("programs/lumarod-reference/"
//                                     "lumarod-reference"), {"--record", file});
//   daemon.start(); bus.waitForName("com.vantor.lumarod", true, 5000);
//   auto lines = lumaro::test::readJsonLines(file);
#pragma once

#include <sys/types.h>
#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <memory>

namespace lumaro::test {

// A dbus-daemon of its own, with no service directories (unless given one), so that nothing is
// activated behind a test's back.
class PrivateBus {
public:
    explicit PrivateBus(const QString& serviceDir = {});
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool isRunning() const { return pid_ > 0; }
    const QString& address() const { return address_; }
    pid_t pid() const { return pid_; }
    // Sets DBUS_SESSION_BUS_ADDRESS for this process and the children it starts later.
    void exportToEnvironment() const;
    // Waits until `name` has (or has not) an owner on this bus.
    bool waitForName(const QString& name, bool owned, int timeoutMs) const;
    // Stops the bus daemon now (SIGTERM to its pid).
    void stop();

private:
    QString configPath_;
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
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool start();
    void kill();
    bool isRunning() const;
    qint64 pid() const;
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
