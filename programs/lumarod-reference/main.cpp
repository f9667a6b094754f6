// lumarod-reference: the reference daemon. Argument parsing and wiring only.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <cstdio>
#include <memory>

#include "daemon/LMDaemonProtocol.h"
#include "daemon/reference/LMReferenceDaemon.h"

static const char* const kDescription =
    "A reference daemon for development, tests and the demo. It owns the bus name\n"
    "\"com.vantor.lumarod\" on the session bus (DBUS_SESSION_BUS_ADDRESS) and accepts every\n"
    "request of the daemon interface (com.vantor.lumarod.Daemon at /com/vantor/lumarod). It\n"
    "records nothing on screen.\n"
    "\n"
    "Each request received is written as one JSON object per line to the --record file (or\n"
    "standard output) with \"selector\", \"args\" (data as base64, absent values as null) and\n"
    "\"sender\" (the client's unique bus name). Requests that carry a sandbox token\n"
    "(consumeSandboxExtension:processNewConnection: and the extensionToken: variants) are\n"
    "verified (a file request's token must also grant writing in the folder of the file it\n"
    "names); the line says \"tokenValid\" and then \"tokenClass\" and \"tokenPath\", or\n"
    "\"tokenReason\".\n"
    "\n"
    "Every reply block is answered, with success unless --fail names the selector, in which\n"
    "case its error parameter carries an error of domain com.vantor.lumarod.reference and the\n"
    "given code. --callback calls that client callback (com.vantor.lumarod.Client at\n"
    "/com/vantor/lumarod/Client) on the requesting client after each request, and records a\n"
    "\"callback\" line.\n"
    "\n"
    "On a desktop, D-Bus activation starts it on first use: see com.vantor.lumarod.service\n"
    "and lumarod-reference.service (systemd user unit), installed with the program.";

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("lumarod-reference"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(kDescription));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("record"),
                      QStringLiteral("Append one JSON line per request to FILE (default: stdout)."),
                      QStringLiteral("FILE")});
    parser.addOption({QStringLiteral("fail"),
                      QStringLiteral("Answer SELECTOR's reply with an error of CODE (repeatable)."),
                      QStringLiteral("SELECTOR=CODE")});
    parser.addOption({QStringLiteral("callback"),
                      QStringLiteral("Call this client callback after each request (repeatable)."),
                      QStringLiteral("SELECTOR")});
    parser.addOption({QStringLiteral("introspect"),
                      QStringLiteral("Print the introspection XML of the daemon's or the "
                                     "client's interface and exit."),
                      QStringLiteral("daemon|client")});
    parser.process(app);

    if (parser.isSet(QStringLiteral("introspect"))) {
        const QString which = parser.value(QStringLiteral("introspect"));
        if (which != QLatin1String("daemon") && which != QLatin1String("client")) {
            std::fprintf(stderr, "lumarod-reference: --introspect wants daemon or client\n");
            return 2;
        }
        const NSXPCInterface iface(which == QLatin1String("daemon") ? LMDaemonProtocol()
                                                                    : LMClientProtocol());
        std::fputs(LMIntrospectionDocument(iface).toUtf8().constData(), stdout);
        return 0;
    }

    LMReferenceDaemonOptions options;
    options.recordPath = parser.value(QStringLiteral("record"));
    for (const QString& failure : parser.values(QStringLiteral("fail"))) {
        QString selector;
        int64_t code = 0;
        if (!LMReferenceDaemon::parseFailure(failure, &selector, &code)) {
            std::fprintf(stderr, "lumarod-reference: --fail wants SELECTOR=CODE, not \"%s\"\n",
                         failure.toUtf8().constData());
            return 2;
        }
        options.failures[selector] = code;
    }
    options.callbacks = parser.values(QStringLiteral("callback"));

    auto daemon = std::make_shared<LMReferenceDaemon>(options);
    QString error;
    if (!daemon->start(&error)) {
        std::fprintf(stderr, "lumarod-reference: %s\n", error.toUtf8().constData());
        return 1;
    }
    return QCoreApplication::exec();
}
