// Measuring the working directory, free-space verdicts and the clean-up walk by age.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFileInfo>
#include <cmath>

#include "tests/filestore/FileStoreFixture.h"

using namespace LMExtensions;

namespace lumaro::test {
namespace {

const QDateTime kNow(QDate(2026, 11, 15), QTime(23, 47, 20));
const std::string kWalkError =
    "error in _lmRemoveFile_srDeleteFilesOlderThanTimeToLiveInSeconds, error code: ";

void setModified(const QString& path, const QDateTime& when) {
    const struct timespec times[2] = {{when.toSecsSinceEpoch(), 0}, {when.toSecsSinceEpoch(), 0}};
    ASSERT_EQ(
        ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW), 0)
        << path.toStdString();
}

int64_t entrySize(const QString& path) {
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_size : -1;
}

using Space = FileStoreTest;

TEST_F(Space, StartingARecordingNeedsMoreThanAHundredMillionBytes) {
    makeWorkDir();
    auto view = std::make_shared<FixedSpaceFileManager>(0, 100'000'000);
    NSFileManager::setDefaultManagerForTesting(view);
    EXPECT_EQ(_srDeviceFreeDiskSpace(*fm_), 100'000'000u);
    EXPECT_FALSE(_srDeviceHasSufficientFreeSpaceForRecording(*fm_));

    NSFileManager::setDefaultManagerForTesting(
        std::make_shared<FixedSpaceFileManager>(0, 100'000'001));
    EXPECT_TRUE(_srDeviceHasSufficientFreeSpaceForRecording(*fm_));
}

TEST_F(Space, ContinuingARecordingNeedsTwiceItsSizePlusTheReserve) {
    makeWorkDir();
    NSFileManager::setDefaultManagerForTesting(
        std::make_shared<FixedSpaceFileManager>(40'000'000, 100'000'000));
    EXPECT_EQ(_srSizeOfTempDir(*fm_, nullptr), 40'000'000);
    EXPECT_FALSE(_srDeviceHasSufficientSpaceForCurrentRecording(*fm_));

    NSFileManager::setDefaultManagerForTesting(
        std::make_shared<FixedSpaceFileManager>(40'000'000, 100'000'001));
    EXPECT_TRUE(_srDeviceHasSufficientSpaceForCurrentRecording(*fm_));
    EXPECT_TRUE(log_.texts().empty());
}

TEST_F(Space, UnreadableFileSystemOrMissingDirectoryAnswersNoRoom) {
    // No working directory on the real file system: no size, no free space.
    NSErrorPtr error;
    EXPECT_EQ(_srSizeOfTempDir(*fm_, &error), 0);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSFileReadNoSuchFileError);
    EXPECT_EQ(_srDeviceFreeDiskSpace(*fm_), 0u);
    EXPECT_FALSE(_srDeviceHasSufficientFreeSpaceForRecording(*fm_));
    EXPECT_FALSE(_srDeviceHasSufficientSpaceForCurrentRecording(*fm_));

    makeWorkDir();
    NSFileManager::setDefaultManagerForTesting(
        std::make_shared<FixedSpaceFileManager>(0, std::nullopt));
    EXPECT_FALSE(_srDeviceHasSufficientFreeSpaceForRecording(*fm_));
    EXPECT_FALSE(_srDeviceHasSufficientSpaceForCurrentRecording(*fm_));
    EXPECT_TRUE(log_.texts().empty());
}

TEST_F(Space, SizeIsTheDirectoryEntryNotItsContents) {
    makeWorkDir();
    writeEntry(QStringLiteral("big.mp4"), 100'000);
    NSErrorPtr error;
    EXPECT_EQ(_srSizeOfTempDir(*fm_, &error), entrySize(workDir_));
    EXPECT_FALSE(error);
    EXPECT_TRUE(
        _srGetCreationDateForFile(*fm_, QUrl::fromLocalFile(entry(QStringLiteral("big.mp4"))))
            .isValid());
    EXPECT_TRUE(_srGetCreationDateForFile(*fm_, QUrl::fromLocalFile(entry(QStringLiteral("none"))))
                    .isNull());
}

class AgeWalk : public FileStoreTest {
protected:
    void SetUp() override {
        FileStoreTest::SetUp();
        makeWorkDir();
        fixClock(kNow);
    }
};

TEST_F(AgeWalk, DeletesOnlyEntriesOlderThanTheTimeToLive) {
    const QString old = writeEntry(QStringLiteral("ScreenRecording_old.mp4"), 61);
    const QString edge = writeEntry(QStringLiteral("ScreenRecording_edge.mp4"), 60);
    const QString fresh = writeEntry(QStringLiteral("ClipRecording_fresh.mp4"), 1);
    setModified(old, kNow.addSecs(-61));
    setModified(edge, kNow.addSecs(-60));
    setModified(fresh, kNow.addSecs(-1));

    EXPECT_EQ(_srDeleteFilesOlderThanTimeToLiveInSeconds(*fm_, 60.0), 61);
    EXPECT_FALSE(exists(old));
    EXPECT_TRUE(exists(edge)) << "exactly the time to live old is kept";
    EXPECT_TRUE(exists(fresh));
    EXPECT_EQ(log_.texts(),
              (std::vector<std::string>{"_srDeleteFilesOlderThanTimeToLiveInSeconds: 60",
                                        "deleting old file"}));
}

TEST_F(AgeWalk, ZeroDeletesEverythingAndNotANumberKeepsEverything) {
    const QString future = writeEntry(QStringLiteral("future.mp4"), 10);
    setModified(future, kNow.addDays(1));
    writeEntry(QStringLiteral("nested/deeper/part.mp4"), 20);
    const int64_t nestedSize = entrySize(entry(QStringLiteral("nested")));

    EXPECT_EQ(_srDeleteFilesOlderThanTimeToLiveInSeconds(*fm_, std::nan("")), 0);
    EXPECT_EQ(log_.texts(),
              std::vector<std::string>{"_srDeleteFilesOlderThanTimeToLiveInSeconds: 0"});
    EXPECT_TRUE(exists(future));

    log_.clear();
    EXPECT_EQ(_srDeleteAllTempFiles(*fm_), 10 + nestedSize);
    EXPECT_TRUE(QDir(workDir_).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System |
                                       QDir::NoDotAndDotDot));
    EXPECT_EQ(log_.count("_srDeleteFilesOlderThanTimeToLiveInSeconds: 0"), 1u);
    EXPECT_EQ(log_.count("deleting old file"), 2u);
    EXPECT_TRUE(QFileInfo(workDir_).isDir()) << "the directory itself stays";
}

TEST_F(AgeWalk, LinksAreRemovedNeverFollowedAndOddNamesAreFine) {
    TempDir outside;
    const QString target = outside.write(QStringLiteral("precious.mp4"), 1000);
    const QString link = entry(QStringLiteral("link-out"));
    const QString dangling = entry(QStringLiteral("dangling"));
    ASSERT_EQ(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(link).constData()),
              0);
    ASSERT_EQ(::symlink("/nonexistent/nowhere", QFile::encodeName(dangling).constData()), 0);
    ASSERT_EQ(::symlink(QFile::encodeName(outside.path()).constData(),
                        QFile::encodeName(entry(QStringLiteral("dir-link"))).constData()),
              0);
    const QString odd = writeEntry(QStringLiteral("Café 録画 ünï%d\\n.mp4"), 7);
    const int64_t expected =
        7 + entrySize(link) + entrySize(dangling) + entrySize(entry(QStringLiteral("dir-link")));

    EXPECT_EQ(_srDeleteAllTempFiles(*fm_), expected);
    EXPECT_FALSE(exists(odd));
    EXPECT_FALSE(exists(link));
    EXPECT_FALSE(exists(dangling));
    EXPECT_TRUE(QFileInfo(target).isFile()) << "a link's target is never touched";
    EXPECT_EQ(entrySize(target), 1000);
    EXPECT_EQ(log_.count(kWalkError + "4"), 0u);
}

TEST_F(AgeWalk, AMissingOrNonDirectoryWorkingDirectoryIsReportedOnce) {
    ASSERT_TRUE(QDir(workDir_).removeRecursively());
    EXPECT_EQ(_srDeleteAllTempFiles(*fm_), 0);
    auto records = log_.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[1].text, kWalkError + "260");
    EXPECT_EQ(records[1].type, OS_LOG_TYPE_ERROR);
    EXPECT_TRUE(records[2].isNSLog);
    EXPECT_TRUE(
        QString::fromStdString(records[2].text)
            .startsWith(QStringLiteral("error = Error Domain=NSCocoaErrorDomain Code=260 ")))
        << records[2].text;

    // A plain file where the directory should be is listed as nothing and left alone.
    log_.clear();
    home_.write(QStringLiteral("Library/Application Support/com.vantor.lumarod"), 5);
    EXPECT_EQ(_srDeleteAllTempFiles(*fm_), 0);
    EXPECT_EQ(log_.count(kWalkError + "260"), 1u);
    EXPECT_TRUE(QFileInfo(workDir_).isFile());
}

// Takes away the nth entry whose attributes are asked for just before reading them, as a file
// that another process removes in the middle of the walk.
class VanishingFileManager : public NSFileManager {
public:
    explicit VanishingFileManager(int nth) : nth_(nth) {}
    QVariantMap attributesOfItemAtPath(const QString& path, NSErrorPtr* error) override {
        if (++calls_ == nth_) {
            ::unlink(QFile::encodeName(path).constData());
        }
        return NSFileManager::attributesOfItemAtPath(path, error);
    }

private:
    int nth_;
    int calls_ = 0;
};

TEST_F(AgeWalk, AnErrorStaysForTheRestOfTheWalkAndStopsTheCount) {
    for (const char* name : {"a.mp4", "b.mp4", "c.mp4", "d.mp4"}) {
        writeEntry(QString::fromLatin1(name), 100);
    }
    VanishingFileManager receiver(2);

    // Only the entry before the vanished one counts, though all the others are removed.
    EXPECT_EQ(_srDeleteAllTempFiles(receiver), 100);
    EXPECT_TRUE(QDir(workDir_).isEmpty());
    const std::vector<std::string> expected = {
        "_srDeleteFilesOlderThanTimeToLiveInSeconds: 0",
        "deleting old file",
        // the vanished entry: its attributes, then its removal, fail
        kWalkError + "260",
        "error = ",
        "deleting old file",
        kWalkError + "4",
        "error = ",
        // every later step repeats the removal's error
        kWalkError + "4",
        "error = ",
        "deleting old file",
        kWalkError + "4",
        "error = ",
        kWalkError + "4",
        "error = ",
        "deleting old file",
        kWalkError + "4",
        "error = ",
    };
    auto texts = log_.texts();
    ASSERT_EQ(texts.size(), expected.size());
    for (size_t i = 0; i < texts.size(); ++i) {
        if (expected[i] == "error = ") {
            EXPECT_EQ(texts[i].rfind("error = Error Domain=NSCocoaErrorDomain Code=", 0), 0u)
                << i << ": " << texts[i];
        } else {
            EXPECT_EQ(texts[i], expected[i]) << i;
        }
    }
}

TEST(Prefix, AnEmptyPrefixMatchesNothing) {
    EXPECT_FALSE(_lmNameHasPrefixIgnoringCaseAndDiacritics(QStringLiteral("ClipRecording"), {}));
    EXPECT_FALSE(_lmNameHasPrefixIgnoringCaseAndDiacritics({}, {}));
    EXPECT_TRUE(
        _lmNameHasPrefixIgnoringCaseAndDiacritics(QStringLiteral("Ärger"), QStringLiteral("ar")));
}

}  // namespace
}  // namespace lumaro::test
