// example-setup-ui: an example streaming service's setup-UI extension. Started by the extension
// runtime; its entry is NSExtensionMain.
#include <QString>
#include <cstdio>
#include <cstring>

#include "ExampleSetupViewController.h"
#include "platform/appkit/NSExtensionMain.h"

namespace {

void usage() {
    std::printf(
        "Usage: example-setup-ui [--mode=MODE] [--act=shown|loaded] [--start-when=FILE]\n"
        "An example streaming service's setup UI (extension point\n"
        "\"com.vantor.broadcast-services-setupui\"): reads the host's application information,\n"
        "shows a setup form and completes with the broadcast setup, or with nothing when\n"
        "cancelled.\n"
        "%s"
        "Options (or LUMARO_EXAMPLE_SETUP_MODE / LUMARO_EXAMPLE_SETUP_ACT):\n"
        "  --mode=MODE   interactive (the default with a display), complete (the default\n"
        "                without one), cancel, fail-item (one item cannot be loaded as data),\n"
        "                crash (abort in the middle of the request)\n"
        "  --act=WHEN    answer once the view is shown to the host (shown, the default) or\n"
        "                once the host's information is read (loaded)\n"
        "  --start-when=FILE  (LUMARO_EXAMPLE_SETUP_START_WHEN) the interactive form presses\n"
        "                \"Start\" by itself once FILE exists\n",
        NSExtensionMainUsage());
}

}  // namespace

int main(int argc, char** argv) {
    QString modeText = qEnvironmentVariable("LUMARO_EXAMPLE_SETUP_MODE");
    QString actText = qEnvironmentVariable("LUMARO_EXAMPLE_SETUP_ACT");
    QString startWhen = qEnvironmentVariable("LUMARO_EXAMPLE_SETUP_START_WHEN");
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            usage();
            return 0;
        } else if (arg.startsWith(QLatin1String("--mode="))) {
            modeText = arg.mid(7);
        } else if (arg.startsWith(QLatin1String("--act="))) {
            actText = arg.mid(6);
        } else if (arg.startsWith(QLatin1String("--start-when="))) {
            startWhen = arg.mid(13);
        } else {
            std::fprintf(stderr, "example-setup-ui: unknown option %s (see --help)\n", argv[i]);
            return 64;
        }
    }
    const bool display =
        !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
    const bool offscreen = qEnvironmentVariable("QT_QPA_PLATFORM") == QLatin1String("offscreen");
    auto mode = display && !offscreen ? ExampleSetupViewController::Mode::Interactive
                                      : ExampleSetupViewController::Mode::Complete;
    if (!modeText.isEmpty() && !ExampleSetupViewController::modeFromString(modeText, &mode)) {
        std::fprintf(stderr, "example-setup-ui: unknown mode \"%s\" (see --help)\n",
                     qPrintable(modeText));
        return 64;
    }
    if (!actText.isEmpty() && actText != QLatin1String("shown") &&
        actText != QLatin1String("loaded")) {
        std::fprintf(stderr, "example-setup-ui: unknown --act value \"%s\"\n", qPrintable(actText));
        return 64;
    }
    const auto when = actText == QLatin1String("loaded")
                          ? ExampleSetupViewController::ActWhen::Loaded
                          : ExampleSetupViewController::ActWhen::Shown;
    ExampleSetupViewController::configure(mode, when,
                                          qEnvironmentVariable("LUMARO_EXTENSION_IDENTIFIER"));
    ExampleSetupViewController::startWhenFileExists(startWhen);
    ExampleSetupViewController::registerClass();
    return NSExtensionMain(argc, argv);
}
