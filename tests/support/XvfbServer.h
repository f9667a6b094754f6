// A private X server for screenshot tests: Xvfb on a free display number, a child process run
// on it, and a grab of its screen to a PNG file in the build tree.
//
//     lumaro::test::XvfbServer x;
//     if (!lumaro::test::XvfbServer::available()) GTEST_SKIP() << "Xvfb is not installed";
//     ASSERT_TRUE(x.start()) << x.error();
//     auto result = x.run(program, {"--screenshot", path});
//
// The server is stopped by its process id when the object goes (or by stop()).
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <memory>

namespace lumaro::test {

class XvfbServer {
public:
    XvfbServer() = default;
    ~XvfbServer();
    XvfbServer(const XvfbServer&) = delete;
    XvfbServer& operator=(const XvfbServer&) = delete;

    // Whether an Xvfb executable is on the PATH.
    static bool available();

    // Starts `Xvfb :N -screen 0 <screen> -nolisten tcp` on the first free N from 90 and waits
    // for its socket /tmp/.X11-unix/XN. False (see error()) when it will not come up.
    bool start(const QString& screen = QStringLiteral("1024x768x24"));
    // Terminates the server by its process id and waits for it; harmless when not running.
    void stop();

    bool isRunning() const;
    int displayNumber() const { return display_; }
    QString display() const { return QStringLiteral(":%1").arg(display_); }
    qint64 pid() const;
    const QString& error() const { return error_; }

    struct Result {
        bool finished = false;  // false: it had to be killed, or never started
        int exitCode = -1;
        QByteArray standardOutput;
        QByteArray standardError;
    };
    // Runs `program` with DISPLAY set to this server and QT_QPA_PLATFORM=xcb; kills it if it is
    // still running after `limitMs` (a guard against a hung child, not a measurement).
    Result run(const QString& program, const QStringList& arguments, int limitMs = 60000) const;

private:
    std::unique_ptr<QProcess> process_;
    int display_ = -1;
    QString error_;
};

// Where a test's screenshot goes: <build dir>/screenshots/<name>.png, the build dir taken from
// LUMARO_BUILD_DIR (set by CTest), else the current folder. Creates the folder.
QString screenshotPath(const QString& name);

// Grabs the whole primary screen of the running QGuiApplication to a PNG at `path`.
bool grabScreenToPng(const QString& path, QString* error = nullptr);

}  // namespace lumaro::test
