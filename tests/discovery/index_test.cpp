// The folder index: a fresh registry (as a new process has) takes the records from it, sees every
// change made since, and rebuilds an index it cannot use.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QJsonArray>

#include "platform/extension/NSExtensionIndex.h"
#include "platform/extension/NSExtensionRegistry.h"
#include "platform/log/os_log.h"
#include "tests/support/Manifests.h"

using namespace lumaro::test;
using platform::extension::ExtensionIndex;

namespace {

// Every record's identity and dictionaries, types included (QDataStream writes the type).
QByteArray recordsOf(const NSExtensionRegistry::Scan& scan) {
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    for (const NSExtensionPtr& e : scan.extensions) {
        out << e->identifier() << e->attributes() << e->infoDictionary()
            << qint64(e->_plugIn()->platform()) << e->_plugIn()->containingUrl()
            << e->_plugIn()->executableUrl() << e->_extensionBundle()->bundlePath();
    }
    out << scan.problems;
    return bytes;
}

void setTime(const QString& path, int64_t ns) {
    const timespec t{ns / 1000000000, ns % 1000000000};
    const timespec times[2] = {t, t};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
}

class Index : public ::testing::Test {
protected:
    NSExtensionRegistry::Scan fresh() const { return NSExtensionRegistry().scan({dir_.path()}); }
    QString indexPath() const { return dir_.file(ExtensionIndex::kFileName); }

    TempDir dir_;
    TempDir cache_;
    ScopedEnv cacheEnv_{"XDG_CACHE_HOME", QFile::encodeName(cache_.path())};
};

TEST_F(Index, GivesWhatTheManifestsGiveAndSeesEveryChangeAtTheNextQuery) {
    QJsonObject rich = manifest("com.test.rich", QJsonObject{{"On", true}, {"Off", "0"}});
    rich.insert("infoDictionary",
                QJsonObject{{"CFBundleDisplayName", "Réseau 配信"},
                            {"Count", 3},
                            {"Ratio", 0.5},
                            {"Nothing", QJsonValue::Null},
                            {"List", QJsonArray{1, "two", false}},
                            {"Nested", QJsonObject{{"Deep", QJsonArray{QJsonObject{}}}}}});
    writeManifest(dir_, "rich.json", rich);
    writeManifest(dir_, "b.json", manifest("com.test.b"));
    dir_.write("broken.json", 0, "{");
    const QByteArray read = recordsOf(fresh());
    ASSERT_TRUE(QFile::exists(indexPath()));
    platform::log::LogCapture capture;
    EXPECT_EQ(recordsOf(fresh()), read) << "the index gives exactly what reading gave";
    EXPECT_EQ(capture.texts().size(), 1u) << "the refusal is reported again in a new registry";

    // Changed in place with the same size, added, removed: at once, within the clock's granule,
    // for a new registry and for one that keeps what it read.
    NSExtensionRegistry kept;
    kept.scan({dir_.path()});
    const QString b = writeManifest(dir_, "b.json", manifest("com.test.c"));
    writeManifest(dir_, "d.json", manifest("com.test.d"));
    QFile::remove(dir_.file("rich.json"));
    EXPECT_EQ(identifiersOf(fresh().extensions), (QStringList{"com.test.c", "com.test.d"}));
    EXPECT_EQ(identifiersOf(kept.scan({dir_.path()}).extensions),
              (QStringList{"com.test.c", "com.test.d"}));

    // A change that kept the manifest's size and time is seen while that time is recent, since
    // a clock tick may hide a change.
    const int64_t recent = ExtensionIndex::nowNs() + 60LL * 1000000000;
    setTime(b, recent);
    fresh();
    writeManifest(dir_, "b.json", manifest("com.test.e"));
    setTime(b, recent);
    EXPECT_EQ(identifiersOf(fresh().extensions), (QStringList{"com.test.d", "com.test.e"}));
}

TEST_F(Index, OldTimesAreTrustedOnceTheIndexHasSeenThem) {
    const QString a = writeManifest(dir_, "a.json", manifest("com.test.a"));
    const int64_t hourAgo = ExtensionIndex::nowNs() - 3600LL * 1000000000 + 123;
    setTime(a, hourAgo);
    fresh();
    // What only reading the file could tell is taken from the index.
    writeManifest(dir_, "a.json", manifest("com.test.z"));
    setTime(a, hourAgo);
    EXPECT_EQ(identifiersOf(fresh().extensions), QStringList{"com.test.a"});
}

TEST_F(Index, AnUnusableIndexIsReportedOnceAndRebuilt) {
    writeManifest(dir_, "a.json", manifest("com.test.a"));
    fresh();
    QFile file(indexPath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray good = file.readAll();
    file.close();
    QByteArray flipped = good;
    flipped[flipped.size() - 3] = static_cast<char>(flipped[flipped.size() - 3] ^ 0x40);
    QByteArray otherVersion = good;
    otherVersion[8] = 9;
    const std::pair<QByteArray, std::string> cases[] = {
        {flipped, "damaged"},
        {good.left(good.size() - 1), "damaged"},
        {good.left(20), "damaged"},
        {QByteArray(), "damaged"},
        {"a text file that took the index's name", "not an extension index"},
        {otherVersion, "written by another version"},
    };
    for (const auto& [content, reason] : cases) {
        dir_.write(ExtensionIndex::kFileName, 0, content);
        platform::log::LogCapture capture;
        EXPECT_EQ(identifiersOf(fresh().extensions), QStringList{"com.test.a"}) << reason;
        EXPECT_EQ(capture.texts(),
                  std::vector<std::string>{"extension index " + indexPath().toStdString() +
                                           " ignored: " + reason});
        capture.clear();
        fresh();
        EXPECT_TRUE(capture.texts().empty()) << "rebuilt after " << reason;
    }
}

// Makes a folder unwritable, for root too (the immutable attribute), while alive.
struct Unwritable {
    explicit Unwritable(const QString& folder)
        : fd(::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY)) {
        ::fchmod(fd, 0555);
        works =
            ::geteuid() != 0 || (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
                                 ::ioctl(fd, FS_IOC_SETFLAGS, &(flags |= FS_IMMUTABLE_FL)) == 0);
    }
    ~Unwritable() {
        flags &= ~FS_IMMUTABLE_FL;
        if (::geteuid() == 0 && works) {
            ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
        }
        ::fchmod(fd, 0755);
        ::close(fd);
    }
    int fd;
    int flags = 0;
    bool works = false;
};

TEST_F(Index, AnUnwritableFolderIsIndexedInTheUsersCache) {
    writeManifest(dir_, "a.json", manifest("com.test.a"));
    const Unwritable locked(dir_.path());
    if (!locked.works) {
        GTEST_SKIP() << "this file system cannot make a folder unwritable for root";
    }
    EXPECT_EQ(identifiersOf(fresh().extensions), QStringList{"com.test.a"});
    EXPECT_FALSE(QFile::exists(indexPath()));
    const QStringList cached = QDir(cache_.file("lumaro/extension-index")).entryList(QDir::Files);
    ASSERT_EQ(cached.size(), 1);
    platform::log::LogCapture capture;
    EXPECT_EQ(identifiersOf(fresh().extensions), QStringList{"com.test.a"});

    // The cache's index of another folder is foreign here.
    TempDir other;
    writeManifest(other, "b.json", manifest("com.test.b"));
    NSExtensionRegistry().scan({other.path()});
    QFile::remove(cache_.file("lumaro/extension-index/" + cached[0]));
    ASSERT_TRUE(QFile::copy(other.file(ExtensionIndex::kFileName),
                            cache_.file("lumaro/extension-index/" + cached[0])));
    EXPECT_EQ(identifiersOf(fresh().extensions), QStringList{"com.test.a"});
    EXPECT_EQ(capture.texts().size(), 1u);
    EXPECT_NE(capture.texts()[0].find("ignored: made for another folder"), std::string::npos);
}

}  // namespace
