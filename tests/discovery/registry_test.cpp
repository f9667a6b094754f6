// The registry: search path, bad manifests, duplicates, overrides, the manifest schema.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include "platform/extension/NSExtensionManifest.h"
#include "platform/extension/NSExtensionRegistry.h"
#include "platform/log/os_log.h"
#include "tests/support/Manifests.h"
#include "tests/support/TestBus.h"
#include "tests/support/TestMain.h"

using namespace lumaro::test;

namespace {

QStringList identifiers(const NSExtensionRegistry::Scan& scan) {
    return identifiersOf(scan.extensions);
}

TEST(Registry, BadAndDuplicateManifestsAreSkippedWithOneErrorLineEachAndTheRestStays) {
    TempDir dir;
    writeManifest(dir, "good.json", manifest("com.test.good"));
    writeManifest(dir, "twin.json", manifest("com.test.good", {}, kTestPoint, 1, "Twin"));
    dir.write("broken.json", 0, "{\"identifier\": ");
    QJsonObject stringForDictionary = manifest("com.test.wrongtype");
    stringForDictionary.insert("NSExtension", "com.test.point");
    writeManifest(dir, "wrongtype.json", stringForDictionary);
    QJsonObject missing = manifest("com.test.missing");
    missing.remove("executable");
    writeManifest(dir, "missing.json", missing);
    dir.write("huge.json", platform::extension::kMaxManifestSize + 1);
    QDir().mkpath(dir.file("folder.json"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(dir.file("pipe.json")).constData(), 0600), 0);
    dir.write("array.json", 0, "[1, 2]");
    dir.write("notes.txt", 0, "not a manifest name");  // ignored, not an error

    NSExtensionRegistry registry;
    platform::log::LogCapture capture;
    const NSExtensionRegistry::Scan scan = registry.scan({dir.path()});
    EXPECT_EQ(identifiers(scan), QStringList{"com.test.good"});
    EXPECT_EQ(scan.extensions[0]->infoDictionary().value("CFBundleDisplayName"), "Service");
    EXPECT_FALSE(scan.error);
    ASSERT_EQ(scan.problems.size(), 8) << scan.problems.join("\n").toStdString();
    const QString all = scan.problems.join("\n");
    EXPECT_TRUE(all.contains(dir.file("broken.json") + ": not valid JSON"));
    EXPECT_TRUE(
        all.contains(dir.file("wrongtype.json") + ": /NSExtension: expected object, found string"));
    EXPECT_TRUE(all.contains(dir.file("missing.json") +
                             ": /: the required field \"executable\" is missing"));
    EXPECT_TRUE(all.contains(dir.file("huge.json") + ": too large"));
    EXPECT_TRUE(all.contains(dir.file("folder.json") + ": cannot read: it is a folder"));
    EXPECT_TRUE(all.contains(dir.file("pipe.json") + ": cannot read: it is a named pipe"));
    EXPECT_TRUE(all.contains(dir.file("twin.json") + ": duplicate identifier com.test.good"));
    EXPECT_EQ(errorCount(capture), 8u);

    // Unchanged files are not read or reported again; a cold registry reports them again.
    capture.clear();
    EXPECT_EQ(identifiers(registry.scan({dir.path()})), QStringList{"com.test.good"});
    EXPECT_TRUE(capture.records().empty());
    registry.dropCaches();
    registry.scan({dir.path()});
    EXPECT_EQ(capture.records().size(), 8u);
}

TEST(Registry, UserManifestOverridesSystemOneThroughTheXdgSearchPath) {
    TempDir home;
    TempDir system;
    writeManifest(home, "lumaro/extensions/s.json",
                  manifest("com.test.shared", {}, kTestPoint, 1, "User"));
    writeManifest(system, "lumaro/extensions/s.json",
                  manifest("com.test.shared", {}, kTestPoint, 6, "System"));
    writeManifest(system, "lumaro/extensions/only.json", manifest("com.test.systemonly"));
    ScopedEnv path("LUMARO_EXTENSIONS_PATH", std::nullopt);
    ScopedEnv dataHome("XDG_DATA_HOME", home.path().toUtf8());
    ScopedEnv dataDirs("XDG_DATA_DIRS", ("relative/ignored:" + system.path()).toUtf8());

    EXPECT_EQ(NSExtensionRegistry::searchPaths(),
              (QStringList{home.file("lumaro/extensions"), system.file("lumaro/extensions")}));
    NSExtensionRegistry registry;
    const auto scan = registry.scan();
    EXPECT_EQ(identifiers(scan), (QStringList{"com.test.shared", "com.test.systemonly"}));
    EXPECT_EQ(scan.extensions[0]->infoDictionary().value("CFBundleDisplayName"), "User");
    EXPECT_TRUE(scan.problems.isEmpty());
}

TEST(Registry, FallbackIsUsedOnlyWhenNoSearchFolderExists) {
    TempDir nothing;
    const QStringList oldFallback = NSExtensionRegistry::fallbackSearchPaths();
    ScopedEnv path("LUMARO_EXTENSIONS_PATH", std::nullopt);
    ScopedEnv dataHome("XDG_DATA_HOME", nothing.file("home").toUtf8());
    ScopedEnv dataDirs("XDG_DATA_DIRS", nothing.file("sys").toUtf8());
    NSExtensionRegistry::setFallbackSearchPaths({"/fallback"});
    EXPECT_EQ(NSExtensionRegistry::searchPaths(), QStringList{"/fallback"});
    QDir().mkpath(nothing.file("sys/lumaro/extensions"));
    EXPECT_EQ(NSExtensionRegistry::searchPaths(),
              (QStringList{nothing.file("home/lumaro/extensions"),
                           nothing.file("sys/lumaro/extensions")}));
    {
        ScopedSearchPath explicitPath({"/a", "/b"});
        EXPECT_EQ(NSExtensionRegistry::searchPaths(), (QStringList{"/a", "/b"}));
    }
    NSExtensionRegistry::setFallbackSearchPaths(oldFallback);
}

// The compiled-in schema is a copy of the repository's; the example manifests pass it in the
// install test, which lists them.
TEST(Manifest, CompiledSchemaIsTheRepositorySchema) {
    QFile file(sourcePath("platform/extension/manifest.schema.json"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(QJsonDocument::fromJson(file.readAll()).object(),
              platform::extension::manifestSchema());
}

}  // namespace
