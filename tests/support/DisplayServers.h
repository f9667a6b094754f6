// Private display servers for the end-to-end tests, each with a 1024 by 768 screen: Xvfb, a
// headless weston and a headless sway. Each runs with private folders (0700, removed when it
// stops), is stopped by its process id when the object goes, and answers the variables that put a
// client on it (session()).
#pragma once

#include <QImage>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>

namespace lumaro::test {

class DisplayServer {
public:
    ~DisplayServer() { stop(); }

    // Terminates the server by its process id (SIGTERM, then SIGKILL), waits for it and removes
    // its folders; harmless when not running.
    void stop();
    const QString& error() const { return error_; }
    // DISPLAY and QT_QPA_PLATFORM=xcb, or XDG_RUNTIME_DIR and WAYLAND_DISPLAY.
    const QProcessEnvironment& session() const { return session_; }

protected:
    // A fresh private folder, removed by stop(); empty (and error()) when none can be made.
    QString makeFolder(const QString& name);
    // Starts `command` (a program and its arguments, split at spaces) with the caller's
    // environment, less its displays, plus `extra`, its output going to <folder>/stdout and
    // <folder>/stderr, and waits until the socket path that `socket()` answers accepts
    // connections. Answers that path; empty (and error()) when the server does not come up.
    QString launch(const QString& command, const QProcessEnvironment& extra, const QString& folder,
                   const std::function<QString()>& socket);

    QProcessEnvironment session_;
    QString error_;

private:
    std::unique_ptr<QProcess> process_;
    QStringList folders_;
};

class XvfbServer : public DisplayServer {
public:
    static bool available();
    // Starts Xvfb on a display number it finds free, its frame buffer in a file of its folder.
    bool start();
    // The screen as it is now, read from the frame buffer's file.
    QImage screenshot(QString* error) const;

private:
    QString frameBuffer_;
};

class WestonServer : public DisplayServer {
public:
    // Whether weston and weston-screenshooter are on the PATH.
    static bool available();
    // Starts weston's headless backend without animations, screen blanking or panel, so that a
    // screenshot shows exactly the windows of the test.
    bool start();
    // The whole output, taken by weston-screenshooter.
    QImage screenshot(QString* error) const;
};

// sway offers what weston does not, xdg-foreign among them. It refuses to run as root: under root
// it runs as nobody (setpriv) with its socket in a folder of nobody's, and the clients keep a
// runtime folder of their own and reach the socket by its path.
class SwayServer : public DisplayServer {
public:
    // Whether sway (and, under root, setpriv) is on the PATH.
    static bool available();
    // Starts sway with one headless output and no Xwayland.
    bool start();
};

}  // namespace lumaro::test
