// lumaro-broadcast: the host-side broadcast command. Dispatches to a subcommand (Command.h).
#include <QApplication>
#include <QCoreApplication>
#include <QTextStream>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/appkit/NSDisplaySession.h"
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

// A subcommand that shows windows runs in the display session the environment names (its
// children too); it gets a widgets application on X11, where the picker's view is embedded in a
// window of its own. On Wayland nothing is embedded: the picker shows its own window.
const Command* displayedCommand(int argc, char** argv) {
    const Command* command = argc > 1 ? Command::named(argv[1]) : nullptr;
    if (command == nullptr || command->windows != Command::Windows::WhenDisplayed) {
        return nullptr;
    }
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            return nullptr;
        }
    }
    return command;
}

}  // namespace

int main(int argc, char** argv) {
    std::unique_ptr<QCoreApplication> app;
    platform::appkit::DisplayChoice display;
    if (const Command* command = displayedCommand(argc, argv)) {
        display = platform::appkit::chooseDisplaySession();
        if (!display.error.isEmpty()) {
            std::fprintf(stderr, "lumaro-broadcast %s: %s\n", command->name,
                         qPrintable(display.error));
            return kExitFailure;
        }
        platform::appkit::applyDisplayChoice(display);
    }
    if (display.session == platform::appkit::DisplaySession::X11) {
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
