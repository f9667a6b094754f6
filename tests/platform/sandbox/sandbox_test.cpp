#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <cerrno>

#include "platform/foundation/NSBundle.h"
#include "platform/foundation/NSDate.h"
#include "platform/log/os_log.h"
#include "platform/sandbox/paths.h"
#include "platform/sandbox/token_key.h"
#include "tests/platform/sandbox/SandboxFixture.h"

using lumaro::test::fs;
using lumaro::test::SandboxTest;
using lumaro::test::TempDir;
using platform::sandbox::canonicalPath;
using platform::sandbox::tokenGrants;
using platform::sandbox::verifyToken;

namespace {

std::string canon(const QString& path) {
    return canonicalPath(QFile::encodeName(path).toStdString()).value_or("");
}

void symlinkAt(const QString& target, const QString& at) {
    QDir().mkpath(QFileInfo(at).absolutePath());
    ASSERT_EQ(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(at).constData()),
              0);
}

}  // namespace

TEST(CanonicalPath, ResolvesLinksDotsAndSlashesIncludingBelowMissingFolders) {
    TempDir dir;
    TempDir outside;
    dir.write("real/file.txt", 1);
    symlinkAt(outside.path(), dir.file("real/out"));
    symlinkAt(QStringLiteral("real"), dir.file("rel"));  // relative target
    const std::string root = *canonicalPath(fs(dir.path()));
    const std::string elsewhere = *canonicalPath(fs(outside.path()));

    EXPECT_EQ(canonicalPath(root + "/real/"), root + "/real");
    EXPECT_EQ(canonicalPath(root + "//real/./file.txt"), root + "/real/file.txt");
    EXPECT_EQ(canonicalPath(root + "/rel/file.txt"), root + "/real/file.txt");
    EXPECT_EQ(canonicalPath(root + "/real/out/new"), elsewhere + "/new");
    // ".." after a link goes up from where the link leads, as the kernel does.
    EXPECT_EQ(canonicalPath(root + "/real/../rel/out/.."),
              elsewhere.substr(0, elsewhere.rfind('/')));
    // Not there yet: kept as written, and ".." below them is undone lexically.
    EXPECT_EQ(canonicalPath(root + "/real/missing/deeper/"), root + "/real/missing/deeper");
    EXPECT_EQ(canonicalPath(root + "/real/missing/../file.txt"), root + "/real/file.txt");
    // Going back up out of a missing folder lands on a link, which is still followed.
    EXPECT_EQ(canonicalPath(root + "/real/missing/../out"), elsewhere);
    EXPECT_EQ(canonicalPath("/../.."), "/");
}

TEST(CanonicalPath, RefusesWhatHasNoCanonicalForm) {
    TempDir dir;
    dir.write("file.txt", 1);
    symlinkAt(dir.file("loop"), dir.file("loop"));
    int error = 0;

    EXPECT_FALSE(canonicalPath("/" + std::string(300, 'x'), &error));
    EXPECT_EQ(error, ENAMETOOLONG);
    EXPECT_FALSE(canonicalPath(fs(dir.file("file.txt/inside")), &error));
    EXPECT_EQ(error, ENOTDIR);
    EXPECT_FALSE(canonicalPath(fs(dir.file("file.txt/..")), &error));
    EXPECT_EQ(error, ENOTDIR);
    EXPECT_FALSE(canonicalPath(fs(dir.file("loop/x")), &error));
    EXPECT_EQ(error, ELOOP);
}

TEST_F(SandboxTest, IssuesForTheBundleAndTheSupportFolderOnly) {
    const QString bundle = NSBundle::mainBundle()->bundlePath();
    QDir().mkpath(support_ + "/a/b");

    auto check = issue(APP_SANDBOX_READ, fs(bundle));
    ASSERT_TRUE(check);
    EXPECT_TRUE(check->valid) << check->reason;
    EXPECT_EQ(check->extensionClass, APP_SANDBOX_READ);
    EXPECT_EQ(check->path, canon(bundle));
    EXPECT_TRUE(issue(APP_SANDBOX_READ, fs(bundle + "/Resources/icon.png")));
    errno = 0;
    EXPECT_FALSE(issue(APP_SANDBOX_READ_WRITE, fs(bundle))) << "the bundle is read-only";
    EXPECT_EQ(errno, EPERM);
    EXPECT_FALSE(issue(APP_SANDBOX_READ, fs(QFileInfo(bundle).absolutePath())));

    for (const char* cls : {APP_SANDBOX_READ, APP_SANDBOX_READ_WRITE}) {
        EXPECT_TRUE(issue(cls, fs(support_)));
        EXPECT_TRUE(issue(cls, fs(support_ + "/not/made/yet")));
        EXPECT_FALSE(issue(cls, fs(support_ + "-other"))) << "a sibling sharing the prefix";
        EXPECT_FALSE(issue(cls, fs(home_.file("Library/Application Support"))));
        EXPECT_FALSE(issue(cls, "/etc"));
    }

    // No spelling of a path widens the grant (how paths are made canonical: CanonicalPath's).
    TempDir outside;
    symlinkAt(outside.path(), support_ + "/escape");
    symlinkAt(support_, home_.file("alias"));  // a link into the grant is fine
    for (const char* escape : {"/../other", "/a/b/../../../../..", "/escape", "/escape/file.mov",
                               "/missing/../escape"}) {
        EXPECT_FALSE(issue(APP_SANDBOX_READ_WRITE, fs(support_ + escape))) << escape;
    }
    auto viaLink = issue(APP_SANDBOX_READ_WRITE, fs(home_.file("alias/a/./b//")));
    ASSERT_TRUE(viaLink);
    EXPECT_EQ(viaLink->path, canon(support_ + "/a/b"));
}

TEST_F(SandboxTest, AFolderTokenCoversTheFilesInItAndNothingElse) {
    // What the daemon client asks for when the daemon is to write /a/b/c.mov: the folder /a/b.
    const QString file = support_ + "/a/b/c.mov";
    QDir().mkpath(support_ + "/a/b");
    auto check = issue(APP_SANDBOX_READ_WRITE, fs(QFileInfo(file).absolutePath()));
    ASSERT_TRUE(check);
    EXPECT_EQ(check->path, canon(support_ + "/a/b"));

    EXPECT_TRUE(tokenGrants(*check, APP_SANDBOX_READ_WRITE, fs(file)));
    EXPECT_TRUE(tokenGrants(*check, APP_SANDBOX_READ, fs(file)));
    EXPECT_FALSE(tokenGrants(*check, APP_SANDBOX_READ_WRITE, fs(support_ + "/a/c.mov")));
    EXPECT_FALSE(tokenGrants(*check, APP_SANDBOX_READ_WRITE, fs(support_ + "/a/bc/c.mov")));
    EXPECT_FALSE(tokenGrants(*check, APP_SANDBOX_READ_WRITE, fs(support_ + "/a/b/../x.mov")));
    EXPECT_FALSE(tokenGrants(platform::sandbox::TokenCheck{}, APP_SANDBOX_READ, fs(file)));
}

TEST_F(SandboxTest, UserSelectionsGrantExactlyWhatWasSelected) {
    TempDir picked;
    const QString movie = picked.write("videos/take.mov", 1);
    const QString folder = picked.file("exports");
    QDir().mkpath(folder + "/sub");

    EXPECT_FALSE(issue(APP_SANDBOX_READ_WRITE, fs(movie)));
    ASSERT_TRUE(platform::sandbox::grantUserSelectedPath(fs(movie)));
    ASSERT_TRUE(platform::sandbox::grantUserSelectedPath(fs(folder + "/")));
    EXPECT_FALSE(platform::sandbox::grantUserSelectedPath("relative.mov"));

    EXPECT_TRUE(issue(APP_SANDBOX_READ_WRITE, fs(movie)));
    EXPECT_FALSE(issue(APP_SANDBOX_READ_WRITE, fs(picked.file("videos"))))
        << "a selected file does not open its folder";
    EXPECT_FALSE(issue(APP_SANDBOX_READ, fs(picked.file("videos/other.mov"))));
    EXPECT_TRUE(issue(APP_SANDBOX_READ_WRITE, fs(folder + "/sub/new.mov")));

    // The grant holds the place that was selected, not whatever the name points at later.
    ASSERT_TRUE(QDir(folder).removeRecursively());
    symlinkAt(home_.path(), folder);
    EXPECT_FALSE(issue(APP_SANDBOX_READ_WRITE, fs(folder + "/sub")));

    QVariantMap withoutSelection = lumaro::test::pickerEntitlements();
    withoutSelection.remove(platform::sandbox::kUserSelectedReadWriteEntitlement);
    platform::sandbox::setEntitlementsForTesting(withoutSelection);
    EXPECT_FALSE(issue(APP_SANDBOX_READ_WRITE, fs(movie)));
}

TEST_F(SandboxTest, AnUnsandboxedProcessGrantsWhatItCanAccessItself) {
    platform::sandbox::setEntitlementsForTesting({
        {platform::sandbox::kAppSandboxEntitlement, QStringLiteral("true")},  // not a boolean
    });
    EXPECT_FALSE(platform::sandbox::isSandboxed());
    TempDir dir;
    const QString file = dir.write("f.txt", 1);
    QDir().mkpath(dir.file("locked"));
    ASSERT_EQ(::chmod(QFile::encodeName(dir.file("locked")).constData(), 0500), 0);

    EXPECT_TRUE(issue(APP_SANDBOX_READ_WRITE, fs(file)));
    EXPECT_TRUE(issue(APP_SANDBOX_READ, fs(dir.file("locked"))));
    EXPECT_FALSE(issue(APP_SANDBOX_READ, fs(dir.file("missing"))));
    if (::geteuid() != 0) {  // root may write anywhere
        EXPECT_FALSE(issue(APP_SANDBOX_READ_WRITE, fs(dir.file("locked"))));
    }
}

TEST_F(SandboxTest, BadArgumentsAreRefusedWithoutCrashing) {
    QDir().mkpath(support_);
    const auto refused = [](const char* cls, const char* path, uint32_t flags, int expected) {
        errno = 0;
        char* token = sandbox_extension_issue_file(cls, path, flags);
        EXPECT_EQ(token, nullptr) << (path ? path : "(null)");
        EXPECT_EQ(errno, expected) << (path ? path : "(null)");
        std::free(token);
    };
    const std::string inside = fs(support_);
    refused(nullptr, inside.c_str(), 0, EINVAL);
    refused(APP_SANDBOX_READ, nullptr, 0, EINVAL);
    refused("com.vantor.app-sandbox.execute", inside.c_str(), 0, EINVAL);
    refused(APP_SANDBOX_READ, inside.c_str(), 7, EINVAL);
    refused(APP_SANDBOX_READ, "", 0, EINVAL);
    refused(APP_SANDBOX_READ, "Library/Application Support", 0, EINVAL);
    refused(APP_SANDBOX_READ, (inside + "/" + std::string(100000, 'x')).c_str(), 0, ENAMETOOLONG);

    // Names are bytes: one that is not UTF-8 travels through the token unchanged.
    const std::string latin1 = inside + "/caf\xe9 \xff.mov";
    auto check = issue(APP_SANDBOX_READ_WRITE, latin1);
    ASSERT_TRUE(check);
    EXPECT_EQ(check->path, canonicalPath(latin1).value_or(""));
}

TEST_F(SandboxTest, OnlyUntouchedUnexpiredTokensVerify) {
    QDir().mkpath(support_ + "/a");
    const std::string good = token(APP_SANDBOX_READ, fs(support_ + "/a"));
    ASSERT_TRUE(verifyToken(good).valid);

    const auto reason = [](const std::string& text) {
        const auto check = verifyToken(text);
        EXPECT_FALSE(check.valid) << text;
        EXPECT_TRUE(check.path.empty() && check.extensionClass.empty());
        return check.reason;
    };
    // The class widened, the path moved up, the expiry put off: the signature no longer holds.
    std::string widened = good;
    widened.replace(widened.find(APP_SANDBOX_READ), std::strlen(APP_SANDBOX_READ),
                    APP_SANDBOX_READ_WRITE);
    std::string moved = good;
    const size_t pathStart = good.find(';', 3) + 1;
    moved.replace(pathStart, good.find(';', pathStart) - pathStart,
                  QByteArray(fs(support_).c_str()).toHex().toStdString());
    std::string later = good;
    later.insert(good.rfind(';'), "9");
    for (const std::string& altered : {widened, moved, later}) {
        EXPECT_EQ(reason(altered), "bad signature");
    }

    for (size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(verifyToken(good.substr(0, length)).valid) << length;
    }
    EXPECT_EQ(reason(good + ";extra"), "malformed");
    EXPECT_EQ(reason("v2" + good.substr(2)), "unknown version");
    EXPECT_EQ(reason("not a token"), "malformed");
    EXPECT_EQ(reason(std::string(1 << 20, ';')), "malformed");

    NSDate::setClockForTesting([] { return QDateTime::currentDateTime().addDays(2); });
    EXPECT_EQ(reason(good), "expired");
}

TEST_F(SandboxTest, TheKeyIsPrivateReusedAndReplacingItVoidsOldTokens) {
    QDir().mkpath(support_);
    EXPECT_EQ(verifyToken(token(APP_SANDBOX_READ, fs(support_))).reason, "");
    const QByteArray keyPath = QFile::encodeName(platform::sandbox::tokenKeyPath());
    EXPECT_TRUE(keyPath.startsWith(QFile::encodeName(runtime_.path()) + "/lumaro/"));
    struct stat st {};
    ASSERT_EQ(::stat(keyPath.constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(st.st_size, platform::sandbox::kTokenKeySize);
    ASSERT_EQ(::stat(QFile::encodeName(runtime_.file("lumaro")).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    const QByteArray key = platform::sandbox::loadTokenKey(false);
    const std::string first = token(APP_SANDBOX_READ, fs(support_));
    EXPECT_EQ(platform::sandbox::loadTokenKey(true), key);
    EXPECT_TRUE(verifyToken(first).valid);

    ASSERT_TRUE(QFile::remove(QFile::decodeName(keyPath)));
    EXPECT_EQ(verifyToken(first).reason, "no key");
    const std::string second = token(APP_SANDBOX_READ, fs(support_));
    EXPECT_NE(platform::sandbox::loadTokenKey(false), key);
    EXPECT_EQ(verifyToken(first).reason, "bad signature");
    EXPECT_TRUE(verifyToken(second).valid);

    // A damaged key file is never used; issuing replaces it.
    QFile damaged(QFile::decodeName(keyPath));
    ASSERT_TRUE(damaged.open(QIODevice::WriteOnly | QIODevice::Truncate));
    damaged.write("short");
    damaged.close();
    EXPECT_EQ(verifyToken(second).reason, "no key");
    EXPECT_TRUE(verifyToken(token(APP_SANDBOX_READ, fs(support_))).valid);
}

TEST_F(SandboxTest, AnUnsafeKeyFolderIsRefusedWithOneErrorLine) {
    QDir().mkpath(support_);
    TempDir elsewhere;
    symlinkAt(elsewhere.path(), runtime_.file("lumaro"));
    platform::log::LogCapture capture;
    errno = 0;
    EXPECT_FALSE(issue(APP_SANDBOX_READ, fs(support_)));
    EXPECT_EQ(errno, EIO);
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].type, OS_LOG_TYPE_ERROR);
    EXPECT_TRUE(QDir(elsewhere.path()).isEmpty()) << "nothing written through the link";

    ASSERT_TRUE(QFile::remove(runtime_.file("lumaro")));
    QDir().mkpath(runtime_.file("lumaro"));
    ASSERT_EQ(::chmod(QFile::encodeName(runtime_.file("lumaro")).constData(), 0770), 0);
    EXPECT_FALSE(issue(APP_SANDBOX_READ, fs(support_))) << "a group-writable key folder";
}

// The main bundle's own file, read once on first use (the test's bundle is the picker's).
TEST(Entitlements, TheMainBundlesFileIsReadOnFirstUse) {
    platform::sandbox::resetEntitlementsForTesting();
    EXPECT_EQ(platform::sandbox::entitlements(),
              platform::sandbox::entitlementsFromFile(NSBundle::mainBundle()->bundlePath() +
                                                      QStringLiteral("/Entitlements.json")));
    EXPECT_TRUE(platform::sandbox::isSandboxed());
}

TEST(Entitlements, AMissingOrMalformedFileMeansNoneWithOneErrorLine) {
    TempDir dir;
    dir.write("broken.json", 0, "{\"com.vantor");
    dir.write("list.json", 0, "[true]");
    for (const char* name : {"broken.json", "list.json", "missing.json"}) {
        platform::log::LogCapture capture;
        EXPECT_TRUE(platform::sandbox::entitlementsFromFile(dir.file(name)).isEmpty()) << name;
        ASSERT_EQ(capture.records().size(), 1u);
        EXPECT_EQ(capture.records()[0].type, OS_LOG_TYPE_ERROR);
    }
}
