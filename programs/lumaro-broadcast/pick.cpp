// lumaro-broadcast pick: asks the picker for a broadcast set-up as a host application would and
// prints the outcome. Argument parsing and wiring only: the request is LMBroadcastHostRequest.
#include <QCommandLineParser>
#include <QFile>
#include <QTextStream>

#include "host/LMBroadcastHostRequest.h"
#include "platform/appkit/NSDisplaySession.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtensionRequest.h"
#include "programs/lumaro-broadcast/Command.h"

namespace {

constexpr int kDefaultTimeoutSeconds = 30;

bool readNumber(const QCommandLineParser& parser, const QString& name, double* value,
                QTextStream& err) {
    if (!parser.isSet(name)) {
        return true;
    }
    bool ok = false;
    const double number = parser.value(name).toDouble(&ok);
    if (!ok) {
        err << "lumaro-broadcast pick: --" << name << " wants a number, not \""
            << parser.value(name) << "\"\n";
        return false;
    }
    *value = number;
    return true;
}

int runPick(const QStringList& args, QTextStream& out, QTextStream& err) {
    QCommandLineParser parser;
    const auto value = [&parser](const char* name, const char* valueName) {
        parser.addOption({QString::fromLatin1(name), QString(), QString::fromLatin1(valueName)});
    };
    value("title", "TEXT");
    value("no-service", "TEXT");
    value("find-apps", "TEXT");
    value("width", "N");
    value("height", "N");
    value("x", "N");
    value("y", "N");
    value("app-name", "TEXT");
    value("bundle-id", "ID");
    value("icon", "FILE");
    value("preferred", "ID");
    value("not-installed-title", "TEXT");
    value("not-installed-message", "TEXT");
    value("choose", "ID");
    value("choose-index", "N");
    value("record", "FILE");
    value("timeout", "SECONDS");
    parser.addOption({QStringLiteral("dismiss"), QString()});
    parser.addOption({QStringLiteral("verbose"), QString()});
    parser.addOption({QStringLiteral("no-window"), QString()});
    parser.addOption({QStringLiteral("automation"), QString()});
    parser.addOption({QStringLiteral("view-parameters"), QString()});
    if (!parser.parse(QStringList{QStringLiteral("pick")} + args)) {
        err << "lumaro-broadcast pick: " << parser.errorText() << " (see --help)\n";
        return kExitUsage;
    }
    if (!parser.positionalArguments().isEmpty()) {
        err << "lumaro-broadcast pick: unexpected argument \""
            << parser.positionalArguments().first() << "\" (see --help)\n";
        return kExitUsage;
    }

    LMBroadcastHostRequestOptions options;
    const auto text = [&parser](const char* name, QString* field) {
        if (parser.isSet(QString::fromLatin1(name))) {
            *field = parser.value(QString::fromLatin1(name));
        }
    };
    text("title", &options.localizedBroadcastTitle);
    text("no-service", &options.localizedNoService);
    text("find-apps", &options.localizedFindBroadcastApps);
    text("app-name", &options.appName);
    text("bundle-id", &options.bundleID);
    text("preferred", &options.preferredExtension);
    text("not-installed-title", &options.notInstalledTitle);
    text("not-installed-message", &options.notInstalledMessage);
    if (!readNumber(parser, "width", &options.width, err) ||
        !readNumber(parser, "height", &options.height, err) ||
        !readNumber(parser, "x", &options.sourceX, err) ||
        !readNumber(parser, "y", &options.sourceY, err)) {
        return kExitUsage;
    }
    double timeout = kDefaultTimeoutSeconds;
    if (!readNumber(parser, "timeout", &timeout, err)) {
        return kExitUsage;
    }
    if (!(timeout > 0) || timeout > 86400) {
        err << "lumaro-broadcast pick: --timeout wants seconds between 0 and 86400\n";
        return kExitUsage;
    }
    if (parser.isSet("icon")) {
        QFile icon(parser.value("icon"));
        if (!icon.open(QIODevice::ReadOnly)) {
            err << "lumaro-broadcast pick: cannot read the icon " << icon.fileName() << ": "
                << icon.errorString() << "; going on without an icon\n";
        } else {
            options.iconData = icon.readAll();
        }
    }

    // The menu automation of the picker child.
    const int choices = (parser.isSet("choose") ? 1 : 0) + (parser.isSet("choose-index") ? 1 : 0) +
                        (parser.isSet("dismiss") ? 1 : 0);
    if (choices > 1) {
        err << "lumaro-broadcast pick: --choose, --choose-index and --dismiss exclude each other\n";
        return kExitUsage;
    }
    if (choices == 1) {
        QString choice = QStringLiteral("none");
        if (parser.isSet("choose")) {
            choice = parser.value("choose");
        } else if (parser.isSet("choose-index")) {
            bool ok = false;
            const int index = parser.value("choose-index").toInt(&ok);
            if (!ok || index < 0) {
                err << "lumaro-broadcast pick: --choose-index wants an index from 0\n";
                return kExitUsage;
            }
            choice = QStringLiteral("#%1").arg(index);
        }
        qputenv("LUMARO_MENU_CHOOSE", choice.toUtf8());
    }
    // On a display the picker's real menu takes the choice (clicked once it is shown); without
    // one, or when asked, the automation presenter does.
    const bool display =
        platform::appkit::chooseDisplaySession().session != platform::appkit::DisplaySession::None;
    if (parser.isSet("automation") || (choices == 1 && !display)) {
        qputenv("LUMARO_MENU_BACKEND", "automation");
    }
    if (parser.isSet("record")) {
        qputenv("LUMARO_MENU_RECORD", QFile::encodeName(parser.value("record")));
    }
    options.showSheet = display && !parser.isSet("no-window");
    options.viewParametersOnly = parser.isSet("view-parameters");
    const bool verbose = parser.isSet("verbose");

    auto request = std::make_shared<LMBroadcastHostRequest>(options);
    bool done = false;
    int status = kExitOK;
    request->setHandlers({
        .arrival =
            [&err, verbose](const QString& selector, const QString& arguments) {
                if (verbose) {
                    err << "lumaro-broadcast pick: arrived " << selector << "(" << arguments
                        << ")\n";
                    err.flush();
                }
            },
        .outcome =
            [&](const LMBroadcastHostOutcome& outcome) {
                out << outcome.toJson() << "\n";
                out.flush();
                done = true;
            },
        .pickerExited =
            [&](const QString& why) {
                err << "lumaro-broadcast pick: no outcome: " << why << "\n";
                status = kExitFailure;
                done = true;
            },
        .viewArrived =
            [&](double width, double height) {
                if (options.viewParametersOnly) {
                    out << "{\"view\": {\"width\": " << width << ", \"height\": " << height
                        << "}}\n";
                    out.flush();
                    done = true;
                }
            },
    });
    QString error;
    if (!request->start(&error)) {
        err << "lumaro-broadcast pick: " << error << "\n";
        return kExitFailure;
    }
    if (!platform::dispatch::runMainLoopUntil([&done] { return done; },
                                              static_cast<int>(timeout * 1000))) {
        err << "lumaro-broadcast pick: no outcome within " << timeout
            << " s: " << request->diagnosis() << "\n";
        status = kExitFailure;
    }
    request->stop();
    // The picker and its setup UI are stopped and reaped before the host goes.
    platform::dispatch::runMainLoopUntil([] { return platform::extension::liveChildCount() == 0; },
                                         5000);
    return status;
}

const Command kPick{
    "pick", "ask for a broadcast set-up as a host application would",
    "Usage: lumaro-broadcast pick [options]\n\n"
    "Asks the broadcast picker (\"com.vantor.lumaro.broadcast-picker\", found through the\n"
    "extension registry) for a broadcast set-up, as a host application would, and prints the\n"
    "outcome as one JSON object on standard output, absent values as null:\n"
    "  {\"launchURL\": ..., \"broadcastURL\": ..., \"extensionBundleID\": ..., \"cancelled\": "
    "...}\n"
    "Exits 0 once an outcome arrived (a cancel is an outcome too). Without one within the\n"
    "timeout it says what the host saw (the picker exited, the setup UI was shown, or\n"
    "nothing was chosen) and exits 1. Usage errors exit 2.\n\n"
    "The request (the first input item's user info):\n"
    "  --title TEXT           the menu's title line; %@ is the app name\n"
    "                         (default \"Broadcast %@ to\")\n"
    "  --no-service TEXT      first line of the not-installed menu\n"
    "                         (default \"No broadcast services are installed\")\n"
    "  --find-apps TEXT       second line of the not-installed menu\n"
    "                         (default \"Find broadcast apps\xE2\x80\xA6\")\n"
    "  --width N, --height N  the picker's view size (default 400 by 300)\n"
    "  --x N, --y N           the screen point of the menu, from the bottom left\n"
    "                         (default 200, 200)\n"
    "The host information:\n"
    "  --app-name TEXT        the host's name (default \"Lumaro Host\")\n"
    "  --bundle-id ID         the host's bundle identifier (default com.vantor.lumaro.host)\n"
    "  --icon FILE            an image file sent as the host's icon\n"
    "  --preferred ID         a preferred setup-UI extension: no menu, it is performed at once\n"
    "  --not-installed-title TEXT, --not-installed-message TEXT\n"
    "                         the not-installed alert's texts\n"
    "The picker's menu, chosen by script:\n"
    "  --choose ID            choose the service with this extension identifier (or title)\n"
    "  --choose-index N       choose the entry at index N (0 is the title line)\n"
    "  --dismiss              choose nothing\n"
    "  --automation           use the headless menu (a record and the choice) even on a display\n"
    "  --record FILE          append each shown menu as one JSON line to FILE\n"
    "Waiting and output:\n"
    "  --timeout SECONDS      how long to wait for the outcome (default 30)\n"
    "  --verbose              print every message from the picker on standard error\n"
    "  --no-window            with a display, do not show the picker's view when it asks for\n"
    "                         the sheet\n"
    "  --view-parameters      ask as a host that is not a Prism app: no input items, and the\n"
    "                         picker's view asked for at once with view-service parameters\n"
    "                         (\"isPrismApp\" \"NO\", --width, --height, the request's\n"
    "                         identifier); prints {\"view\": {\"width\": ..., \"height\": ...}}\n"
    "                         once the view arrives, and exits 0\n\n"
    "On a display (X11, or Wayland alone) the picker shows its real menu; the choice options set\n"
    "LUMARO_MENU_CHOOSE, and the entry is clicked once the menu is on screen. Without a display,\n"
    "or with --automation, they also set LUMARO_MENU_BACKEND=automation: nothing is shown and\n"
    "the entry is chosen at once. Without any of them nothing is chosen by script.\n"
    "On X11 the picker's view is shown in a window of this command; on Wayland, where a window\n"
    "of another process cannot be embedded, the picker shows its own window, and the setup UI\n"
    "shows its form in a window of its own.\n"
    "The daemon is reached on the session bus (DBUS_SESSION_BUS_ADDRESS).\n",
    runPick, Command::Windows::WhenDisplayed};

}  // namespace
