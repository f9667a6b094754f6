// The working directory, its set-up, and the names of recording files.
#include <QFileInfo>

#include "filestore/LMLocalizedAppName.h"
#include "logging/LMLog.h"
#include "tests/filestore/FileStoreFixture.h"

using namespace LMExtensions;

namespace lumaro::test {
namespace {

using Paths = FileStoreTest;

TEST_F(Paths, SetupNeverCreatesParentsAndTakesAnythingAtThePathForTheDirectory) {
    // A fresh account without "Library/Application Support"; the log level does not matter.
    const uint32_t level = __LMLogLevel.load();
    LMLogSetLogLevel(3);
    _srSetupTempDirectory(*fm_);
    LMLogSetLogLevel(level);
    EXPECT_FALSE(exists(home_.file(QStringLiteral("Library"))));
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].text, "_srSetupTempDirectory");
    EXPECT_EQ(records[0].type, OS_LOG_TYPE_DEFAULT);
    EXPECT_TRUE(records[1].isNSLog);
    EXPECT_EQ(records[1].text.rfind("error: Error Domain=NSPlatformErrorDomain Code=4 ", 0), 0u)
        << records[1].text;
    EXPECT_EQ(records[2].text, "error creating temp directory");
    EXPECT_EQ(records[2].type, OS_LOG_TYPE_ERROR);

    log_.clear();
    ASSERT_TRUE(QDir().mkpath(home_.file(QStringLiteral("Library/Application Support"))));
    _srSetupTempDirectory(*fm_);
    _srSetupTempDirectory(*fm_);
    EXPECT_TRUE(QFileInfo(workDir_).isDir());
    EXPECT_EQ(log_.count("_srSetupTempDirectory"), 2u);
    EXPECT_EQ(log_.texts().size(), 2u);

    // A plain file at the path counts as the directory: nothing is made or reported.
    log_.clear();
    ASSERT_TRUE(QDir(workDir_).removeRecursively());
    home_.write(QStringLiteral("Library/Application Support/com.vantor.lumarod"), 5);
    _srSetupTempDirectory(*fm_);
    EXPECT_TRUE(QFileInfo(workDir_).isFile());
    EXPECT_EQ(log_.texts(), std::vector<std::string>{"_srSetupTempDirectory"});
}

TEST_F(Paths, RecordingNamesFollowTheKindWithAMonthFirstDateSuffix) {
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    fixClock(QDateTime(QDate(2026, 11, 15), QTime(23, 47, 20)));
    const QString dir =
        home_.path() + QStringLiteral("/Library/Application Support/com.vantor.lumarod/");
    const QString id = QStringLiteral("org.example.Recorder");
    EXPECT_EQ(dateSuffix(*fm_), QStringLiteral("11-15-2026 23-47-20"));
    EXPECT_EQ(outputPath(*fm_, 2, id),
              dir + QStringLiteral("ScreenRecording_11-15-2026 23-47-20.mp4"));
    EXPECT_EQ(outputPath(*fm_, 1, id),
              dir + QStringLiteral("ClipRecording_11-15-2026 23-47-20.mp4"));
    // Every other kind is an app recording; without a desktop entry the name is nil.
    for (const int32_t kind : {0, 3, -1}) {
        EXPECT_EQ(outputPath(*fm_, kind, id),
                  dir + QStringLiteral("(null)_11-15-2026 23-47-20.mp4"));
    }
    EXPECT_EQ(trimmedOutputPath(*fm_, id), dir + QStringLiteral("(null)_trimmed.mp4"));
    EXPECT_FALSE(exists(workDir_)) << "naming a file creates nothing";

    // Shown in the local time zone, whatever zone the clock's date carries.
    fixClock(QDateTime(QDate(2026, 1, 2), QTime(3, 4, 5)).toUTC());
    EXPECT_EQ(dateSuffix(*fm_), QStringLiteral("01-02-2026 03-04-05"));
}

TEST_F(Paths, AppNamesComeFromTheUsersOrTheSystemsDesktopEntryForTheLocale) {
    fixClock(QDateTime(QDate(2026, 11, 15), QTime(23, 47, 20)));
    home_.write(QStringLiteral("data/applications/org.example.Recorder.desktop"), 0,
                "# comment\n[Desktop Entry]\nName = Recorder\nName[de]=Aufnahme\n"
                "Name[pt_BR]=Gravador\\sDigital\n[Desktop Action New]\nName=Not this one\n");
    home_.write(QStringLiteral("system-data/applications/org.example.Recorder.desktop"), 0,
                "[Desktop Entry]\nName=Shadowed\n");
    home_.write(QStringLiteral("system-data/applications/org.example.Other.desktop"), 0,
                "[Desktop Entry]\nName=Café/Other\n");
    const QString id = QStringLiteral("org.example.Recorder");

    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    EXPECT_EQ(outputPath(*fm_, 0, id), entry(QStringLiteral("Recorder_11-15-2026 23-47-20.mp4")));
    EXPECT_EQ(trimmedOutputPath(*fm_, id), entry(QStringLiteral("Recorder_trimmed.mp4")));
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Austria));
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(id), QStringLiteral("Aufnahme"));
    QLocale::setDefault(QLocale(QLocale::Portuguese, QLocale::Brazil));
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(id), QStringLiteral("Gravador Digital"));
    QLocale::setDefault(QLocale(QLocale::Portuguese, QLocale::Portugal));
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(id), QStringLiteral("Recorder"));

    // A name stays one path component; an identifier that cannot name an entry gives nil.
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(QStringLiteral("org.example.Other")),
              QStringLiteral("Café-Other"));
    EXPECT_TRUE(_lmLocalizedAppNameFromBundleID(QStringLiteral("../applications/") + id).isNull());
    EXPECT_TRUE(_lmLocalizedAppNameFromBundleID(QString()).isNull());
}

}  // namespace
}  // namespace lumaro::test
