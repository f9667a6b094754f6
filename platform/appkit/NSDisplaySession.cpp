#include "platform/appkit/NSDisplaySession.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QGuiApplication>
#include <cerrno>
#include <cstring>

namespace platform::appkit {

namespace {

QString env(const char* name) {
    return qEnvironmentVariable(name);
}

bool isWaylandPlatform(const QString& name) {
    return name.startsWith(QLatin1String("wayland"));
}

}  // namespace

QString waylandSocketPath() {
    const QString name = env("WAYLAND_DISPLAY");
    if (name.isEmpty() || name.startsWith(QLatin1Char('/'))) {
        return name;
    }
    const QString runtime = env("XDG_RUNTIME_DIR");
    return runtime.isEmpty() ? QString() : runtime + QLatin1Char('/') + name;
}

bool unixSocketAnswers(const QString& path, QString* why) {
    const auto fail = [why](const QString& reason) {
        if (why != nullptr) {
            *why = reason;
        }
        return false;
    };
    const QByteArray encoded = path.toLocal8Bit();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<size_t>(encoded.size()) >= sizeof(address.sun_path)) {
        return fail(QStringLiteral("the socket path is too long"));
    }
    std::memcpy(address.sun_path, encoded.constData(), static_cast<size_t>(encoded.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return fail(QString::fromLocal8Bit(strerror(errno)));
    }
    const int result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = errno;
    ::close(fd);
    return result == 0 || fail(QString::fromLocal8Bit(strerror(error)));
}

bool waylandSocketAnswers(QString* why) {
    const QString path = waylandSocketPath();
    QString reason;
    if (path.isEmpty()) {
        reason = QStringLiteral("WAYLAND_DISPLAY=%1 is relative and XDG_RUNTIME_DIR is not set")
                     .arg(env("WAYLAND_DISPLAY"));
    } else if (!unixSocketAnswers(path, &reason)) {
        reason = QStringLiteral("no Wayland compositor answers on %1 (WAYLAND_DISPLAY=%2): %3")
                     .arg(path, env("WAYLAND_DISPLAY"), reason);
    } else {
        return true;
    }
    if (why != nullptr) {
        *why = reason;
    }
    return false;
}

DisplayChoice chooseDisplaySession() {
    DisplayChoice choice;
    const QString asked = env("QT_QPA_PLATFORM");
    const bool x11 = !env("DISPLAY").isEmpty();
    const bool wayland = !env("WAYLAND_DISPLAY").isEmpty();
    if (!asked.isEmpty()) {
        // The first of a "wayland;xcb" list is what Qt tries first.
        const QString first = asked.section(QLatin1Char(';'), 0, 0).section(QLatin1Char(':'), 0, 0);
        if (first == QLatin1String("xcb")) {
            choice.session = DisplaySession::X11;
        } else if (isWaylandPlatform(first)) {
            choice.session = DisplaySession::Wayland;
        }
        choice.platform = asked;
    } else if (x11) {
        choice.session = DisplaySession::X11;
        choice.platform = QStringLiteral("xcb");
    } else if (wayland) {
        choice.session = DisplaySession::Wayland;
        choice.platform = QStringLiteral("wayland");
    } else {
        choice.platform = QStringLiteral("offscreen");
    }
    if (choice.session == DisplaySession::X11 && !x11) {
        choice.error = QStringLiteral("QT_QPA_PLATFORM=%1 but DISPLAY is not set").arg(asked);
    }
    if (choice.session == DisplaySession::Wayland) {
        QString why;
        if (!wayland) {
            choice.error =
                QStringLiteral("QT_QPA_PLATFORM=%1 but WAYLAND_DISPLAY is not set").arg(asked);
        } else if (!waylandSocketAnswers(&why)) {
            choice.error = why;
        }
    }
    return choice;
}

void applyDisplayChoice(const DisplayChoice& choice) {
    if (env("QT_QPA_PLATFORM").isEmpty() && !choice.platform.isEmpty()) {
        qputenv("QT_QPA_PLATFORM", choice.platform.toLocal8Bit());
    }
}

bool isRealDisplayPlatform(const QString& platformName) {
    return platformName == QLatin1String("xcb") || isWaylandPlatform(platformName);
}

QString currentPlatformName() {
    return qobject_cast<QGuiApplication*>(QCoreApplication::instance()) != nullptr
               ? QGuiApplication::platformName()
               : QString();
}

}  // namespace platform::appkit
