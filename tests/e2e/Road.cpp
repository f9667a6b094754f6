#include "tests/e2e/Road.h"

#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>

namespace lumaro::test {

namespace {

const QString kExtensions = QStringLiteral("data/lumaro/extensions/");
const QString kReports = QStringLiteral("sanitizer-reports");
constexpr int kLimitMs = 90000;

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
    return int(standardError.split(QLatin1Char('\n')).filter(text).size());
}

qint64 HostRun::pidInLog(const QString& program) const {
    const QRegularExpression tag(QStringLiteral(" %1\\[(\\d+)\\]").arg(program));
    return tag.match(standardError).captured(1).toLongLong();
}

QString broadcastExtensionOf(const QString& service) {
    return service.chopped(service.endsWith(QLatin1String(".setupui")) ? 8 : 0) + ".broadcast";
}

Road::Road() {
    bus_.exportToEnvironment();
    QDir().mkpath(dir_.file(kExtensions));
    QDir().mkpath(dir_.file(QStringLiteral("empty")));
    QDir().mkpath(dir_.file(kReports));
    // The picker as the build tree lays it out.
    const QString picker = QStringLiteral("com.vantor.lumaro.broadcast-picker.json");
    QFile::copy(buildPath(QStringLiteral("share/lumaro/extensions/") + picker),
                dir_.file(kExtensions + picker));
}

Road::~Road() {
    const QDir reports(dir_.file(kReports));
    for (const QString& name : reports.entryList(QDir::Files)) {
        QFile report(reports.filePath(name));
        report.open(QIODevice::ReadOnly);
        ADD_FAILURE() << name.toStdString() << ":\n" << report.readAll().toStdString();
    }
}

void Road::installService(const Service& service) {
    const QJsonObject manifest{
        {"identifier", service.identifier},
        {"NSExtension",
         QJsonObject{{"NSExtensionPointIdentifier", "com.vantor.broadcast-services-setupui"},
                     {"NSExtensionActivationRule", "TRUEPREDICATE"},
                     {"NSExtensionContainingViewControllerClass", service.containingClass},
                     {"NSExtensionPrincipalClass", "ExampleSetupViewController"}}},
        {"infoDictionary", QJsonObject{{"CFBundleDisplayName", service.displayName},
                                       {"CFBundleName", service.displayName},
                                       {"CFBundleVersion", "1.0"}}},
        {"platform", service.platform},
        {"containingApplication", sourcePath(QStringLiteral("share/lumaro/apps/northwind-live"))},
        {"executable", service.executable.isEmpty()
                           ? buildPath(QStringLiteral("programs/example-setup-ui/example-setup-ui"))
                           : service.executable},
    };
    dir_.write(kExtensions + service.identifier + QStringLiteral(".json"), 0,
               QJsonDocument(manifest).toJson());
}

bool Road::startDaemon(const QStringList& arguments) {
    daemon_ = std::make_unique<ChildProcess>(
        buildPath(QStringLiteral("programs/lumarod-reference/lumarod-reference")),
        QStringList{QStringLiteral("--record"), dir_.file(QStringLiteral("daemon.jsonl"))} +
            arguments);
    return daemon_->start() && bus_.waitForName(QStringLiteral("com.vantor.lumarod"), true, 20000);
}

QProcessEnvironment Road::environment() const {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus_.address());
    env.insert(QStringLiteral("XDG_DATA_HOME"), dir_.file(QStringLiteral("data")));
    env.insert(QStringLiteral("XDG_DATA_DIRS"), dir_.file(QStringLiteral("empty")));
    env.insert(QStringLiteral("LUMARO_EXTENSIONS_PATH"), dir_.file(kExtensions));
    env.insert(QStringLiteral("LUMARO_EXAMPLE_SETUP_MODE"), setupMode_);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    for (const char* key :
         {"DISPLAY", "WAYLAND_DISPLAY", "LUMARO_MENU_BACKEND", "LUMARO_MENU_CHOOSE"}) {
        env.remove(QString::fromLatin1(key));
    }
    if (!session_.isEmpty()) {
        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        env.insert(session_);
    }
    const QString logPath =
        QStringLiteral(":log_path=%1/report:log_exe_name=1").arg(dir_.file(kReports));
    for (const QString& key : {QStringLiteral("ASAN_OPTIONS"), QStringLiteral("TSAN_OPTIONS"),
                               QStringLiteral("UBSAN_OPTIONS")}) {
        env.insert(key, env.value(key) + logPath);
    }
    return env;
}

HostRun Road::pick(const QStringList& arguments,
                   const std::function<bool(const HostRun&)>& stopWhen) const {
    QProcess host;
    host.setProcessEnvironment(environment());
    host.start(buildPath(QStringLiteral("programs/lumaro-broadcast/lumaro-broadcast")),
               QStringList{QStringLiteral("pick"), QStringLiteral("--verbose"),
                           QStringLiteral("--record"), dir_.file(QStringLiteral("menu.jsonl"))} +
                   arguments);
    HostRun run;
    if (!host.waitForStarted(kLimitMs)) {
        run.standardError = host.errorString();
        return run;
    }
    run.pid = host.processId();
    const QDeadlineTimer guard(kLimitMs);
    bool stopped = false;
    while (!run.finished && !guard.hasExpired()) {
        run.finished = host.waitForFinished(100);
        run.standardOutput += QString::fromUtf8(host.readAllStandardOutput());
        run.standardError += QString::fromUtf8(host.readAllStandardError());
        if (!run.finished && !stopped && stopWhen && stopWhen(run)) {
            stopped = true;
            host.terminate();  // its picker and setup UI go with it
        }
    }
    if (!run.finished) {
        host.kill();
        host.waitForFinished(5000);
    } else if (host.exitStatus() == QProcess::NormalExit) {
        run.exitCode = host.exitCode();
    }
    return run;
}

QList<QJsonObject> Road::daemonRequests() const {
    QList<QJsonObject> requests = readJsonLines(dir_.file(QStringLiteral("daemon.jsonl")));
    requests.removeIf([](const QJsonObject& line) {
        return line.value(QStringLiteral("selector")).toString() != kSetupSelector;
    });
    return requests;
}

}  // namespace lumaro::test
