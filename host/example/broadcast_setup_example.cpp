// An application asking for a broadcast set-up through the host library:
//
//     broadcast-setup-example [PREFERRED-EXTENSION]
//
// prints the outcome (or why there is none) and exits 0 when the picker reported an outcome.
#include <QCoreApplication>
#include <cstdio>
#include <cstring>

#include <lumaro-broadcast-host/BroadcastSetup.h>

int main(int argc, char** argv) {
    if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::printf("Usage: broadcast-setup-example [PREFERRED-EXTENSION]\n"
                    "Asks the broadcast picker for a broadcast set-up and prints the outcome.\n");
        return 0;
    }
    QCoreApplication app(argc, argv);
    lumaro::broadcast::SetupRequest request;
    request.setHost("Example Host", "com.example.broadcast-host");
    request.setAnchor(200, 200);
    request.setTimeLimit(60);
    if (argc > 1) {
        request.setPreferredExtension(argv[1]);
    }
    int status = 1;
    std::string error;
    const bool started = request.start(
        [&status](const lumaro::broadcast::SetupResult& result) {
            if (result.finished) {
                std::printf("broadcast URL: %s\nextension: %s\ncancelled: %s\n",
                            result.broadcastURL.c_str(), result.extensionBundleID.c_str(),
                            result.cancelled ? "yes" : "no");
                status = 0;
            } else {
                std::fprintf(stderr, "broadcast-setup-example: no outcome: %s\n",
                             result.failure.c_str());
            }
            QCoreApplication::quit();
        },
        &error);
    if (!started) {
        std::fprintf(stderr, "broadcast-setup-example: %s\n", error.c_str());
        return 1;
    }
    app.exec();
    return status;
}
