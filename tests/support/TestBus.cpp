#include "tests/support/TestBus.h"

#include <signal.h>
#include <sys/prctl.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QTemporaryFile>
#include <QThread>
#include <atomic>

namespace lumaro::test {

PrivateBus::PrivateBus() {
    QTemporaryFile config;
    if (!config.open()) {
        return;
    }
    // The limits of a desktop session bus: the built-in ones (128 pending replies per connection)
    // would fail a client's requests that a real session takes.
    config.write(
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>"
        "<auth>EXTERNAL</auth>"
        "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
        "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
        "<limit name=\"max_incoming_bytes\">1000000000</limit>"
        "<limit name=\"max_outgoing_bytes\">1000000000</limit>"
        "<limit name=\"max_message_size\">1000000000</limit>"
        "<limit name=\"max_connections_per_user\">100000</limit>"
        "<limit name=\"max_match_rules_per_connection\">50000</limit>"
        "<limit name=\"max_replies_per_connection\">50000</limit></busconfig>\n");
    config.close();

    QProcess process;
    process.start(QStringLiteral("dbus-daemon"),
                  {QStringLiteral("--config-file=") + config.fileName(), QStringLiteral("--fork"),
                   QStringLiteral("--print-address=1"), QStringLiteral("--print-pid=1")});
    if (!process.waitForFinished(10000) || process.exitCode() != 0) {
        return;
    }
    const QList<QByteArray> lines = process.readAllStandardOutput().trimmed().split('\n');
    if (lines.size() < 2) {
        return;
    }
    address_ = QString::fromUtf8(lines[0].trimmed());
    pid_ = static_cast<pid_t>(lines[1].trimmed().toLongLong());
}

PrivateBus::~PrivateBus() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
    }
}

void PrivateBus::exportToEnvironment() const {
    qputenv("DBUS_SESSION_BUS_ADDRESS", address_.toUtf8());
}

bool PrivateBus::waitForName(const QString& name, bool owned, int timeoutMs) const {
    static std::atomic<int> counter{0};
    const QString connectionName = QStringLiteral("lumaro-test-probe-%1").arg(counter++);
    bool result = false;
    {
        QDBusConnection bus = QDBusConnection::connectToBus(address_, connectionName);
        for (const QDeadlineTimer deadline(timeoutMs); bus.isConnected(); QThread::msleep(10)) {
            result = bus.interface()->isServiceRegistered(name).value() == owned;
            if (result || deadline.hasExpired()) {
                break;
            }
        }
    }
    QDBusConnection::disconnectFromBus(connectionName);
    return result;
}

PrivateBus& sharedBus() {
    static PrivateBus bus;  // stopped by its pid at exit
    [[maybe_unused]] static const bool exported = (bus.exportToEnvironment(), true);
    return bus;
}

ChildProcess::ChildProcess(QString program, QStringList arguments)
    : program_(std::move(program)), arguments_(std::move(arguments)) {}

ChildProcess::~ChildProcess() {
    kill();
}

bool ChildProcess::start() {
    process_ = std::make_unique<QProcess>();
    process_->setProcessChannelMode(QProcess::ForwardedOutputChannel);
    // It ends with the test, however the test ends: a test killed by a sanitizer report leaves
    // no child holding the runner's output pipe open.
    process_->setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    process_->start(program_, arguments_);
    return process_->waitForStarted(10000);
}

void ChildProcess::kill() {
    if (process_ && process_->state() != QProcess::NotRunning) {
        process_->kill();
        process_->waitForFinished(10000);
    }
}

QByteArray ChildProcess::readStandardError() {
    return process_ ? process_->readAllStandardError() : QByteArray();
}

QString buildPath(const QString& relative) {
    return QString::fromLocal8Bit(qgetenv("LUMARO_BUILD_DIR")) + QLatin1Char('/') + relative;
}

QString sourcePath(const QString& relative) {
    return QString::fromLocal8Bit(qgetenv("LUMARO_SOURCE_DIR")) + QLatin1Char('/') + relative;
}

QList<QJsonObject> readJsonLines(const QString& path) {
    QList<QJsonObject> objects;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return objects;
    }
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (!line.trimmed().isEmpty()) {
            objects.push_back(QJsonDocument::fromJson(line).object());
        }
    }
    return objects;
}

}  // namespace lumaro::test
