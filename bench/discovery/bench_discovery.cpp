// Times the setup-UI query over a folder of generated manifests.
//
//   bench_discovery generate DIR COUNT   writes COUNT manifests into DIR
//   bench_discovery first DIR            times this process's first query, as a program that
//                                        starts and asks once does: prints the milliseconds
//   bench_discovery read DIR             times reading every manifest of DIR once (open, fstat,
//                                        read, close), the floor of any query without an index
//   bench_discovery query DIR [RUNS]     times the query in one process: every manifest read
//                                        again (index and in-process caches dropped), from the
//                                        folder's index (in-process caches dropped), and warm;
//                                        then the steps of a read without the index one by one
//
// Only the process's own caches can be dropped; the kernel's page cache stays warm, so every
// figure here reads from memory, not from disk.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QTextStream>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <vector>

#include "discovery/LMExtensions.h"
#include "platform/extension/JSONSchema.h"
#include "platform/extension/NSExtensionManifest.h"
#include "platform/extension/NSExtensionRegistry.h"
#include "platform/log/os_log.h"

namespace {

const QString kPoint = QStringLiteral("com.vantor.broadcast-services-setupui");

int generate(const QString& dir, int count) {
    QDir().mkpath(dir);
    for (int i = 0; i < count; ++i) {
        const QString id = QStringLiteral("com.bench.service%1.setupui").arg(i, 5, 10, QChar('0'));
        QFile file(QStringLiteral("%1/%2.json").arg(dir, id));
        if (!file.open(QIODevice::WriteOnly)) {
            std::fprintf(stderr, "bench_discovery: cannot write %s\n", qPrintable(file.fileName()));
            return 1;
        }
        file.write(
            QStringLiteral(
                "{\n  \"identifier\": \"%1\",\n  \"NSExtension\": {\n"
                "    \"NSExtensionPointIdentifier\": \"%2\",\n"
                "    \"NSExtensionActivationRule\": "
                "{\"NSExtensionActivationSupportsBroadcastSetup\": true},\n"
                "    \"NSExtensionContainingViewControllerClass\": \"SetupViewController\",\n"
                "    \"NSExtensionPrincipalClass\": \"SetupViewController\"\n  },\n"
                "  \"infoDictionary\": {\"CFBundleDisplayName\": \"Service %3\", "
                "\"CFBundleName\": \"Service%3\", \"CFBundleVersion\": \"1.0\"},\n"
                "  \"platform\": %4,\n"
                "  \"containingApplication\": \"../apps/service%3\",\n"
                "  \"executable\": \"../apps/service%3/setup-ui\"\n}\n")
                .arg(id, kPoint)
                .arg(i)
                .arg(i % 5 == 0 ? 6 : 1)
                .toUtf8());
    }
    return 0;
}

double runQuery(size_t* found) {
    const auto start = std::chrono::steady_clock::now();
    std::promise<size_t> done;
    LMExtensions::extensionsWithMatchingPointName(
        kPoint, [&done](std::vector<NSExtensionPtr> extensions, NSErrorPtr) {
            done.set_value(extensions.size());
        });
    *found = done.get_future().get();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

void report(const char* label, std::vector<double> times, size_t found) {
    std::sort(times.begin(), times.end());
    std::printf("%-8s query: median %8.2f ms, fastest %8.2f ms over %zu runs (%zu extensions)\n",
                label, times[times.size() / 2], times.front(), times.size(), found);
}

QStringList manifestPaths(const QString& dir) {
    QStringList paths;
    for (const QString& name : QDir(dir).entryList({"*.json"}, QDir::Files, QDir::Name)) {
        paths << dir + '/' + name;
    }
    return paths;
}

void removeIndexes(const QString& dir) {
    QFile::remove(dir + QStringLiteral("/.lumaro-extensions.index"));
    QDir(qEnvironmentVariable("XDG_CACHE_HOME") + QStringLiteral("/lumaro/extension-index"))
        .removeRecursively();
}

int query(const QString& dir, int runs) {
    qputenv("LUMARO_EXTENSIONS_PATH", dir.toUtf8());
    platform::log::setEnabledTypes(platform::log::kErrorTypeBit);
    platform::log::LogCapture quiet;  // the NSLog line per extension would dominate otherwise
    size_t found = 0;
    std::vector<double> rebuilt;
    std::vector<double> indexed;
    std::vector<double> warm;
    for (int i = 0; i < runs; ++i) {
        removeIndexes(dir);
        NSExtensionRegistry::sharedRegistry()->dropCaches();
        rebuilt.push_back(runQuery(&found));
        quiet.clear();
    }
    for (int i = 0; i < runs; ++i) {
        NSExtensionRegistry::sharedRegistry()->dropCaches();
        indexed.push_back(runQuery(&found));
        quiet.clear();
    }
    for (int i = 0; i < runs; ++i) {
        warm.push_back(runQuery(&found));
        quiet.clear();
    }
    report("no index", rebuilt, found);
    report("index", indexed, found);
    report("warm", warm, found);
    return 0;
}

// One query, the first of this process; the NSLog lines go to standard error as deployed.
int first(const QString& dir) {
    qputenv("LUMARO_EXTENSIONS_PATH", dir.toUtf8());
    size_t found = 0;
    const double ms = runQuery(&found);
    std::printf("%.3f %zu\n", ms, found);
    return 0;
}

// Reading every manifest once, as the registry would without an index.
int readAll(const QString& dir) {
    const auto start = std::chrono::steady_clock::now();
    const QStringList paths = manifestPaths(dir);
    size_t bytes = 0;
    for (const QString& path : paths) {
        QByteArray content;
        QString problem;
        platform::extension::readManifestFile(path, &content, &problem);
        bytes += static_cast<size_t>(content.size());
    }
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::printf("%.3f %zu\n", ms, bytes);
    return 0;
}

// Where a cold query's time goes: each step of reading a manifest, over every file, alone.
int phases(const QString& dir) {
    using Clock = std::chrono::steady_clock;
    auto ms = [](Clock::time_point start) {
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    };
    const QStringList paths = manifestPaths(dir);
    std::vector<QByteArray> contents(paths.size());
    auto start = Clock::now();
    for (qsizetype i = 0; i < paths.size(); ++i) {
        QString problem;
        platform::extension::readManifestFile(paths[i], &contents[i], &problem);
    }
    std::printf("  read (open, fstat, read, close): %8.2f ms\n", ms(start));
    std::vector<QJsonDocument> documents(paths.size());
    start = Clock::now();
    for (qsizetype i = 0; i < paths.size(); ++i) {
        documents[i] = QJsonDocument::fromJson(contents[i]);
    }
    std::printf("  JSON parse:                      %8.2f ms\n", ms(start));
    start = Clock::now();
    {
        // The same parse split over two threads (this machine has two cores).
        const size_t half = contents.size() / 2;
        auto other = std::async(std::launch::async, [&] {
            for (size_t i = half; i < contents.size(); ++i) {
                documents[i] = QJsonDocument::fromJson(contents[i]);
            }
        });
        for (size_t i = 0; i < half; ++i) {
            documents[i] = QJsonDocument::fromJson(contents[i]);
        }
        other.get();
    }
    std::printf("  JSON parse on two threads:       %8.2f ms\n", ms(start));
    start = Clock::now();
    const platform::extension::JSONSchema schema(platform::extension::manifestSchema());
    for (const QJsonDocument& document : documents) {
        schema.validate(document.object());
    }
    std::printf("  schema check:                    %8.2f ms\n", ms(start));
    start = Clock::now();
    for (qsizetype i = 0; i < paths.size(); ++i) {
        QString problem;
        platform::extension::extensionFromManifestData(contents[i], paths[i], &problem);
    }
    std::printf("  parse + check + record:          %8.2f ms\n", ms(start));
    start = Clock::now();
    for (qsizetype i = 0; i < paths.size(); ++i) {
        NSLog("NSExtensionPointIdentifier %@ _extensionBundle %@", kPoint, paths[i]);
    }
    std::printf("  one NSLog line each (captured):  %8.2f ms\n", ms(start));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.isEmpty() || args.contains("--help") || args.contains("-h")) {
        std::printf(
            "Usage: bench_discovery generate DIR COUNT\n"
            "       bench_discovery first DIR\n"
            "       bench_discovery read DIR\n"
            "       bench_discovery query DIR [RUNS]\n\n"
            "Times the broadcast setup-UI query over the manifests in DIR: the first query of a\n"
            "new process, the raw read of every manifest, and, in one process, the query without\n"
            "the folder's index, with it, and warm. See run.sh.\n");
        return args.isEmpty() ? 2 : 0;
    }
    if (args[0] == "generate" && args.size() == 3) {
        return generate(args[1], args[2].toInt());
    }
    if (args[0] == "first" && args.size() == 2) {
        return first(args[1]);
    }
    if (args[0] == "read" && args.size() == 2) {
        return readAll(args[1]);
    }
    if (args[0] == "query" && args.size() >= 2) {
        const int status = query(args[1], args.size() > 2 ? std::max(1, args[2].toInt()) : 5);
        platform::log::LogCapture quiet;
        std::printf("cold query, step by step:\n");
        return status != 0 ? status : phases(args[1]);
    }
    std::fprintf(stderr, "bench_discovery: bad arguments (see --help)\n");
    return 2;
}
