// The working directory, its set-up and the names of recording files; free-space verdicts and
// the clean-up walk by age.
#include <fcntl.h>
#include <unistd.h>

#include <QFileInfo>
#include <cmath>

#include "filestore/LMLocalizedAppName.h"
#include "logging/LMLog.h"
#include "tests/filestore/FileStoreFixture.h"

using namespace LMExtensions;

namespace lumaro::test {
namespace {

const QDateTime kNow(QDate(2026, 11, 15), QTime(23, 47, 20));
const std::string kWalkError =
    "error in _lmRemoveFile_srDeleteFilesOlderThanTimeToLiveInSeconds, error code: ";

int64_t entrySize(const QString& path) {
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_size : -1;
}

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
    fixClock(kNow);
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
    fixClock(kNow);
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

// A file-system view with a chosen size for the working directory's entry and a chosen free
// space (none: the file system cannot be read).
class FixedSpace : public NSFileManager {
public:
    FixedSpace(uint64_t size, std::optional<uint64_t> freeSpace) : size_(size), free_(freeSpace) {}
    QVariantMap attributesOfItemAtPath(const QString& path, NSErrorPtr* error) override {
        return {{NSFileSize, static_cast<qulonglong>(size_)}};
    }
    QVariantMap attributesOfFileSystemForPath(const QString& path, NSErrorPtr* error) override {
        return free_ ? QVariantMap{{NSFileSystemFreeSize, static_cast<qulonglong>(*free_)}}
                     : QVariantMap{};
    }

private:
    uint64_t size_;
    std::optional<uint64_t> free_;
};

using Space = FileStoreTest;

TEST_F(Space, BoundariesOfStartingAndContinuingARecording) {
    const auto verdicts = [&](uint64_t size, std::optional<uint64_t> freeSpace) {
        NSFileManager::setDefaultManagerForTesting(std::make_shared<FixedSpace>(size, freeSpace));
        return std::pair(_srDeviceHasSufficientFreeSpaceForRecording(*fm_),
                         _srDeviceHasSufficientSpaceForCurrentRecording(*fm_));
    };
    EXPECT_EQ(verdicts(0, 100'000'000).first, false);
    EXPECT_EQ(verdicts(0, 100'000'001).first, true);
    // 2 x 40,000,000 + 20,000,000 must be strictly below the free space.
    EXPECT_EQ(verdicts(40'000'000, 100'000'000).second, false);
    EXPECT_EQ(verdicts(40'000'000, 100'000'001).second, true);
    EXPECT_EQ(verdicts(0, std::nullopt), std::pair(false, false));
    EXPECT_TRUE(log_.texts().empty());
}

TEST_F(Space, AMissingWorkingDirectoryHasNoSizeAndNoFreeSpace) {
    NSErrorPtr error;
    EXPECT_EQ(_srSizeOfTempDir(*fm_, &error), 0);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSFileReadNoSuchFileError);
    EXPECT_EQ(_srDeviceFreeDiskSpace(*fm_), 0u);
    EXPECT_FALSE(_srDeviceHasSufficientSpaceForCurrentRecording(*fm_));

    // Once there, the size is the directory's own entry, not what it holds.
    makeWorkDir();
    const QString file = writeEntry(QStringLiteral("big.mp4"), 100'000);
    EXPECT_EQ(_srSizeOfTempDir(*fm_, nullptr), entrySize(workDir_));
    EXPECT_GT(_srDeviceFreeDiskSpace(*fm_), 0u);
    EXPECT_TRUE(_srGetCreationDateForFile(*fm_, QUrl::fromLocalFile(file)).isValid());
    EXPECT_TRUE(_srGetCreationDateForFile(*fm_, QUrl::fromLocalFile(entry("none"))).isNull());
}

class AgeWalk : public FileStoreTest {
protected:
    void SetUp() override {
        FileStoreTest::SetUp();
        makeWorkDir();
        fixClock(kNow);
    }
    static void setModified(const QString& path, const QDateTime& when) {
        const struct timespec t = {when.toSecsSinceEpoch(), 0};
        const struct timespec times[2] = {t, t};
        ASSERT_EQ(
            ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW),
            0);
    }
};

TEST_F(AgeWalk, DeletesWhatIsOlderThanTheTimeToLiveEverythingAtZeroNothingAtNaN) {
    const QString old = writeEntry(QStringLiteral("ScreenRecording_old.mp4"), 61);
    const QString edge = writeEntry(QStringLiteral("ScreenRecording_edge.mp4"), 60);
    const QString future = writeEntry(QStringLiteral("ClipRecording_future.mp4"), 1);
    writeEntry(QStringLiteral("nested/deeper/part.mp4"), 20);
    setModified(old, kNow.addSecs(-61));
    setModified(edge, kNow.addSecs(-60));
    setModified(entry(QStringLiteral("nested")), kNow.addSecs(-60));
    setModified(future, kNow.addDays(1));

    EXPECT_EQ(_srDeleteFilesOlderThanTimeToLiveInSeconds(*fm_, 60.0), 61);
    EXPECT_FALSE(exists(old));
    EXPECT_TRUE(exists(edge)) << "exactly the time to live old is kept";
    EXPECT_EQ(log_.texts(),
              (std::vector<std::string>{"_srDeleteFilesOlderThanTimeToLiveInSeconds: 60",
                                        "deleting old file"}));

    log_.clear();
    EXPECT_EQ(_srDeleteFilesOlderThanTimeToLiveInSeconds(*fm_, std::nan("")), 0);
    EXPECT_EQ(log_.texts(),
              std::vector<std::string>{"_srDeleteFilesOlderThanTimeToLiveInSeconds: 0"});

    const int64_t nested = entrySize(entry(QStringLiteral("nested")));
    EXPECT_EQ(_srDeleteAllTempFiles(*fm_), 60 + 1 + nested);
    EXPECT_TRUE(QDir(workDir_).isEmpty());
    EXPECT_TRUE(QFileInfo(workDir_).isDir()) << "the directory itself stays";
}

TEST_F(AgeWalk, LinksAreRemovedNeverFollowedAndAnyNameWorks) {
    TempDir outside;
    const QString target = outside.write(QStringLiteral("precious.mp4"), 1000);
    int64_t expected = 0;
    for (const auto& [name, to] :
         {std::pair("link-out", target), std::pair("dir-link", outside.path()),
          std::pair("dangling", QStringLiteral("/nonexistent/nowhere"))}) {
        ASSERT_EQ(::symlink(QFile::encodeName(to).constData(),
                            QFile::encodeName(entry(QString::fromLatin1(name))).constData()),
                  0);
        expected += entrySize(entry(QString::fromLatin1(name)));
    }
    writeEntry(QStringLiteral("Café 録画 ünï%d\\n.mp4"), 7);

    EXPECT_EQ(_srDeleteAllTempFiles(*fm_), expected + 7);
    EXPECT_TRUE(QDir(workDir_).isEmpty(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot));
    EXPECT_EQ(entrySize(target), 1000) << "a link's target is never touched";
    EXPECT_EQ(log_.count("deleting old file"), 4u);
    EXPECT_EQ(log_.texts().size(), 5u);
}

TEST_F(AgeWalk, AMissingOrNonDirectoryWorkingDirectoryIsReportedOnce) {
    ASSERT_TRUE(QDir(workDir_).removeRecursively());
    EXPECT_EQ(_srDeleteAllTempFiles(*fm_), 0);
    auto records = log_.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[1].text, kWalkError + "260");
    EXPECT_EQ(records[1].type, OS_LOG_TYPE_ERROR);
    EXPECT_TRUE(records[2].isNSLog);
    EXPECT_EQ(records[2].text.rfind("error = Error Domain=NSPlatformErrorDomain Code=260 ", 0), 0u);

    log_.clear();
    home_.write(QStringLiteral("Library/Application Support/com.vantor.lumarod"), 5);
    EXPECT_EQ(_srDeleteAllTempFiles(*fm_), 0);
    EXPECT_EQ(log_.count(kWalkError + "260"), 1u);
    EXPECT_EQ(entrySize(workDir_), 5) << "left alone";
}

// Removes the second entry whose attributes are asked for just before reading them, as another
// process would in the middle of the walk.
class VanishingSecondEntry : public NSFileManager {
public:
    bool attributesOfItemInDirectory(const NSDirectory& directory, const std::string& name,
                                     NSFileItemAttributes* attributes, NSErrorPtr* error) override {
        if (++calls_ == 2) {
            vanished_ = directory.pathOfEntry(name).toStdString();
            ::unlinkat(directory.fd(), name.c_str(), 0);
        }
        return NSFileManager::attributesOfItemInDirectory(directory, name, attributes, error);
    }
    int calls_ = 0;
    std::string vanished_;
};

TEST_F(AgeWalk, AnErrorStaysForTheRestOfTheWalkAndStopsTheCount) {
    for (const char* name : {"a.mp4", "b.mp4", "c.mp4", "d.mp4"}) {
        writeEntry(QString::fromLatin1(name), 100);
    }
    VanishingSecondEntry receiver;
    EXPECT_EQ(_srDeleteAllTempFiles(receiver), 100);
    EXPECT_TRUE(QDir(workDir_).isEmpty());
    // The vanished entry's attributes fail (260), then its removal (4); that error is then
    // reported again after every later step, and only the first entry counts.
    const std::string vanished = receiver.vanished_;
    const std::string removal =
        "error = Error Domain=NSPlatformErrorDomain Code=4 \"The file \u201c" +
        vanished.substr(vanished.rfind('/') + 1) + "\u201d couldn't be removed: ";
    std::vector<std::string> expected = {"_srDeleteFilesOlderThanTimeToLiveInSeconds: 0",
                                         "deleting old file",
                                         kWalkError + "260",
                                         "error = Error Domain=NSPlatformErrorDomain Code=260 ",
                                         "deleting old file",
                                         kWalkError + "4",
                                         removal};
    for (int later = 0; later < 2; ++later) {
        for (const std::string& line : {kWalkError + "4", removal, std::string("deleting old file"),
                                        kWalkError + "4", removal}) {
            expected.push_back(line);
        }
    }
    const auto texts = log_.texts();
    ASSERT_EQ(texts.size(), expected.size());
    for (size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(texts[i].substr(0, expected[i].size()), expected[i]) << i;
    }
    EXPECT_NE(texts[3].find("NSFilePath=" + vanished), std::string::npos);
}

}  // namespace
}  // namespace lumaro::test
