// lumaro-broadcast-portal: the picker's D-Bus front door (com.vantor.lumaro.BroadcastPicker),
// started by D-Bus activation. Argument parsing and wiring only: see BroadcastPickerPortal.h.
#include <QCoreApplication>
#include <QDBusConnection>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/portal/BroadcastPickerPortal.h"

namespace {

void usage() {
    std::printf(
        "Usage: lumaro-broadcast-portal [--idle-exit SECONDS] [--time-limit SECONDS]\n"
        "The broadcast picker's D-Bus front door: owns com.vantor.lumaro.BroadcastPicker on the\n"
        "session bus and serves SetupBroadcast(s parent_window, a{sv} options) -> (o handle) at\n"
        "/com/vantor/lumaro/BroadcastPicker; the handle emits Response(u, a{sv}) once.\n"
        "Started by D-Bus activation; there is no need to run it by hand.\n\n"
        "  --idle-exit SECONDS   quit after this long without requests (default 30;\n"
        "                        LUMARO_PORTAL_IDLE_EXIT; 0: never)\n"
        "  --time-limit SECONDS  end a request that has no outcome after this long with\n"
        "                        response 2 (default 900; LUMARO_PORTAL_TIME_LIMIT)\n");
}

bool seconds(const char* text, int* value) {
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || number < 0 || number > 86400) {
        return false;
    }
    *value = static_cast<int>(number);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    BroadcastPickerPortal::Settings settings;
    const struct {
        const char* option;
        const char* environment;
        int* value;
    } knobs[] = {{"--idle-exit", "LUMARO_PORTAL_IDLE_EXIT", &settings.idleExitSeconds},
                 {"--time-limit", "LUMARO_PORTAL_TIME_LIMIT", &settings.requestTimeLimitSeconds}};
    for (const auto& knob : knobs) {
        const char* text = std::getenv(knob.environment);
        if (text != nullptr && *text != '\0' && !seconds(text, knob.value)) {
            std::fprintf(stderr, "lumaro-broadcast-portal: %s wants seconds, not \"%s\"\n",
                         knob.environment, text);
            return 2;
        }
    }
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            usage();
            return 0;
        }
        bool known = false;
        for (const auto& knob : knobs) {
            if (std::strcmp(argv[i], knob.option) == 0) {
                known = true;
                if (i + 1 >= argc || !seconds(argv[i + 1], knob.value)) {
                    std::fprintf(stderr, "lumaro-broadcast-portal: %s wants seconds (see --help)\n",
                                 knob.option);
                    return 2;
                }
                ++i;
            }
        }
        if (!known) {
            std::fprintf(stderr, "lumaro-broadcast-portal: unknown option %s (see --help)\n",
                         argv[i]);
            return 2;
        }
    }

    QCoreApplication app(argc, argv);
    BroadcastPickerPortal portal(QDBusConnection::sessionBus(), settings);
    QString error;
    if (!portal.start(&error)) {
        std::fprintf(stderr, "lumaro-broadcast-portal: %s\n", qPrintable(error));
        return 1;
    }
    return app.exec();
}
