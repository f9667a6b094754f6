// lumaro-broadcast: the host-side broadcast command. Dispatches to a subcommand (Command.h).
#include <QApplication>
#include <QCoreApplication>
#include <QTextStream>
#include <cstdio>
#include <cstring>
#include <memory>

#include "programs/lumaro-broadcast/Command.h"

namespace {

void printHelp(QTextStream& out) {
    out << "Usage: lumaro-broadcast COMMAND [ARGS...]\n"
           "       lumaro-broadcast COMMAND --help\n\n"
           "The host side of a screen broadcast: asks the picker for a broadcast set-up as an\n"
           "application would, lists the installed broadcast services and checks extension\n"
           "manifests.\n\nCommands:\n";
    for (const Command* command : Command::all()) {
        out << "  " << QString::fromLatin1(command->name).leftJustified(10) << command->summary
            << "\n";
    }
    out << "\nExtensions are searched in $LUMARO_EXTENSIONS_PATH (colon-separated) when set, else\n"
           "in lumaro/extensions under $XDG_DATA_HOME and each of $XDG_DATA_DIRS.\n";
}

// A subcommand that shows windows gets a widgets application when there is an X11 display to
// show them on; everything else runs without a GUI.
bool wantsWidgets(int argc, char** argv) {
    const Command* command = argc > 1 ? Command::named(argv[1]) : nullptr;
    return command != nullptr && command->windows == Command::Windows::WhenDisplayed &&
           qEnvironmentVariableIsSet("DISPLAY") &&
           qgetenv("QT_QPA_PLATFORM") != QByteArrayLiteral("offscreen");
}

}  // namespace

int main(int argc, char** argv) {
    std::unique_ptr<QCoreApplication> app;
    if (wantsWidgets(argc, argv)) {
        app = std::make_unique<QApplication>(argc, argv);
    } else {
        app = std::make_unique<QCoreApplication>(argc, argv);
    }
    QTextStream out(stdout);
    QTextStream err(stderr);
    QStringList args = app->arguments().mid(1);
    if (args.isEmpty()) {
        printHelp(err);
        return kExitUsage;
    }
    const QString name = args.takeFirst();
    if (name == QLatin1String("--help") || name == QLatin1String("-h") ||
        name == QLatin1String("help")) {
        printHelp(out);
        return kExitOK;
    }
    for (const Command* command : Command::all()) {
        if (name == QLatin1String(command->name)) {
            if (args.contains(QLatin1String("--help")) || args.contains(QLatin1String("-h"))) {
                out << command->usage;
                return kExitOK;
            }
            return command->run(args, out, err);
        }
    }
    err << "lumaro-broadcast: unknown command \"" << name << "\" (see lumaro-broadcast --help)\n";
    return kExitUsage;
}
