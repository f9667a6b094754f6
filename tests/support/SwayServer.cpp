#include "tests/support/SwayServer.h"

#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace lumaro::test {

namespace {

constexpr uid_t kNobody = 65534;

}  // namespace

bool SwayServer::available() {
    return !QStandardPaths::findExecutable(QStringLiteral("sway")).isEmpty() &&
           (::geteuid() != 0 ||
            !QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty());
}

bool SwayServer::start(int width, int height) {
    stop();
    error_.clear();
    if (!available()) {
        error_ = QStringLiteral("sway is not installed");
        return false;
    }
    const bool root = ::geteuid() == 0;
    runtimeDir_ = makeFolder(QStringLiteral("sway"));
    const QString own = root ? makeFolder(QStringLiteral("sway-nobody")) : runtimeDir_;
    const QString config = own + QStringLiteral("/config");
    if (runtimeDir_.isEmpty() || own.isEmpty() ||
        !writeFile(config, QStringLiteral("xwayland disable\noutput HEADLESS-1 resolution %1x%2\n")
                               .arg(width)
                               .arg(height)
                               .toUtf8()) ||
        (root && ::chown(QFile::encodeName(own).constData(), kNobody, kNobody) != 0)) {
        stop();
        return false;
    }
    QProcessEnvironment env = compositorEnvironment();
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), own);
    env.insert(QStringLiteral("WLR_BACKENDS"), QStringLiteral("headless"));
    env.insert(QStringLiteral("WLR_LIBINPUT_NO_DEVICES"), QStringLiteral("1"));
    env.insert(QStringLiteral("WLR_RENDERER"), QStringLiteral("pixman"));
    const QString sway = QStandardPaths::findExecutable(QStringLiteral("sway"));
    QString program = sway;
    QStringList arguments{QStringLiteral("-c"), config};
    if (root) {
        program = QStandardPaths::findExecutable(QStringLiteral("setpriv"));
        arguments = QStringList{QStringLiteral("--reuid=%1").arg(kNobody),
                                QStringLiteral("--regid=%1").arg(kNobody),
                                QStringLiteral("--clear-groups"), sway} +
                    arguments;
    }
    // sway names its socket itself: the first wayland-N in its folder.
    return launch(program, arguments, env, runtimeDir_ + QStringLiteral("/sway.log"), [own] {
        const QStringList sockets =
            QDir(own).entryList({QStringLiteral("wayland-*")}, QDir::System);
        return sockets.isEmpty() ? QString() : own + QLatin1Char('/') + sockets.first();
    });
}

}  // namespace lumaro::test
