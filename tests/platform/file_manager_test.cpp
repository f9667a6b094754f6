// (The tilde expanded from HOME: the file store's working-directory tests.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "platform/foundation/NSFileManager.h"
#include "tests/support/TempDir.h"

using lumaro::test::TempDir;

TEST(FileManager, FailuresFillTheErrorAndSuccessLeavesItAlone) {
    TempDir dir;
    auto fm = NSFileManager::defaultManager();
    NSErrorPtr error;

    fm->contentsOfDirectoryAtPath(dir.file("missing"), &error);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSPlatformErrorDomain);
    EXPECT_EQ(error->code(), NSFileReadNoSuchFileError);
    EXPECT_EQ(error->userInfo().value(NSFilePathErrorKey).toString(), dir.file("missing"));
    EXPECT_FALSE(error->localizedDescription().isEmpty());

    const NSErrorPtr first = error;
    EXPECT_TRUE(fm->createDirectoryAtPath(dir.file("made"), false, nullptr, &error));
    EXPECT_EQ(error, first) << "a success must not clear the caller's error";

    error.reset();
    EXPECT_FALSE(fm->createDirectoryAtPath(dir.file("no/parent"), false, nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSFileNoSuchFileError);
    EXPECT_FALSE(QFileInfo::exists(dir.file("no")));
}

TEST(FileManager, RemovesLinksNotTheirTargetsAndWholeTrees) {
    TempDir dir;
    TempDir outside;
    const QString target = outside.write("keep.txt", 10);
    ASSERT_EQ(::symlink(QFile::encodeName(target).constData(),
                        QFile::encodeName(dir.file("link")).constData()),
              0);
    ASSERT_EQ(
        ::symlink("/nonexistent/dangling", QFile::encodeName(dir.file("dangling")).constData()), 0);
    dir.write("tree/a/b/c.txt", 3);
    auto fm = NSFileManager::defaultManager();

    EXPECT_FALSE(fm->fileExistsAtPath(dir.file("dangling")));
    EXPECT_EQ(fm->attributesOfItemAtPath(dir.file("dangling"), nullptr).value(NSFileType),
              NSFileTypeSymbolicLink);
    NSErrorPtr error;
    EXPECT_TRUE(fm->removeItemAtPath(dir.file("link"), &error));
    EXPECT_TRUE(fm->removeItemAtPath(dir.file("dangling"), &error));
    EXPECT_TRUE(fm->removeItemAtPath(dir.file("tree"), &error));
    EXPECT_FALSE(error);
    EXPECT_TRUE(QFileInfo::exists(target));
    EXPECT_TRUE(fm->contentsOfDirectoryAtPath(dir.path(), &error).isEmpty());
}

// (A move that succeeds, onto a name that is not ASCII: the file store's asynchronous tests.)
TEST(FileManager, MoveRefusesAnOccupiedDestination) {
    TempDir dir;
    const QString src = dir.write("new.mp4", 0, "abc");
    const QString dst = dir.write("taken.mp4", 0, "old");
    NSErrorPtr error;
    EXPECT_FALSE(NSFileManager::defaultManager()->moveItemAtURL(QUrl::fromLocalFile(src),
                                                                QUrl::fromLocalFile(dst), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSFileWriteFileExistsError);
    EXPECT_TRUE(QFileInfo::exists(src));
}
