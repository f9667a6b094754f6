#include "tests/support/XvfbServer.h"

#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QPixmap>
#include <QProcessEnvironment>
#include <QScreen>
#include <QStandardPaths>
#include <QThread>

#include "tests/support/ServerProcess.h"

namespace lumaro::test {

namespace {

constexpr int kFirstDisplay = 90;
constexpr int kLastDisplay = 250;
constexpr int kStartLimitMs = 20000;

bool displayLooksFree(int n) {
    return !QFileInfo::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(n)) &&
           !QFileInfo::exists(QStringLiteral("/tmp/.X%1-lock").arg(n));
}

}  // namespace

XvfbServer::~XvfbServer() {
    stop();
}

bool XvfbServer::available() {
    return !QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty();
}

bool XvfbServer::start(const QString& screen) {
    stop();
    error_.clear();
    const QString xvfb = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
    if (xvfb.isEmpty()) {
        error_ = QStringLiteral("Xvfb is not installed");
        return false;
    }
    // Another server may take a number between our look and its start: then try the next.
    for (int n = kFirstDisplay; n <= kLastDisplay; ++n) {
        if (!displayLooksFree(n)) {
            continue;
        }
        auto process = std::make_unique<QProcess>();
        // Nobody reads the server's chatter; a full pipe must not stall it.
        process->setStandardOutputFile(QProcess::nullDevice());
        process->setStandardErrorFile(QProcess::nullDevice());
        process->start(
            xvfb, {QStringLiteral(":%1").arg(n), QStringLiteral("-screen"), QStringLiteral("0"),
                   screen, QStringLiteral("-nolisten"), QStringLiteral("tcp")});
        if (!process->waitForStarted(kStartLimitMs)) {
            error_ = QStringLiteral("Xvfb did not start: %1").arg(process->errorString());
            return false;
        }
        const QString socket = QStringLiteral("/tmp/.X11-unix/X%1").arg(n);
        if (waitUntilServing(
                *process, [&socket] { return QFileInfo::exists(socket); }, kStartLimitMs)) {
            process_ = std::move(process);
            display_ = n;
            return true;
        }
        process->kill();
        process->waitForFinished(kStartLimitMs);
        error_ = QStringLiteral("Xvfb on :%1 did not come up").arg(n);
        if (displayLooksFree(n)) {
            return false;  // it failed on its own, not because another server took :N
        }
    }
    return false;
}

void XvfbServer::stop() {
    stopServer(process_);
    display_ = -1;
}

bool XvfbServer::isRunning() const {
    return process_ && process_->state() == QProcess::Running;
}

qint64 XvfbServer::pid() const {
    return process_ ? process_->processId() : 0;
}

XvfbServer::Result XvfbServer::run(const QString& program, const QStringList& arguments,
                                   int limitMs) const {
    Result result;
    if (!isRunning()) {
        result.standardError = "no X server running";
        return result;
    }
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DISPLAY"), display());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
#ifdef LUMARO_XVFB_LSAN_SUPPRESSIONS
    // In sanitizer builds: leaks of the libraries under Qt's X11 platform are not ours.
    if (!env.contains(QStringLiteral("LSAN_OPTIONS"))) {
        env.insert(QStringLiteral("LSAN_OPTIONS"),
                   QStringLiteral("suppressions=" LUMARO_XVFB_LSAN_SUPPRESSIONS));
    }
#endif
    child.setProcessEnvironment(env);
    child.start(program, arguments);
    if (!child.waitForStarted(limitMs)) {
        result.standardError = child.errorString().toLocal8Bit();
        return result;
    }
    if (!child.waitForFinished(limitMs)) {
        child.kill();
        child.waitForFinished(limitMs);
    } else {
        result.finished = child.exitStatus() == QProcess::NormalExit;
        result.exitCode = child.exitCode();
    }
    result.standardOutput = child.readAllStandardOutput();
    result.standardError = child.readAllStandardError();
    return result;
}

QString screenshotPath(const QString& name) {
    const QByteArray build = qgetenv("LUMARO_BUILD_DIR");
    const QString root = build.isEmpty() ? QDir::currentPath() : QString::fromLocal8Bit(build);
    const QString folder = QDir(root).filePath(QStringLiteral("screenshots"));
    QDir().mkpath(folder);
    return QDir(folder).filePath(name + QStringLiteral(".png"));
}

bool grabScreenToPng(const QString& path, QString* error) {
    QScreen* screen = QGuiApplication::primaryScreen();
    if (screen == nullptr) {
        if (error != nullptr) {
            *error = QStringLiteral("no screen");
        }
        return false;
    }
    const QPixmap shot = screen->grabWindow(0);
    if (shot.isNull() || !shot.save(path, "PNG")) {
        if (error != nullptr) {
            *error = QStringLiteral("cannot grab the screen to %1").arg(path);
        }
        return false;
    }
    return true;
}

}  // namespace lumaro::test
