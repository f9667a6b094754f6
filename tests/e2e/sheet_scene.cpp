// e2e_sheet_scene: runs one host request on the current X display and saves a screenshot once the
// picker shows the chosen service's setup form inside its view. Started by the screenshot test
// under Xvfb, with the bus, the data folder and the setup mode in its environment.
//
//   e2e_sheet_scene --host PATH --choose ID --screenshot PNG
//
// Prints one JSON object: {"sheet": bool, "lit": pixels that are not black}.
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPixmap>
#include <QProcess>
#include <QScreen>
#include <cstdio>

#include "tests/support/XvfbServer.h"

namespace {

int litPixels() {
    const QImage shot = QGuiApplication::primaryScreen()->grabWindow(0).toImage();
    int lit = 0;
    for (int y = 0; y < shot.height(); y += 2) {
        for (int x = 0; x < shot.width(); x += 2) {
            lit += (shot.pixel(x, y) & 0xFFFFFF) != 0 ? 4 : 0;
        }
    }
    return lit;
}

void waitEvents(int ms) {
    QElapsedTimer timer;
    timer.start();
    while (!timer.hasExpired(ms)) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
}

}  // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription("Shows the picker with a setup form on screen and saves it.");
    parser.addHelpOption();
    parser.addOption({"host", "lumaro-broadcast to run.", "PATH"});
    parser.addOption({"choose", "The service to choose.", "ID"});
    parser.addOption({"screenshot", "Where to save the screen.", "PNG"});
    parser.process(app);

    QProcess host;
    host.setProcessChannelMode(QProcess::SeparateChannels);
    host.start(parser.value("host"),
               {"pick", "--verbose", "--choose", parser.value("choose"), "--timeout", "60"});
    QByteArray log;
    bool sheet = false;
    QElapsedTimer guard;
    guard.start();
    while (!sheet && !guard.hasExpired(60000) && host.state() != QProcess::NotRunning) {
        host.waitForReadyRead(100);
        log += host.readAllStandardError();
        sheet = log.contains("arrived presentBroadcastActivitySheet");
    }
    int lit = 0;
    if (sheet) {
        // Until the picker's window and the form inside it are drawn (bounded), then a moment
        // for the last paint.
        while (!guard.hasExpired(60000) && (lit = litPixels()) < 400 * 300 / 2) {
            waitEvents(100);
        }
        waitEvents(500);
        lit = litPixels();
        lumaro::test::grabScreenToPng(parser.value("screenshot"));
    } else {
        std::fprintf(stderr, "%s", log.constData());
    }
    host.terminate();
    host.waitForFinished(10000);
    std::printf("%s\n", QJsonDocument(QJsonObject{{"sheet", sheet}, {"lit", lit}})
                            .toJson(QJsonDocument::Compact)
                            .constData());
    return sheet ? 0 : 1;
}
