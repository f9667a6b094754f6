// The working directory, its set-up, and the names of recording files.
#include <QFileInfo>

#include "filestore/LMLocalizedAppName.h"
#include "logging/LMLog.h"
#include "tests/filestore/FileStoreFixture.h"

using namespace LMExtensions;

namespace lumaro::test {
namespace {

using Paths = FileStoreTest;

TEST_F(Paths, WorkingDirectoryIsUnderTheHomeFolderWithoutTrailingSlash) {
    EXPECT_EQ(_srTempPath(*fm_),
              home_.path() + QStringLiteral("/Library/Application Support/com.vantor.lumarod"));
}

TEST_F(Paths, SetupCreatesTheDirectoryOnlyWhenNothingIsThereAndNeverItsParents) {
    // A fresh account: no "Library/Application Support" yet.
    _srSetupTempDirectory(*fm_);
    EXPECT_FALSE(exists(home_.file(QStringLiteral("Library"))));
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].text, "_srSetupTempDirectory");
    EXPECT_EQ(records[0].type, OS_LOG_TYPE_DEFAULT);
    EXPECT_TRUE(records[1].isNSLog);
    EXPECT_TRUE(QString::fromStdString(records[1].text)
                    .startsWith(QStringLiteral("error: Error Domain=NSCocoaErrorDomain Code=4 ")))
        << records[1].text;
    EXPECT_EQ(records[2].text, "error creating temp directory");
    EXPECT_EQ(records[2].type, OS_LOG_TYPE_ERROR);

    // With the parent in place the directory is made; a second call leaves it alone.
    log_.clear();
    ASSERT_TRUE(QDir().mkpath(home_.file(QStringLiteral("Library/Application Support"))));
    _srSetupTempDirectory(*fm_);
    _srSetupTempDirectory(*fm_);
    EXPECT_TRUE(QFileInfo(workDir_).isDir());
    EXPECT_EQ(log_.texts(),
              (std::vector<std::string>{"_srSetupTempDirectory", "_srSetupTempDirectory"}));
}

TEST_F(Paths, SetupTakesAnythingAtThePathForTheDirectory) {
    ASSERT_TRUE(QDir().mkpath(home_.file(QStringLiteral("Library/Application Support"))));
    home_.write(QStringLiteral("Library/Application Support/com.vantor.lumarod"), 5);
    _srSetupTempDirectory(*fm_);
    EXPECT_TRUE(QFileInfo(workDir_).isFile());
    EXPECT_EQ(log_.texts(), std::vector<std::string>{"_srSetupTempDirectory"});
}

TEST_F(Paths, SetupLogsWhateverTheLogLevelButNotWhenTheTypeIsOff) {
    const uint32_t level = __LMLogLevel.load();
    LMLogSetLogLevel(3);
    _srSetupTempDirectory(*fm_);
    LMLogSetLogLevel(level);
    EXPECT_EQ(log_.count("_srSetupTempDirectory"), 1u);
    EXPECT_EQ(log_.count("error creating temp directory"), 1u);

    // With both types off only the plain NSLog line is left.
    log_.clear();
    platform::log::setEnabledTypes(0);
    _srSetupTempDirectory(*fm_);
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].isNSLog);
}

TEST_F(Paths, RecordingNamesFollowTheKindWithAMonthFirstDateSuffix) {
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    fixClock(QDateTime(QDate(2026, 11, 15), QTime(23, 47, 20)));
    EXPECT_EQ(dateSuffix(*fm_), QStringLiteral("11-15-2026 23-47-20"));
    const QString id = QStringLiteral("org.example.Recorder");
    EXPECT_EQ(outputPath(*fm_, 2, id),
              entry(QStringLiteral("ScreenRecording_11-15-2026 23-47-20.mp4")));
    EXPECT_EQ(outputPath(*fm_, 1, id),
              entry(QStringLiteral("ClipRecording_11-15-2026 23-47-20.mp4")));
    // Every other kind is an app recording; without a desktop entry the name is nil.
    for (const int32_t kind : {0, 3, -1, INT32_MAX}) {
        EXPECT_EQ(outputPath(*fm_, kind, id),
                  entry(QStringLiteral("(null)_11-15-2026 23-47-20.mp4")))
            << kind;
    }
    EXPECT_EQ(trimmedOutputPath(*fm_, id), entry(QStringLiteral("(null)_trimmed.mp4")));
    EXPECT_FALSE(exists(workDir_)) << "naming a file creates nothing";

    // The date is shown in the local time zone, whatever zone the clock's date carries.
    const QDateTime local(QDate(2026, 1, 2), QTime(3, 4, 5));
    fixClock(local.toUTC());
    EXPECT_EQ(dateSuffix(*fm_), QStringLiteral("01-02-2026 03-04-05"));
}

TEST_F(Paths, AppNamesComeFromTheDesktopEntryForTheLocale) {
    fixClock(QDateTime(QDate(2026, 11, 15), QTime(23, 47, 20)));
    home_.write(QStringLiteral("data/applications/org.example.Recorder.desktop"), 0,
                "# comment\n[Desktop Entry]\nType=Application\nName = Recorder\n"
                "Name[de]=Aufnahme\nName[pt_BR]=Gravador\\sDigital\nExec=recorder\n"
                "[Desktop Action New]\nName=Not this one\n");
    // A system entry of the same identifier is shadowed by the user's.
    home_.write(QStringLiteral("system-data/applications/org.example.Recorder.desktop"), 0,
                "[Desktop Entry]\nName=System Recorder\n");
    home_.write(QStringLiteral("system-data/applications/org.example.Other.desktop"), 0,
                "[Desktop Entry]\nName=Café/Other\n");
    home_.write(QStringLiteral("system-data/applications/org.example.Nameless.desktop"), 0,
                "[Desktop Entry]\nType=Application\n");
    const QString id = QStringLiteral("org.example.Recorder");

    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(id), QStringLiteral("Recorder"));
    EXPECT_EQ(outputPath(*fm_, 0, id), entry(QStringLiteral("Recorder_11-15-2026 23-47-20.mp4")));
    EXPECT_EQ(trimmedOutputPath(*fm_, id), entry(QStringLiteral("Recorder_trimmed.mp4")));
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Austria));
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(id), QStringLiteral("Aufnahme"));
    QLocale::setDefault(QLocale(QLocale::Portuguese, QLocale::Brazil));
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(id), QStringLiteral("Gravador Digital"));
    QLocale::setDefault(QLocale(QLocale::Portuguese, QLocale::Portugal));
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(id), QStringLiteral("Recorder"));

    // A name stays one path component; identifiers that cannot name an entry give nil.
    EXPECT_EQ(_lmLocalizedAppNameFromBundleID(QStringLiteral("org.example.Other")),
              QStringLiteral("Café-Other"));
    EXPECT_TRUE(_lmLocalizedAppNameFromBundleID(QStringLiteral("org.example.Nameless")).isNull());
    EXPECT_TRUE(
        _lmLocalizedAppNameFromBundleID(QStringLiteral("../applications/org.example.Recorder"))
            .isNull());
    EXPECT_TRUE(_lmLocalizedAppNameFromBundleID(QString()).isNull());
}

}  // namespace
}  // namespace lumaro::test
