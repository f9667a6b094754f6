// lumaro-filestore-selfcheck: walks the recording file store through one round in the current
// home folder: sets up the working directory, names a screen, a clip and an app recording, checks
// the free space, then writes a small file at each name and removes them all through the store.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLocale>
#include <QSet>
#include <QStringList>
#include <cstdio>
#include <cstdlib>

#include "filestore/LMFileManagerExtensions.h"
#include "filestore/LMLocalizedAppName.h"
#include "platform/log/os_log.h"

namespace {

const char* const kUsage =
    "usage: lumaro-filestore-selfcheck [--bundle-id ID] [--verbose]\n"
    "\n"
    "Runs the recording file store once in $HOME: prepares ~/Library/Application Support as a\n"
    "desktop session would, sets up the store's working directory, prints a screen, a clip and an\n"
    "app recording path, the free space and both space verdicts, then writes a small file at each\n"
    "path and removes everything in the working directory through the store.\n"
    "Run it with HOME pointing at a throw-away folder: it empties the working directory.\n"
    "\n"
    "  --bundle-id ID  the app of the app recording (default org.example.Recorder)\n"
    "  --verbose       also show the store's default-type log lines (errors are always shown)\n"
    "  --help          this text\n";

void line(const QString& text) {
    std::fputs(qPrintable(text + QLatin1Char('\n')), stdout);
    std::fflush(stdout);
}

QString bytes(uint64_t n) {
    const QString exact = QLocale(QLocale::English).toString(static_cast<qulonglong>(n));
    if (n < 1'000'000'000) {
        return exact + QStringLiteral(" bytes");
    }
    return QStringLiteral("%1 bytes (%2 GB)")
        .arg(exact)
        .arg(static_cast<double>(n) / 1e9, 0, 'f', 1);
}

QString yesNo(bool value) {
    return value ? QStringLiteral("yes") : QStringLiteral("no");
}

QStringList entries(const QString& directory) {
    return QDir(directory).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QString bundleID = QStringLiteral("org.example.Recorder");
    bool verbose = false;
    const QStringList args = QCoreApplication::arguments().mid(1);
    for (qsizetype i = 0; i < args.size(); ++i) {
        if (args[i] == QLatin1String("--help") || args[i] == QLatin1String("-h")) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (args[i] == QLatin1String("--verbose")) {
            verbose = true;
        } else if (args[i] == QLatin1String("--bundle-id") && i + 1 < args.size()) {
            bundleID = args[++i];
        } else {
            std::fprintf(stderr, "lumaro-filestore-selfcheck: unknown argument %s\n%s",
                         qPrintable(args[i]), kUsage);
            return 2;
        }
    }
    if (!verbose && qEnvironmentVariableIsEmpty("LUMARO_LOG_TYPES")) {
        platform::log::setEnabledTypes(platform::log::kErrorTypeBit);
    }

    auto fm = NSFileManager::defaultManager();
    const QString home = QDir::homePath();
    const QString support = home + QStringLiteral("/Library/Application Support");
    const QString workDir = LMExtensions::_srTempPath(*fm);
    bool ok = true;

    line(QStringLiteral("Recording file store self-check"));
    line(QStringLiteral("  home folder        %1").arg(home));
    line(QStringLiteral("  working directory  %1").arg(workDir));
    line({});

    // The store never creates parents: the desktop session provides this folder.
    const bool hadSupport = QFileInfo(support).isDir();
    if (!hadSupport && !QDir().mkpath(support)) {
        line(QStringLiteral("error: could not create %1").arg(support));
        ok = false;
    }
    line(QStringLiteral("1. ~/Library/Application Support: %1")
             .arg(hadSupport ? QStringLiteral("already there") : QStringLiteral("created")));
    LMExtensions::_srSetupTempDirectory(*fm);
    const bool isDir = QFileInfo(workDir).isDir();
    ok = ok && isDir;
    line(QStringLiteral("2. working directory set up: %1")
             .arg(isDir ? QStringLiteral("yes") : QStringLiteral("NO (see the error above)")));
    line({});

    const QString appName = LMExtensions::_lmLocalizedAppNameFromBundleID(bundleID);
    const QStringList paths = {
        LMExtensions::outputPath(*fm, LMExtensions::kLMRecordingKindScreen, bundleID),
        LMExtensions::outputPath(*fm, LMExtensions::kLMRecordingKindClip, bundleID),
        LMExtensions::outputPath(*fm, 0, bundleID)};
    line(QStringLiteral("3. recording paths"));
    line(QStringLiteral("   screen  %1").arg(paths[0]));
    line(QStringLiteral("   clip    %1").arg(paths[1]));
    line(QStringLiteral("   app     %1").arg(paths[2]));
    line(
        QStringLiteral("           (%1: %2)")
            .arg(bundleID, appName.isNull()
                               ? QStringLiteral("no desktop entry installed, so the name is (null)")
                               : QStringLiteral("desktop entry name \"%1\"").arg(appName)));
    line({});

    line(QStringLiteral("4. space"));
    line(QStringLiteral("   free                          %1")
             .arg(bytes(LMExtensions::_srDeviceFreeDiskSpace(*fm))));
    line(QStringLiteral("   working directory entry size  %1")
             .arg(bytes(static_cast<uint64_t>(LMExtensions::_srSizeOfTempDir(*fm, nullptr)))));
    line(QStringLiteral("   enough to start a recording     %1  (free > 100,000,000 bytes)")
             .arg(yesNo(LMExtensions::_srDeviceHasSufficientFreeSpaceForRecording(*fm))));
    line(QStringLiteral("   enough to continue a recording  %1  (2 x size + 20,000,000 < free)")
             .arg(yesNo(LMExtensions::_srDeviceHasSufficientSpaceForCurrentRecording(*fm))));
    line({});

    line(QStringLiteral("5. writing a small file at each path"));
    for (const QString& path : paths) {
        QFile file(path);
        const bool written = file.open(QIODevice::WriteOnly) && file.write("self-check\n") > 0;
        ok = ok && written;
        line(QStringLiteral("   %1 %2")
                 .arg(written ? QStringLiteral("wrote ") : QStringLiteral("FAILED"),
                      QFileInfo(path).fileName()));
    }
    line({});

    line(QStringLiteral("6. removing everything in the working directory through the store"));
    const QStringList before = entries(workDir);
    const int64_t removedBytes = LMExtensions::_srDeleteAllTempFiles(*fm);
    const QStringList after = entries(workDir);
    const QSet<QString> left(after.begin(), after.end());
    for (const QString& name : before) {
        if (!left.contains(name)) {
            line(QStringLiteral("   removed %1").arg(name));
        }
    }
    line(QStringLiteral("   %1 entries, %2 bytes removed; %3 left")
             .arg(before.size() - after.size())
             .arg(removedBytes)
             .arg(after.size()));
    ok = ok && after.isEmpty();
    line({});
    line(ok ? QStringLiteral("Self-check passed.") : QStringLiteral("Self-check FAILED."));
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
