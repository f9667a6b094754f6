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
constexpr const char* kConfig =
    "[core]\nidle-time=0\n[shell]\nanimation=none\nclose-animation=none\nstartup-animation=none\n"
    "focus-animation=none\npanel-position=none\nbackground-color=0xff2a3f54\nlocking=false\n";

}  // namespace

WestonServer::~WestonServer() {
    stop();
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
    // A short path: a socket's path must fit in 108 bytes.
    QTemporaryDir dir(QStringLiteral("/tmp/lumaro-weston-XXXXXX"));
    if (!dir.isValid() || !QFile::setPermissions(
                              dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)) {
        error_ = QStringLiteral("no private runtime folder: %1").arg(dir.errorString());
        return false;
    }
    dir.setAutoRemove(false);
    runtimeDir_ = dir.path();
    socket_ = QStringLiteral("lumaro-test-%1").arg(::getpid());
    QFile config(runtimeDir_ + QStringLiteral("/weston.ini"));
    if (!config.open(QIODevice::WriteOnly) || config.write(kConfig) < 0) {
        error_ = QStringLiteral("cannot write %1").arg(config.fileName());
        stop();
        return false;
    }
    config.close();

    auto process = std::make_unique<QProcess>();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeDir_);
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.remove(QStringLiteral("DISPLAY"));
    process->setProcessEnvironment(env);
    process->setStandardOutputFile(QProcess::nullDevice());
    process->setStandardErrorFile(runtimeDir_ + QStringLiteral("/weston.log"));
    process->start(
        weston,
        {QStringLiteral("--backend=headless-backend.so"), QStringLiteral("--use-pixman"),
         QStringLiteral("--debug"), QStringLiteral("--socket=") + socket_,
         QStringLiteral("--config=") + config.fileName(), QStringLiteral("--width=%1").arg(width),
         QStringLiteral("--height=%1").arg(height)});
    if (!process->waitForStarted(kStartLimitMs)) {
        error_ = QStringLiteral("weston did not start: %1").arg(process->errorString());
        stop();
        return false;
    }
    const QString socket = runtimeDir_ + QLatin1Char('/') + socket_;
    const bool serving = waitUntilServing(
        *process, [&socket] { return platform::appkit::unixSocketAnswers(socket); },
        kStartLimitMs);
    process_ = std::move(process);
    if (!serving) {
        QFile log(runtimeDir_ + QStringLiteral("/weston.log"));
        log.open(QIODevice::ReadOnly);
        error_ =
            QStringLiteral("weston did not come up: %1").arg(QString::fromLocal8Bit(log.readAll()));
        stop();
        return false;
    }
    return true;
}

void WestonServer::stop() {
    stopServer(process_);
    if (!runtimeDir_.isEmpty()) {
        QDir(runtimeDir_).removeRecursively();
        runtimeDir_.clear();
    }
}

bool WestonServer::isRunning() const {
    return process_ && process_->state() == QProcess::Running;
}

QProcessEnvironment WestonServer::environment(QProcessEnvironment base) const {
    base.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeDir_);
    base.insert(QStringLiteral("WAYLAND_DISPLAY"), socket_);
    base.remove(QStringLiteral("DISPLAY"));
    base.remove(QStringLiteral("QT_QPA_PLATFORM"));
    base.remove(QStringLiteral("XDG_SESSION_TYPE"));
    return base;
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
