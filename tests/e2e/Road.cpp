#include "tests/e2e/Road.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>

namespace lumaro::test {

namespace {

QString extensionsFolder(const TempDir& dir) {
    return dir.file(QStringLiteral("data/lumaro/extensions"));
}

}  // namespace

QJsonObject HostRun::outcome() const {
    for (const QString& line : standardOutput.split(QLatin1Char('\n'))) {
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8());
        if (document.isObject()) {
            return document.object();
        }
    }
    return {};
}

int HostRun::countInLog(const QString& text) const {
    int n = 0;
    for (const QString& line : standardError.split(QLatin1Char('\n'))) {
        n += line.contains(text) ? 1 : 0;
    }
    return n;
}

qint64 HostRun::pidInLog(const QString& program) const {
    const QRegularExpression tag(QStringLiteral(" %1\\[(\\d+)\\]").arg(program));
    return tag.match(standardError).captured(1).toLongLong();
}

QString broadcastExtensionOf(const QString& serviceIdentifier) {
    QString base = serviceIdentifier;
    if (base.endsWith(QLatin1String(".setupui"))) {
        base.chop(8);
    }
    return base + QStringLiteral(".broadcast");
}

Road::Road() {
    bus_.exportToEnvironment();
    QDir().mkpath(extensionsFolder(dir_));
    QDir().mkpath(dir_.file(QStringLiteral("empty")));
    // The picker as the build tree lays it out.
    QFile::copy(
        buildPath(QStringLiteral("share/lumaro/extensions/"
                                 "com.vantor.lumaro.broadcast-picker.json")),
        extensionsFolder(dir_) + QStringLiteral("/com.vantor.lumaro.broadcast-picker.json"));
}

void Road::installService(const Service& service) {
    const QJsonObject manifest{
        {"identifier", service.identifier},
        {"NSExtension",
         QJsonObject{{"NSExtensionPointIdentifier", "com.vantor.broadcast-services-setupui"},
                     {"NSExtensionActivationRule", "TRUEPREDICATE"},
                     {"NSExtensionContainingViewControllerClass", service.containingClass},
                     {"NSExtensionPrincipalClass", service.principalClass}}},
        {"infoDictionary", QJsonObject{{"CFBundleDisplayName", service.displayName},
                                       {"CFBundleName", service.displayName},
                                       {"CFBundleVersion", "1.0"}}},
        {"platform", service.platform},
        {"containingApplication", sourcePath(QStringLiteral("share/lumaro/apps/northwind-live"))},
        {"executable", service.executable.isEmpty()
                           ? buildPath(QStringLiteral("programs/example-setup-ui/example-setup-ui"))
                           : service.executable},
    };
    QFile file(extensionsFolder(dir_) + QLatin1Char('/') + service.identifier +
               QStringLiteral(".json"));
    if (file.open(QIODevice::WriteOnly)) {
        file.write(QJsonDocument(manifest).toJson());
    }
}

bool Road::startDaemon(const QStringList& arguments) {
    daemon_ = std::make_unique<ChildProcess>(
        buildPath(QStringLiteral("programs/lumarod-reference/lumarod-reference")),
        QStringList{QStringLiteral("--record"), daemonRecordPath()} + arguments);
    return daemon_->start() && bus_.waitForName(QStringLiteral("com.vantor.lumarod"), true, 20000);
}

void Road::killDaemon() {
    daemon_->kill();
}

QProcessEnvironment Road::environment() const {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus_.address());
    env.insert(QStringLiteral("XDG_DATA_HOME"), dir_.file(QStringLiteral("data")));
    env.insert(QStringLiteral("XDG_DATA_DIRS"), dir_.file(QStringLiteral("empty")));
    env.insert(QStringLiteral("LUMARO_EXTENSIONS_PATH"), extensionsFolder(dir_));
    env.insert(QStringLiteral("LUMARO_EXAMPLE_SETUP_MODE"), setupMode_);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.remove(QStringLiteral("LUMARO_MENU_BACKEND"));
    env.remove(QStringLiteral("LUMARO_MENU_CHOOSE"));
    if (!session_.isEmpty()) {
        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        env.insert(session_);
    }
    return env;
}

HostRun Road::pick(const QStringList& arguments,
                   const std::function<bool(const HostRun&)>& stopWhen, int limitMs) const {
    QProcess host;
    host.setProcessEnvironment(environment());
    host.start(buildPath(QStringLiteral("programs/lumaro-broadcast/lumaro-broadcast")),
               QStringList{QStringLiteral("pick"), QStringLiteral("--verbose"),
                           QStringLiteral("--record"), menuRecordPath()} +
                   arguments);
    HostRun run;
    if (!host.waitForStarted(limitMs)) {
        run.standardError = host.errorString();
        return run;
    }
    run.pid = host.processId();
    QElapsedTimer guard;
    guard.start();
    bool stopped = false;
    while (!(run.finished = host.waitForFinished(100))) {
        run.standardOutput += QString::fromUtf8(host.readAllStandardOutput());
        run.standardError += QString::fromUtf8(host.readAllStandardError());
        if (!stopped && stopWhen && stopWhen(run)) {
            stopped = true;
            host.terminate();  // its picker and setup UI go with it
        }
        if (guard.hasExpired(limitMs)) {
            host.kill();
            host.waitForFinished(5000);
            break;
        }
    }
    if (run.finished) {
        run.exitCode = host.exitStatus() == QProcess::NormalExit ? host.exitCode() : -1;
    }
    run.standardOutput += QString::fromUtf8(host.readAllStandardOutput());
    run.standardError += QString::fromUtf8(host.readAllStandardError());
    return run;
}

QList<QJsonObject> Road::menuRecords() const {
    return readJsonLines(menuRecordPath());
}

QList<QJsonObject> Road::daemonRequests(const QString& selector) const {
    QList<QJsonObject> found;
    for (const QJsonObject& line : readJsonLines(daemonRecordPath())) {
        if (line.value(QStringLiteral("selector")).toString() == selector) {
            found.append(line);
        }
    }
    return found;
}

}  // namespace lumaro::test
