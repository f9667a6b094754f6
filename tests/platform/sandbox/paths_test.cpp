#include <gtest/gtest.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <string>

#include "platform/sandbox/paths.h"
#include "tests/support/TempDir.h"

using lumaro::test::TempDir;
using platform::sandbox::canonicalPath;

namespace {

std::string fs(const QString& path) {
    return QFile::encodeName(path).toStdString();
}

void link(const std::string& target, const QString& at) {
    ASSERT_EQ(::symlink(target.c_str(), QFile::encodeName(at).constData()), 0);
}

}  // namespace

TEST(CanonicalPath, ResolvesLinksDotsAndSlashesIncludingBelowMissingFolders) {
    TempDir dir;
    TempDir outside;
    dir.write("real/file.txt", 1);
    link(fs(outside.path()), dir.file("real/out"));
    link("real", dir.file("rel"));  // relative target
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
    link(fs(dir.file("loop")), dir.file("loop"));
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
