// lumaro-broadcast services and validate, run as a program.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include "tests/support/Manifests.h"

using namespace lumaro::test;

namespace {

struct CommandRun {
    int status = -1;
    QString out;
    QString err;
};

CommandRun runCommand(const QStringList& args, const QStringList& searchPath = {}) {
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!searchPath.isEmpty()) {
        env.insert("LUMARO_EXTENSIONS_PATH", searchPath.join(':'));
    }
    process.setProcessEnvironment(env);
    process.start(
        qEnvironmentVariable("LUMARO_BUILD_DIR") + "/programs/lumaro-broadcast/lumaro-broadcast",
        args);
    process.waitForFinished(60000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

TEST(BroadcastCommand, ServicesListsWhatThePickerQueryOffers) {
    TempDir dir;
    writeManifest(dir, "b.json",
                  manifest("com.test.b", {}, "com.vantor.broadcast-services-setupui", 6, "Bee"));
    writeManifest(dir, "a.json",
                  manifest("com.test.a", {}, "com.vantor.broadcast-services-setupui", 1, "Ay"));
    writeManifest(dir, "c.json", manifest("com.test.c", {}, "com.test.other", 1, "Other"));
    dir.write("bad.json", 0, "{");

    const CommandRun text = runCommand({"services"}, {dir.path()});
    EXPECT_EQ(text.status, 0) << text.err.toStdString();
    EXPECT_EQ(text.out, "com.test.a\tAy\tnative (1)\t" + dir.file("apps/com.test.a") +
                            "\ncom.test.b\tBee\tprism (6)\t" + dir.file("apps/com.test.b") + "\n");
    EXPECT_TRUE(text.err.contains(dir.file("bad.json") + " skipped: not valid JSON"));

    const QJsonArray list =
        QJsonDocument::fromJson(runCommand({"services", "--json"}, {dir.path()}).out.toUtf8())
            .array();
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[1].toObject().value("identifier").toString(), "com.test.b");
    EXPECT_EQ(list[1].toObject().value("platform").toInt(), 6);
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
