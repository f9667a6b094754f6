// bench_e2e: times one host request across real processes against the floor of starting and
// ending a process, in one run (see run.sh, which sets up the bus, the daemon and the services):
//   true      /bin/true, started and reaped
//   qt-core   a bare QCoreApplication that quits at once
//   qt-gui    a bare QApplication (offscreen) that quits at once
//   menu      `lumaro-broadcast pick` started until the picker's menu is recorded
//   outcome   `lumaro-broadcast pick --choose FIRST` started until it printed the outcome and ended
// Prints the median and the fastest of each, and the ratios of menu and outcome to the floors.
// The floor of a request is the Qt programs it starts one after the other: the host (a
// QCoreApplication) and the picker (a QApplication) before the menu, and the setup UI (another
// QApplication) before the outcome; what a request takes beyond that sum is its own.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

struct Series {
    const char* name;
    std::vector<double> ms;
    double median() const {
        std::vector<double> sorted = ms;
        std::sort(sorted.begin(), sorted.end());
        return sorted.empty() ? 0 : sorted[sorted.size() / 2];
    }
    double best() const { return ms.empty() ? 0 : *std::min_element(ms.begin(), ms.end()); }
};

// Start to end of a program that ends by itself; -1 when it failed.
double timeRun(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.setStandardErrorFile(QProcess::nullDevice());
    QElapsedTimer timer;
    timer.start();
    process.start(program, arguments);
    if (!process.waitForFinished(120000) || process.exitCode() != 0) {
        std::fprintf(stderr, "bench_e2e: %s failed: %s\n", qPrintable(program),
                     process.readAllStandardOutput().constData());
        return -1;
    }
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

// Start of the host until the menu record file has a line; the host is then stopped.
double timeMenu(const QString& host, const QString& record) {
    QFile::remove(record);
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    QElapsedTimer timer;
    timer.start();
    process.start(host, {"pick", "--dismiss", "--record", record, "--timeout", "60"});
    double elapsed = -1;
    while (timer.elapsed() < 60000 && process.state() != QProcess::NotRunning) {
        QFile file(record);
        if (file.open(QIODevice::ReadOnly) && file.readAll().contains('\n')) {
            elapsed = static_cast<double>(timer.nsecsElapsed()) / 1e6;
            break;
        }
        QThread::usleep(200);
    }
    process.terminate();
    process.waitForFinished(10000);
    return elapsed;
}

void print(const Series& s) {
    std::printf("%-8s median %9.2f ms   fastest %9.2f ms   (%zu rounds)\n", s.name, s.median(),
                s.best(), s.ms.size());
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Times one host request across real processes (menu shown; outcome with the menu "
        "choosing at once) against /bin/true and bare Qt programs. Run through bench/e2e/run.sh.");
    parser.addHelpOption();
    parser.addOption({"host", "lumaro-broadcast.", "PATH"});
    parser.addOption({"bare", "bench_e2e_bare_qt.", "PATH"});
    parser.addOption({"choose", "The service the outcome rounds choose.", "ID"});
    parser.addOption({"record", "A scratch file for the menu record.", "FILE"});
    parser.addOption({"rounds", "Rounds of each (default 10).", "N", "10"});
    parser.process(app);
    const int rounds = std::max(1, parser.value("rounds").toInt());
    const QString host = parser.value("host");
    const QString bare = parser.value("bare");
    if (host.isEmpty() || bare.isEmpty() || parser.value("choose").isEmpty() ||
        parser.value("record").isEmpty()) {
        std::fprintf(stderr, "bench_e2e: --host, --bare, --choose and --record are needed\n");
        return 2;
    }

    Series trueRuns{"true", {}}, core{"qt-core", {}}, gui{"qt-gui", {}}, menu{"menu", {}},
        outcome{"outcome", {}};
    // Interleaved, so that a slow moment of the machine touches every series alike.
    for (int i = 0; i < rounds; ++i) {
        const double t = timeRun("/bin/true", {});
        const double c = timeRun(bare, {});
        const double g = timeRun(bare, {"--gui"});
        const double m = timeMenu(host, parser.value("record"));
        const double o = timeRun(host, {"pick", "--choose", parser.value("choose"), "--record",
                                        parser.value("record"), "--timeout", "60"});
        if (t < 0 || c < 0 || g < 0 || m < 0 || o < 0) {
            std::fprintf(stderr, "bench_e2e: round %d failed\n", i + 1);
            return 1;
        }
        trueRuns.ms.push_back(t);
        core.ms.push_back(c);
        gui.ms.push_back(g);
        menu.ms.push_back(m);
        outcome.ms.push_back(o);
    }
    for (const Series* s : {&trueRuns, &core, &gui, &menu, &outcome}) {
        print(*s);
    }
    std::printf("\nratios of the medians:\n");
    for (const Series* s : {&menu, &outcome}) {
        std::printf(
            "  %-8s %7.1fx /bin/true   %6.1fx bare QCoreApplication   %6.1fx bare "
            "QApplication\n",
            s->name, s->median() / trueRuns.median(), s->median() / core.median(),
            s->median() / gui.median());
    }
    std::printf("\nagainst the floor of the Qt programs started in sequence (medians):\n");
    const double floors[2] = {core.median() + gui.median(), core.median() + 2 * gui.median()};
    const char* what[2] = {"qt-core + qt-gui", "qt-core + 2 qt-gui"};
    int i = 0;
    for (const Series* s : {&menu, &outcome}) {
        std::printf("  %-8s floor %6.2f ms (%s, %.1fx bare QApplication)   %.2fx the floor\n",
                    s->name, floors[i], what[i], floors[i] / gui.median(), s->median() / floors[i]);
        ++i;
    }
    return 0;
}
