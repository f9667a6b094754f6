#include "tests/support/DisplayServers.h"

#include <unistd.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>

#include "platform/appkit/NSDisplaySession.h"

namespace lumaro::test {

namespace {

constexpr int kStartLimitMs = 20000;
constexpr uid_t kNobody = 65534;
// Every server's screen.
constexpr int kWidth = 1024;
constexpr int kHeight = 768;

// No animations (a screenshot would catch a window half faded in), no blanking, no panel.
constexpr const char* kWestonConfig =
    "[core]\nidle-time=0\n[shell]\nanimation=none\nclose-animation=none\nstartup-animation=none\n"
    "focus-animation=none\npanel-position=none\nbackground-color=0xff2a3f54\nlocking=false\n";

QString program(const char* name) {
    return QStandardPaths::findExecutable(QString::fromLatin1(name));
}

QByteArray contents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& text) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

}  // namespace

QString DisplayServer::makeFolder(const QString& name) {
    // A short path, for a socket's path must fit in 108 bytes; made with mode 0700.
    QTemporaryDir dir(QStringLiteral("/tmp/lumaro-%1-XXXXXX").arg(name));
    if (!dir.isValid()) {
        error_ = QStringLiteral("no private folder in /tmp");
        return {};
    }
    dir.setAutoRemove(false);
    folders_ << dir.path();
    return dir.path();
}

QString DisplayServer::launch(const QString& command, const QProcessEnvironment& extra,
                              const QString& folder, const std::function<QString()>& socket) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.insert(extra);
    QStringList arguments = command.split(QLatin1Char(' '));
    const QString program = arguments.takeFirst();
    process_ = std::make_unique<QProcess>();
    process_->setProcessEnvironment(env);
    process_->setStandardOutputFile(folder + QStringLiteral("/stdout"));
    process_->setStandardErrorFile(folder + QStringLiteral("/stderr"));
    process_->start(program, arguments);
    if (process_->waitForStarted(kStartLimitMs)) {
        const QDeadlineTimer limit(kStartLimitMs);
        while (process_->state() == QProcess::Running && !limit.hasExpired()) {
            const QString path = socket();
            if (!path.isEmpty() && platform::appkit::unixSocketAnswers(path)) {
                return path;
            }
            process_->waitForFinished(50);  // returns early only if the server gives up
        }
    }
    error_ = QStringLiteral("%1 did not come up: %2 %3")
                 .arg(program, process_->errorString(),
                      QString::fromLocal8Bit(contents(folder + QStringLiteral("/stderr"))));
    stop();
    return {};
}

void DisplayServer::stop() {
    if (process_ && process_->state() != QProcess::NotRunning) {
        process_->terminate();
        if (!process_->waitForFinished(10000)) {
            process_->kill();
            process_->waitForFinished(10000);
        }
    }
    process_.reset();
    for (const QString& folder : folders_) {
        QDir(folder).removeRecursively();
    }
    folders_.clear();
    session_.clear();
}

bool XvfbServer::available() {
    return !program("Xvfb").isEmpty();
}

bool XvfbServer::start() {
    stop();
    const QString folder = makeFolder(QStringLiteral("xvfb"));
    if (folder.isEmpty()) {
        return false;
    }
    // Xvfb takes the first free display number and writes it to its standard output.
    const QString command =
        QStringLiteral("%1 -displayfd 1 -screen 0 %2x%3x24 -nolisten tcp -fbdir %4")
            .arg(program("Xvfb"))
            .arg(kWidth)
            .arg(kHeight)
            .arg(folder);
    const QString socket = launch(command, {}, folder, [folder] {
        const QByteArray display = contents(folder + QStringLiteral("/stdout")).trimmed();
        return display.isEmpty() ? QString() : "/tmp/.X11-unix/X" + QString::fromLatin1(display);
    });
    if (socket.isEmpty()) {
        return false;
    }
    frameBuffer_ = folder + QStringLiteral("/Xvfb_screen0");
    session_.insert(QStringLiteral("DISPLAY"),
                    QLatin1Char(':') + socket.section(QLatin1Char('X'), -1));
    session_.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    return true;
}

QImage XvfbServer::screenshot(QString* error) const {
    // The frame buffer's file is an X window dump: a header, a colour map, then the screen's rows
    // of 32-bit pixels in the machine's byte order. The rows are its tail.
    constexpr qint64 kBytes = qint64(kWidth) * kHeight * 4;
    const QByteArray dump = contents(frameBuffer_);  // gone with its folder once stopped
    if (dump.size() < kBytes) {
        *error = QStringLiteral("no frame buffer in %1").arg(frameBuffer_);
        return {};
    }
    const auto* pixels = reinterpret_cast<const uchar*>(dump.constData() + dump.size() - kBytes);
    return QImage(pixels, kWidth, kHeight, QImage::Format_RGB32).copy();
}

bool WestonServer::available() {
    return !program("weston").isEmpty() && !program("weston-screenshooter").isEmpty();
}

bool WestonServer::start() {
    stop();
    const QString folder = makeFolder(QStringLiteral("weston"));
    const QString config = folder + QStringLiteral("/weston.ini");
    if (folder.isEmpty() || !writeFile(config, kWestonConfig)) {
        error_ = QStringLiteral("cannot write %1").arg(config);
        return false;
    }
    const QString socket = QStringLiteral("wayland-test");
    const QString command = QStringLiteral(
                                "%1 --backend=headless-backend.so --use-pixman --debug "
                                "--socket=%2 --config=%3 --width=%4 --height=%5")
                                .arg(program("weston"), socket, config)
                                .arg(kWidth)
                                .arg(kHeight);
    const QString path = folder + QLatin1Char('/') + socket;
    session_.insert(QStringLiteral("XDG_RUNTIME_DIR"), folder);
    if (launch(command, session_, folder, [path] { return path; }).isEmpty()) {
        return false;
    }
    session_.insert(QStringLiteral("WAYLAND_DISPLAY"), socket);
    return true;
}

QImage WestonServer::screenshot(QString* error) const {
    // The screenshooter saves wayland-screenshot-<time>.png in its working folder.
    QTemporaryDir folder;
    QProcess shooter;
    shooter.setWorkingDirectory(folder.path());
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(session_);
    shooter.setProcessEnvironment(env);
    shooter.start(program("weston-screenshooter"), {});
    const bool shot = shooter.waitForFinished(30000) && shooter.exitCode() == 0;
    const QStringList shots = QDir(folder.path()).entryList({QStringLiteral("*.png")});
    if (!shot || shots.size() != 1) {
        *error = QStringLiteral("weston-screenshooter failed: %1")
                     .arg(QString::fromLocal8Bit(shooter.readAllStandardError()));
        return {};
    }
    return QImage(QDir(folder.path()).filePath(shots.first()));
}

bool SwayServer::available() {
    return !program("sway").isEmpty() && (::geteuid() != 0 || !program("setpriv").isEmpty());
}

bool SwayServer::start() {
    stop();
    const bool root = ::geteuid() == 0;
    const QString clients = makeFolder(QStringLiteral("sway"));
    const QString own = root ? makeFolder(QStringLiteral("sway-nobody")) : clients;
    const QString config = own + QStringLiteral("/config");
    if (clients.isEmpty() || own.isEmpty() ||
        !writeFile(config, QStringLiteral("xwayland disable\noutput HEADLESS-1 resolution %1x%2\n")
                               .arg(kWidth)
                               .arg(kHeight)
                               .toUtf8()) ||
        (root && ::chown(QFile::encodeName(own).constData(), kNobody, kNobody) != 0)) {
        error_ = QStringLiteral("cannot write %1").arg(config);
        return false;
    }
    QProcessEnvironment env;
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), own);
    env.insert(QStringLiteral("WLR_BACKENDS"), QStringLiteral("headless"));
    env.insert(QStringLiteral("WLR_LIBINPUT_NO_DEVICES"), QStringLiteral("1"));
    env.insert(QStringLiteral("WLR_RENDERER"), QStringLiteral("pixman"));
    QString command = QStringLiteral("%1 -c %2").arg(program("sway"), config);
    if (root) {
        command.prepend(QStringLiteral("%1 --reuid=%2 --regid=%2 --clear-groups ")
                            .arg(program("setpriv"))
                            .arg(kNobody));
    }
    // sway names its socket itself: the first wayland-N in its folder.
    const QString socket = launch(command, env, clients, [own] {
        const QStringList sockets =
            QDir(own).entryList({QStringLiteral("wayland-*")}, QDir::System);
        return sockets.isEmpty() ? QString() : own + QLatin1Char('/') + sockets.first();
    });
    if (socket.isEmpty()) {
        return false;
    }
    session_.insert(QStringLiteral("XDG_RUNTIME_DIR"), clients);
    session_.insert(QStringLiteral("WAYLAND_DISPLAY"), socket);
    return true;
}

}  // namespace lumaro::test
