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
constexpr int kWidth = 1024;
constexpr int kHeight = 768;
constexpr uid_t kNobody = 65534;

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
    // A short path: a socket's path must fit in 108 bytes.
    QTemporaryDir dir(QStringLiteral("/tmp/lumaro-%1-XXXXXX").arg(name));
    if (!dir.isValid() || !QFile::setPermissions(
                              dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)) {
        return {};
    }
    dir.setAutoRemove(false);
    folders_ << dir.path();
    return dir.path();
}

QString DisplayServer::launch(const QString& program, const QStringList& arguments,
                              const QProcessEnvironment& extra, const QString& folder,
                              const std::function<QString()>& socket) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    for (const QString& key : extra.keys()) {
        env.insert(key, extra.value(key));
    }
    process_ = std::make_unique<QProcess>();
    process_->setProcessEnvironment(env);
    process_->setStandardOutputFile(folder + QStringLiteral("/stdout"));
    process_->setStandardErrorFile(folder + QStringLiteral("/stderr"));
    process_->start(program, arguments);
    QString path;
    if (process_->waitForStarted(kStartLimitMs)) {
        const QDeadlineTimer limit(kStartLimitMs);
        while (isRunning() && !limit.hasExpired()) {
            path = socket();
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

bool DisplayServer::isRunning() const {
    return process_ && process_->state() == QProcess::Running;
}

bool XvfbServer::available() {
    return !program("Xvfb").isEmpty();
}

bool XvfbServer::start() {
    stop();
    const QString folder = makeFolder(QStringLiteral("xvfb"));
    if (folder.isEmpty()) {
        error_ = QStringLiteral("no private folder");
        return false;
    }
    // Xvfb takes the first free display number and writes it to its standard output.
    const QString out = folder + QStringLiteral("/stdout");
    const QString socket = launch(
        program("Xvfb"),
        {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
         QStringLiteral("0"), QStringLiteral("%1x%2x24").arg(kWidth).arg(kHeight),
         QStringLiteral("-nolisten"), QStringLiteral("tcp"), QStringLiteral("-fbdir"), folder},
        {}, folder, [out] {
            const QByteArray display = contents(out).trimmed();
            return display.isEmpty() ? QString()
                                     : "/tmp/.X11-unix/X" + QString::fromLatin1(display);
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
    const QByteArray dump = isRunning() ? contents(frameBuffer_) : QByteArray();
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
    QProcessEnvironment env;
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), folder);
    if (launch(program("weston"),
               {QStringLiteral("--backend=headless-backend.so"), QStringLiteral("--use-pixman"),
                QStringLiteral("--socket=") + socket, QStringLiteral("--config=") + config,
                QStringLiteral("--width=%1").arg(kWidth),
                QStringLiteral("--height=%1").arg(kHeight), QStringLiteral("--debug")},
               env, folder, [folder, socket] { return folder + QLatin1Char('/') + socket; })
            .isEmpty()) {
        return false;
    }
    session_ = env;
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
    QStringList arguments{program("sway"), QStringLiteral("-c"), config};
    if (root) {
        arguments = QStringList{program("setpriv"), QStringLiteral("--reuid=%1").arg(kNobody),
                                QStringLiteral("--regid=%1").arg(kNobody),
                                QStringLiteral("--clear-groups")} +
                    arguments;
    }
    // sway names its socket itself: the first wayland-N in its folder.
    const QString socket = launch(arguments.takeFirst(), arguments, env, clients, [own] {
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

QString screenshotPath(const QString& name) {
    const QByteArray build = qgetenv("LUMARO_BUILD_DIR");
    const QString root = build.isEmpty() ? QDir::currentPath() : QString::fromLocal8Bit(build);
    const QString folder = QDir(root).filePath(QStringLiteral("screenshots"));
    QDir().mkpath(folder);
    return QDir(folder).filePath(name + QStringLiteral(".png"));
}

}  // namespace lumaro::test
