// bench_e2e_bare_qt: the floor of a Qt program: makes its application object, runs one turn of
// the event loop and quits. --gui makes a QApplication (as the picker and setup UI do).
#include <QApplication>
#include <QCoreApplication>
#include <QTimer>
#include <cstring>
#include <memory>

int main(int argc, char** argv) {
    bool gui = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            std::puts(
                "Usage: bench_e2e_bare_qt [--gui]\nStarts a Qt application and quits at once.");
            return 0;
        }
        gui = gui || std::strcmp(argv[i], "--gui") == 0;
    }
    std::unique_ptr<QCoreApplication> app = gui ? std::make_unique<QApplication>(argc, argv)
                                                : std::make_unique<QCoreApplication>(argc, argv);
    QTimer::singleShot(0, app.get(), &QCoreApplication::quit);
    return app->exec();
}
