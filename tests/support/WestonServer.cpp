#include "tests/support/WestonServer.h"

#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>

#include "platform/appkit/NSDisplaySession.h"
#include "tests/support/ServerProcess.h"

namespace lumaro::test {

namespace {

constexpr int kStartLimitMs = 20000;

// No animations (a screenshot would catch a window half faded in), no blanking, no panel.
constexpr const char* kWestonConfig =
    "[core]\nidle-time=0\n[shell]\nanimation=none\nclose-animation=none\nstartup-animation=none\n"
    "focus-animation=none\npanel-position=none\nbackground-color=0xff2a3f54\nlocking=false\n";

}  // namespace

WaylandServer::~WaylandServer() {
    stop();
}

QString WaylandServer::makeFolder(const QString& name) {
    // A short path: a socket's path must fit in 108 bytes.
    QTemporaryDir dir(QStringLiteral("/tmp/lumaro-%1-XXXXXX").arg(name));
    if (!dir.isValid() || !QFile::setPermissions(
                              dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)) {
        error_ = QStringLiteral("no private folder: %1").arg(dir.errorString());
        return {};
    }
    dir.setAutoRemove(false);
    folders_ << dir.path();
    return dir.path();
}

bool WaylandServer::writeFile(const QString& path, const QByteArray& text) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) < 0) {
        error_ = QStringLiteral("cannot write %1").arg(path);
        return false;
    }
    return true;
}

QProcessEnvironment WaylandServer::compositorEnvironment() {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.remove(QStringLiteral("DISPLAY"));
    return env;
}

QString WaylandServer::socketPath() const {
    return socket_.startsWith(QLatin1Char('/')) ? socket_
                                                : runtimeDir_ + QLatin1Char('/') + socket_;
}

bool WaylandServer::launch(const QString& program, const QStringList& arguments,
                           QProcessEnvironment environment, const QString& log,
                           const std::function<QString()>& socket) {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(environment);
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(log);
    process->start(program, arguments);
    if (!process->waitForStarted(kStartLimitMs)) {
        error_ = QStringLiteral("%1 did not start: %2").arg(program, process->errorString());
        stop();
        return false;
    }
    const bool serving = waitUntilServing(
        *process,
        [&] {
            socket_ = socket();
            return !socket_.isEmpty() && platform::appkit::unixSocketAnswers(socketPath());
        },
        kStartLimitMs);
    process_ = std::move(process);
    if (!serving) {
        QFile file(log);
        file.open(QIODevice::ReadOnly);
        error_ = QStringLiteral("%1 did not come up: %2")
                     .arg(program, QString::fromLocal8Bit(file.readAll()));
        stop();
        return false;
    }
    return true;
}

void WaylandServer::stop() {
    stopServer(process_);
    for (const QString& folder : folders_) {
        QDir(folder).removeRecursively();
    }
    folders_.clear();
    runtimeDir_.clear();
}

bool WaylandServer::isRunning() const {
    return process_ && process_->state() == QProcess::Running;
}

QProcessEnvironment WaylandServer::environment(QProcessEnvironment base) const {
    base.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeDir_);
    base.insert(QStringLiteral("WAYLAND_DISPLAY"), socket_);
    base.remove(QStringLiteral("DISPLAY"));
    base.remove(QStringLiteral("QT_QPA_PLATFORM"));
    base.remove(QStringLiteral("XDG_SESSION_TYPE"));
    return base;
}

bool WestonServer::available() {
    return !QStandardPaths::findExecutable(QStringLiteral("weston")).isEmpty() &&
           !QStandardPaths::findExecutable(QStringLiteral("weston-screenshooter")).isEmpty();
}

bool WestonServer::start(int width, int height) {
    stop();
    error_.clear();
    const QString weston = QStandardPaths::findExecutable(QStringLiteral("weston"));
    if (weston.isEmpty()) {
        error_ = QStringLiteral("weston is not installed");
        return false;
    }
    runtimeDir_ = makeFolder(QStringLiteral("weston"));
    const QString config = runtimeDir_ + QStringLiteral("/weston.ini");
    if (runtimeDir_.isEmpty() || !writeFile(config, kWestonConfig)) {
        stop();
        return false;
    }
    const QString socket = QStringLiteral("lumaro-test-%1").arg(::getpid());
    QProcessEnvironment env = compositorEnvironment();
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeDir_);
    return launch(weston,
                  {QStringLiteral("--backend=headless-backend.so"), QStringLiteral("--use-pixman"),
                   QStringLiteral("--debug"), QStringLiteral("--socket=") + socket,
                   QStringLiteral("--config=") + config, QStringLiteral("--width=%1").arg(width),
                   QStringLiteral("--height=%1").arg(height)},
                  env, runtimeDir_ + QStringLiteral("/weston.log"), [socket] { return socket; });
}

bool WestonServer::screenshot(const QString& path, QString* error) const {
    const auto fail = [error](const QString& why) {
        if (error != nullptr) {
            *error = why;
        }
        return false;
    };
    if (!isRunning()) {
        return fail(QStringLiteral("weston is not running"));
    }
    // The screenshooter saves wayland-screenshot-<time>.png in its working folder.
    QTemporaryDir folder;
    QProcess shooter;
    shooter.setWorkingDirectory(folder.path());
    shooter.setProcessEnvironment(environment());
    shooter.start(QStandardPaths::findExecutable(QStringLiteral("weston-screenshooter")), {});
    if (!shooter.waitForFinished(30000) || shooter.exitCode() != 0) {
        return fail(QStringLiteral("weston-screenshooter failed: %1")
                        .arg(QString::fromLocal8Bit(shooter.readAllStandardError())));
    }
    const QStringList shots = QDir(folder.path()).entryList({QStringLiteral("*.png")});
    if (shots.size() != 1) {
        return fail(QStringLiteral("weston-screenshooter saved %1 files").arg(shots.size()));
    }
    QFile::remove(path);
    if (!QFile::copy(QDir(folder.path()).filePath(shots.first()), path)) {
        return fail(QStringLiteral("cannot save the screenshot to %1").arg(path));
    }
    return true;
}

}  // namespace lumaro::test
