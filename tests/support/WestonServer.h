// A private Wayland compositor for tests: weston's headless backend with a socket in a private
// runtime folder (0700), started and stopped by its process id.
//
// Children get a Wayland-only session from environment(); screenshot() saves the output.
// The compositor runs without animations, screen blanking or panel, so that a screenshot shows
// exactly the windows of the test.
#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <memory>

namespace lumaro::test {

class WestonServer {
public:
    WestonServer() = default;
    ~WestonServer();
    WestonServer(const WestonServer&) = delete;
    WestonServer& operator=(const WestonServer&) = delete;

    // Whether weston and weston-screenshooter are on the PATH.
    static bool available();

    // Starts `weston --backend=headless-backend.so --use-pixman --debug --socket=NAME` in a
    // fresh runtime folder and waits until the socket accepts connections. False (see error())
    // when it does not come up.
    bool start(int width = 1024, int height = 768);
    // Terminates the compositor by its process id, waits for it and removes the runtime folder;
    // harmless when not running.
    void stop();

    bool isRunning() const;
    const QString& error() const { return error_; }

    // `base` with XDG_RUNTIME_DIR and WAYLAND_DISPLAY of this compositor, QT_QPA_PLATFORM and
    // DISPLAY removed: a Wayland-only session.
    QProcessEnvironment environment(
        QProcessEnvironment base = QProcessEnvironment::systemEnvironment()) const;

    // Saves the whole output to `path` with weston-screenshooter.
    bool screenshot(const QString& path, QString* error = nullptr) const;

private:
    std::unique_ptr<QProcess> process_;
    QString runtimeDir_;
    QString socket_;
    QString error_;
};

}  // namespace lumaro::test
