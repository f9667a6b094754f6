// The broadcast set-up request through LMDaemonProxy against a bare QtDBus asynchronous call of
// the same member with the same arguments, to the same daemon (whoever owns the daemon's name on
// DBUS_SESSION_BUS_ADDRESS), side by side: sequential latency (one request at a time, the next
// sent when the previous reply has arrived) and pipelined throughput (every request sent at once,
// timed until the last reply). Rounds alternate which side goes first; medians are printed.
// The pipelined figure is broken down into the time to hand every request to the connection
// (building the call, marshalling, the receiver of its reply) and the time from there to the last
// reply (the daemon, unmarshalling and delivering each reply): where the proxy's extra time goes.
// A second bare client on a connection of its own runs beside them as a control: its ratio to the
// first is what the machine's scheduling alone makes of two identical clients in that run.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QSemaphore>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <functional>
#include <vector>

#include "daemon/LMDaemonProtocol.h"
#include "daemon/LMDaemonProxy.h"
#include "platform/xpc/NSXPCInterface.h"

namespace {

constexpr const char* kSelector =
    "setupBroadcastWithHostBundleID:broadcastExtensionBundleID:broadcastConfigurationData:"
    "userInfo:handler:";

struct Request {
    QString host = QStringLiteral("com.example.bench.host");
    QString service = QStringLiteral("com.example.bench.service");
    QByteArray configuration = QByteArray(256, 'c');
    QVariantMap userInfo{{QStringLiteral("title"), QStringLiteral("Benchmark broadcast")},
                         {QStringLiteral("round"), 1}};
};

// Receives the bare calls' answers on a thread of its own, as the proxy's connection does.
class BareReceiver final : public QObject {
    Q_OBJECT
public:
    std::function<void(bool)> done;
public Q_SLOTS:
    void onReply(const QDBusMessage& reply) { done(reply.arguments().size() == 1); }
    void onError(const QDBusError&, const QDBusMessage&) { done(false); }
};

class Bare {
public:
    explicit Bare(const Request& r) : request_(r) {
        bus_ = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("bare")));
        thread_.start();
        receiver_.moveToThread(&thread_);
        const NSXPCInterface iface(LMDaemonProtocol());
        path_ = iface.objectPath();
        interface_ = iface.dbusInterface();
        member_ = platform::xpc::memberForSelector(kSelector);
    }
    ~Bare() {
        thread_.quit();
        thread_.wait();
    }
    bool connected() const { return bus_->isConnected(); }
    void onDone(std::function<void(bool)> done) { receiver_.done = std::move(done); }

    // One call, built as any QtDBus client would build it: objects as "av" of one element.
    void send() {
        QDBusMessage message = QDBusMessage::createMethodCall(
            QString::fromLatin1(kLMDaemonServiceName), path_, interface_, member_);
        message.setArguments({QVariant(QVariantList{request_.host}),
                              QVariant(QVariantList{request_.service}),
                              QVariant(QVariantList{request_.configuration}),
                              QVariant(QVariantList{request_.userInfo})});
        bus_->callWithCallback(message, &receiver_, SLOT(onReply(QDBusMessage)),
                               SLOT(onError(QDBusError, QDBusMessage)), -1);
    }

private:
    const Request& request_;
    std::unique_ptr<QDBusConnection> bus_;
    QThread thread_;
    BareReceiver receiver_;
    QString path_;
    QString interface_;
    QString member_;
};

struct Side {
    const char* name;
    std::function<void()> send;  // one request; its answer calls answered(ok)
};

std::atomic<int> gAnswered{0};
std::atomic<int> gFailed{0};
std::atomic<int> gExpected{0};
QSemaphore gLast;

void answered(bool ok) {
    if (!ok) {
        gFailed++;
    }
    if (++gAnswered == gExpected.load()) {
        gLast.release();
    }
}

// Microseconds per request, one at a time.
double sequential(const Side& side, int count) {
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < count; ++i) {
        gAnswered = 0;
        gExpected = 1;
        side.send();
        gLast.acquire();
    }
    return double(timer.nsecsElapsed()) / 1000.0 / count;
}

// Microseconds per request, all sent before the first answer is waited for: in all, and of that
// the sending alone, and the processor time of this whole process (every thread: the sender,
// QtDBus's and the connection's), which scheduling does not stretch.
struct Pipelined {
    double total;
    double sending;
    double processor;
};
double processorMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e6 + double(now.tv_nsec) / 1000.0;
}
Pipelined pipelined(const Side& side, int count) {
    gAnswered = 0;
    gExpected = count;
    const double processorStart = processorMicroseconds();
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < count; ++i) {
        side.send();
    }
    const double sent = double(timer.nsecsElapsed());
    gLast.acquire();
    return {double(timer.nsecsElapsed()) / 1000.0 / count, sent / 1000.0 / count,
            (processorMicroseconds() - processorStart) / count};
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Times the broadcast set-up request through LMDaemonProxy against a bare "
                       "QtDBus asynchronous call of the same member, to the daemon on the session "
                       "bus. Start one first (see bench/daemon/run.sh)."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("sequential"),
                      QStringLiteral("Requests per sequential round (default 2000)."),
                      QStringLiteral("N"), QStringLiteral("2000")});
    parser.addOption({QStringLiteral("pipelined"),
                      QStringLiteral("Requests per pipelined round (default 10000)."),
                      QStringLiteral("N"), QStringLiteral("10000")});
    parser.addOption({QStringLiteral("rounds"),
                      QStringLiteral("Rounds of each, alternating the order (default 5)."),
                      QStringLiteral("N"), QStringLiteral("5")});
    parser.process(app);
    const int sequentialCount = std::max(1, parser.value(QStringLiteral("sequential")).toInt());
    const int pipelinedCount = std::max(1, parser.value(QStringLiteral("pipelined")).toInt());
    const int rounds = std::max(1, parser.value(QStringLiteral("rounds")).toInt());

    const Request request;
    auto proxy = LMDaemonProxy::daemonProxy();
    Bare bare(request);
    Bare control(request);
    if (!bare.connected() || !control.connected()) {
        std::fprintf(stderr, "daemon_request_bench: no session bus\n");
        return 1;
    }
    bare.onDone(answered);
    control.onDone(answered);
    constexpr int kSides = 3;
    const Side sides[kSides] = {
        {"LMDaemonProxy",
         [&] {
             proxy->setupBroadcastWithHostBundleID(request.host, request.service,
                                                   request.configuration, request.userInfo,
                                                   [](const NSErrorPtr& e) { answered(!e); });
         }},
        {"bare QtDBus",
         [&] {
             bare.send();
         }},
        {"bare (control)",
         [&] {
             control.send();
         }},
    };
    // Wait until the daemon answers (it may still be starting), for up to ten seconds.
    QElapsedTimer waited;
    waited.start();
    for (;;) {
        gExpected = 1;
        gAnswered = 0;
        gFailed = 0;
        bare.send();
        if (gLast.tryAcquire(1, 2000) && gFailed.load() == 0) {
            break;
        }
        if (waited.elapsed() > 10000) {
            std::fprintf(stderr, "daemon_request_bench: the daemon does not answer\n");
            return 1;
        }
        QThread::msleep(50);
    }
    for (const Side& side : sides) {  // warm both paths up
        sequential(side, 200);
        pipelined(side, 1000);
    }
    gFailed = 0;

    std::vector<double> seq[kSides];
    std::vector<double> pipe[kSides];
    std::vector<double> sending[kSides];
    std::vector<double> processor[kSides];
    for (int r = 0; r < rounds; ++r) {
        // Each round turns the order over, so no side always follows the same one.
        for (int k = 0; k < kSides; ++k) {
            const int s = (r + k) % kSides;
            seq[s].push_back(sequential(sides[s], sequentialCount));
        }
        for (int k = 0; k < kSides; ++k) {
            const int s = (r + kSides - 1 - k) % kSides;
            const Pipelined p = pipelined(sides[s], pipelinedCount);
            pipe[s].push_back(p.total);
            sending[s].push_back(p.sending);
            processor[s].push_back(p.processor);
        }
    }
    if (gFailed.load() != 0) {
        std::fprintf(stderr, "daemon_request_bench: %d requests failed\n", gFailed.load());
        return 1;
    }
    const double sp = median(seq[0]);
    const double sb = median(seq[1]);
    const double pp = median(pipe[0]);
    const double pb = median(pipe[1]);
    std::printf("%s\n", kSelector);
    std::printf("sequential, %d requests x %d rounds (median µs per request):\n", sequentialCount,
                rounds);
    std::printf("  %-14s %8.1f\n  %-14s %8.1f\n  ratio          %8.3f\n", sides[0].name, sp,
                sides[1].name, sb, sp / sb);
    std::printf("  control ratio  %8.3f  (%s against %s)\n", median(seq[2]) / sb, sides[2].name,
                sides[1].name);
    std::printf("pipelined, %d requests x %d rounds (median µs per request; total ms):\n",
                pipelinedCount, rounds);
    std::printf("  %-14s %8.1f  (%.0f ms)\n  %-14s %8.1f  (%.0f ms)\n  ratio          %8.3f\n",
                sides[0].name, pp, pp * pipelinedCount / 1000.0, sides[1].name, pb,
                pb * pipelinedCount / 1000.0, pp / pb);
    std::printf("  control ratio  %8.3f  (%s against %s)\n", median(pipe[2]) / pb, sides[2].name,
                sides[1].name);
    const double sendP = median(sending[0]);
    const double sendB = median(sending[1]);
    std::printf("pipelined, processor time of the client process (median µs per request):\n");
    for (int s = 0; s < kSides; ++s) {
        std::printf("  %-14s %8.1f\n", sides[s].name, median(processor[s]));
    }
    std::printf("  ratio          %8.3f\n  control ratio  %8.3f\n",
                median(processor[0]) / median(processor[1]),
                median(processor[2]) / median(processor[1]));
    std::printf("pipelined, where the time goes (median µs per request):\n");
    std::printf("  %-14s %8s %8s\n", "", "sending", "replies");
    for (int s = 0; s < 2; ++s) {
        const double send = s == 0 ? sendP : sendB;
        std::printf("  %-14s %8.1f %8.1f\n", sides[s].name, send, (s == 0 ? pp : pb) - send);
    }
    std::printf("  the proxy's extra: %.1f µs sending, %.1f µs in replies\n", sendP - sendB,
                (pp - sendP) - (pb - sendB));
    return 0;
}

#include "daemon_request_bench.moc"
