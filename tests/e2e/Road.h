// The whole road across real processes: a private bus, the reference daemon, extensions
// installed into a temporary data folder, and the host command `lumaro-broadcast pick`, which
// starts the picker, which starts the chosen service's setup UI.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>

#include "tests/support/TempDir.h"
#include "tests/support/TestBus.h"

namespace lumaro::test {

// The service most roads install, and the host's line that says the picker asked for its sheet.
inline const QString kNorthwind = QStringLiteral("com.test.northwind.setupui");
inline const QString kSheetArrival = QStringLiteral("arrived presentBroadcastActivitySheet");
inline const QString kSetupSelector = QStringLiteral(
    "setupBroadcastWithHostBundleID:broadcastExtensionBundleID:broadcastConfigurationData:"
    "userInfo:handler:");

struct HostRun {
    bool finished = false;  // false: it had to be killed (a guard, not a measurement)
    int exitCode = -1;
    qint64 pid = 0;
    QString standardOutput;
    QString standardError;
    // The outcome line on standard output, parsed (empty when there is none).
    QJsonObject outcome() const;
    // How many lines of standard error contain `text`.
    int countInLog(const QString& text) const;
    // The process id in the first log line of `program` ("program[pid]"), 0 when none came yet.
    qint64 pidInLog(const QString& program) const;
};

class Road {
public:
    Road();
    // Fails the running test with every sanitizer report that the host, the picker or the setup
    // UI wrote (to files of the road's, so that one made at an exit nobody waits for counts too).
    ~Road();

    bool busRunning() const { return bus_.isRunning(); }

    // A setup-UI service, run by example-setup-ui unless told otherwise.
    struct Service {
        QString identifier;
        QString displayName = QStringLiteral("Example Live");
        int platform = 1;  // 1 native, 6 built for Prism
        QString containingClass = QStringLiteral("ExampleSetupViewController");
        QString executable = {};  // empty: the built example-setup-ui
    };
    void installService(const Service& service);
    // The reference daemon, recording its requests; `arguments` are added (--fail ...).
    bool startDaemon(const QStringList& arguments = {});
    void killDaemon() { daemon_->kill(); }
    // What the daemon wrote to standard error since the last call.
    QByteArray readDaemonLog() { return daemon_->readStandardError(); }
    // How example-setup-ui answers (its --mode), for every setup UI of the next runs.
    void setSetupMode(const QString& mode) { setupMode_ = mode; }

    // Runs `lumaro-broadcast pick --verbose` with `arguments` until it ends, or until `stopWhen`
    // holds for what it printed so far (then it is terminated), or for 90 s at most (then it is
    // killed; a guard, not a measurement).
    HostRun pick(const QStringList& arguments,
                 const std::function<bool(const HostRun&)>& stopWhen = {}) const;

    // The menus the picker recorded, and the set-up requests the daemon recorded.
    QList<QJsonObject> menuRecords() const {
        return readJsonLines(dir_.file(QStringLiteral("menu.jsonl")));
    }
    QList<QJsonObject> daemonRequests() const;
    // The environment the host runs in (bus, data folder, no display unless a session is set).
    QProcessEnvironment environment() const;
    // Runs the next hosts in a display session: `session`'s variables (a compositor's
    // WAYLAND_DISPLAY and XDG_RUNTIME_DIR, say) are added and the Qt platform is left to them.
    void setSession(const QProcessEnvironment& session) { session_ = session; }
    const TempDir& dir() const { return dir_; }

private:
    TempDir dir_;
    PrivateBus bus_;
    std::unique_ptr<ChildProcess> daemon_;
    QString setupMode_ = QStringLiteral("complete");
    QProcessEnvironment session_;
};

// The example setup UI's broadcast extension identifier for a service.
QString broadcastExtensionOf(const QString& serviceIdentifier);

}  // namespace lumaro::test
