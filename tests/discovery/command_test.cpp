// lumaro-broadcast validate, run as a program (the services it lists are the install test's).
#include <gtest/gtest.h>

#include <QJsonObject>
#include <QProcess>

#include "tests/support/Manifests.h"
#include "tests/support/TestBus.h"

using namespace lumaro::test;

namespace {

struct CommandRun {
    int status = -1;  // -1: it did not end normally
    QString out;
};

CommandRun runCommand(const QStringList& args) {
    QProcess process;
    process.start(buildPath("programs/lumaro-broadcast/lumaro-broadcast"), args);
    process.waitForFinished(60000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput())};
}

TEST(BroadcastCommand, ValidateReportsEachProblemAndFailsWhenAnyManifestIsInvalid) {
    TempDir dir;
    const QString good = writeManifest(dir, "good.json", manifest("com.test.good"));
    const QString twin = writeManifest(dir, "twin.json", manifest("com.test.good"));
    QJsonObject wrong = manifest("com.test.wrong");
    wrong.insert("infoDictionary", "Display");
    wrong.remove("platform");
    const QString bad = writeManifest(dir, "bad.json", wrong);

    const CommandRun ok = runCommand({"validate", good});
    EXPECT_EQ(ok.status, 0);
    EXPECT_EQ(ok.out, good + ": valid\n");

    const CommandRun failed = runCommand({"validate", good, bad, twin, dir.path()});
    EXPECT_EQ(failed.status, 1);
    const QStringList lines = failed.out.split('\n', Qt::SkipEmptyParts);
    EXPECT_EQ(
        lines,
        (QStringList{good + ": valid", bad + ": /: the required field \"platform\" is missing",
                     bad + ": /infoDictionary: expected object, found string",
                     twin + ": duplicate identifier com.test.good (also declared by " + good + ")",
                     dir.path() + ": cannot read: it is a folder"}));

    EXPECT_EQ(runCommand({"validate"}).status, 2);
    EXPECT_EQ(runCommand({"frobnicate"}).status, 2);
}

}  // namespace
