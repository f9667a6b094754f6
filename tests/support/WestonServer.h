// Private Wayland compositors for tests, each with its socket in a private runtime folder (0700),
// started and stopped by its process id. Children get a Wayland-only session from environment().
//
// WestonServer: weston's headless backend; screenshot() saves the output. The compositor runs
// without animations, screen blanking or panel, so that a screenshot shows exactly the windows
// of the test.
#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>

namespace lumaro::test {

// What the compositors share: the process, its folders, waiting for its socket, the session.
class WaylandServer {
public:
    WaylandServer() = default;
    ~WaylandServer();
    WaylandServer(const WaylandServer&) = delete;
    WaylandServer& operator=(const WaylandServer&) = delete;

    // Terminates the compositor by its process id, waits for it and removes its folders;
    // harmless when not running.
    void stop();

    bool isRunning() const;
    const QString& error() const { return error_; }

    // `base` with XDG_RUNTIME_DIR and WAYLAND_DISPLAY of this compositor, QT_QPA_PLATFORM and
    // DISPLAY removed: a Wayland-only session.
    QProcessEnvironment environment(
        QProcessEnvironment base = QProcessEnvironment::systemEnvironment()) const;

protected:
    // A fresh private folder, removed by stop(); empty (and error()) when none can be made.
    QString makeFolder(const QString& name);
    // Writes `text` into `path`; false (and error()) when it cannot.
    bool writeFile(const QString& path, const QByteArray& text);
    // Starts `program` with `environment` (logging into `log`) and waits until the socket that
    // `socket()` answers (a name in the runtime folder, or a path) accepts connections.
    bool launch(const QString& program, const QStringList& arguments,
                QProcessEnvironment environment, const QString& log,
                const std::function<QString()>& socket);
    // An environment for the compositor itself: no display of the caller's.
    static QProcessEnvironment compositorEnvironment();

    QString runtimeDir_;  // the clients' XDG_RUNTIME_DIR
    QString error_;

private:
    QString socketPath() const;

    std::unique_ptr<QProcess> process_;
    QStringList folders_;
    QString socket_;
};

class WestonServer : public WaylandServer {
public:
    // Whether weston and weston-screenshooter are on the PATH.
    static bool available();

    // Starts `weston --backend=headless-backend.so --use-pixman --debug --socket=NAME` in a
    // fresh runtime folder and waits until the socket accepts connections. False (see error())
    // when it does not come up.
    bool start(int width = 1024, int height = 768);

    // Saves the whole output to `path` with weston-screenshooter.
    bool screenshot(const QString& path, QString* error = nullptr) const;
};

}  // namespace lumaro::test
