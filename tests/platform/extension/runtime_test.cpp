// Extension requests to real child processes: the example setup UI and the test child.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <QFile>
#include <QFileDevice>
#include <QSet>

#include "platform/appkit/NSRemoteViewController.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionContext.h"
#include "platform/extension/NSExtensionRequest.h"
#include "tests/support/Manifests.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestBus.h"

using lumaro::test::buildPath;
using platform::dispatch::runMainLoopUntil;

namespace {

constexpr int kWaitMs = 20000;  // a bound for the waits, not a measure

NSExtensionPtr extensionFor(const QString& identifier, const QString& executable,
                            const QString& principal) {
    const QVariantMap attributes{
        {NSExtensionPointIdentifierKey, QStringLiteral("com.example.test")},
        {NSExtensionPrincipalClassKey, principal}};
    auto plugIn = std::make_shared<NSExtensionPlugIn>(
        identifier, QUrl(), 1, QUrl::fromLocalFile(executable), attributes, QString());
    return std::make_shared<NSExtension>(
        identifier, attributes, QVariantMap{{NSExtensionKey, attributes}}, plugIn, nullptr);
}

// What a request reported.
struct Outcome {
    bool begun = false;
    QUuid uuid;
    NSErrorPtr beginError;
    int completions = 0;
    int cancellations = 0;
    NSErrorPtr cancelError;
    int interruptions = 0;
};

std::shared_ptr<Outcome> begin(const NSExtensionPtr& extension) {
    auto outcome = std::make_shared<Outcome>();
    extension->setRequestCompletionBlock(
        [outcome](QUuid, std::vector<NSExtensionItemPtr>) { ++outcome->completions; });
    extension->setRequestCancellationBlock([outcome](QUuid, NSErrorPtr error) {
        ++outcome->cancellations;
        outcome->cancelError = error;
    });
    extension->setRequestInterruptionBlock([outcome](QUuid) { ++outcome->interruptions; });
    extension->beginExtensionRequestWithInputItems({}, [outcome](QUuid id, NSErrorPtr error) {
        outcome->begun = true;
        outcome->uuid = id;
        outcome->beginError = error;
    });
    return outcome;
}

// Every request ended and every child reaped.
bool allRequestsGone() {
    return runMainLoopUntil(
        [] {
            return platform::extension::runningRequestCount() == 0 &&
                   platform::extension::liveChildCount() == 0;
        },
        kWaitMs);
}

class Runtime : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // Children only (this process read its options at start): a child that exits right
        // after its last reply can leave that reply's receiver to a connection thread that has
        // already stopped, which a leak check at exit reports.
        QByteArray options = qgetenv("ASAN_OPTIONS");
        qputenv("ASAN_OPTIONS", options + (options.isEmpty() ? "" : ":") + "detect_leaks=0");
    }
    void SetUp() override {
        qputenv("LUMARO_EXAMPLE_SETUP_MODE", "interactive");  // waits for its user
        NSExtension::_setRequestStartTimeout(10000);
    }
    void TearDown() override {
        qunsetenv("LUMARO_EXAMPLE_SETUP_MODE");
        EXPECT_TRUE(allRequestsGone());
    }
};

}  // namespace

TEST_F(Runtime, StartFailuresCompleteWithAnError) {
    lumaro::test::TempDir dir;
    auto missing = begin(extensionFor("com.example.missing", dir.file("none"), "X"));
    const QString plain = dir.write("plain", 0, "#!/bin/sh\n");  // not executable
    auto notExecutable = begin(extensionFor("com.example.plain", plain, "X"));
    ASSERT_TRUE(runMainLoopUntil([&] { return missing->begun && notExecutable->begun; }, kWaitMs));
    for (const auto& outcome : {missing, notExecutable}) {
        EXPECT_TRUE(outcome->uuid.isNull());
        ASSERT_NE(outcome->beginError, nullptr);
        EXPECT_EQ(outcome->beginError->domain(), NSExtensionRequestErrorDomain);
        EXPECT_EQ(outcome->beginError->code(), NSExtensionRequestExecutableMissingError);
    }

    const auto script = [&](const char* name, const QString& body) {
        const QString file = dir.write(name, 0, ("#!/bin/sh\n" + body).toUtf8());
        QFile::setPermissions(file, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        return file;
    };
    // A child that dies before it connects.
    auto died = begin(extensionFor("com.example.dies", script("dies", "exit 3\n"), "X"));
    ASSERT_TRUE(runMainLoopUntil([&] { return died->begun; }, kWaitMs));
    ASSERT_NE(died->beginError, nullptr);
    EXPECT_EQ(died->beginError->code(), NSExtensionRequestExitedError);

    // A child that never connects: the start timeout ends it, and it is reaped.
    NSExtension::_setRequestStartTimeout(300);
    const QString silentBody = QStringLiteral("echo $$ > '%1'\nexec sleep 600\n");
    auto silent = begin(
        extensionFor("com.example.silent", script("silent", silentBody.arg(dir.file("pid"))), "X"));
    ASSERT_TRUE(runMainLoopUntil([&] { return silent->begun; }, kWaitMs));
    ASSERT_NE(silent->beginError, nullptr);
    EXPECT_EQ(silent->beginError->code(), NSExtensionRequestTimeoutError);
    ASSERT_TRUE(allRequestsGone());
    QFile pidFile(dir.file("pid"));
    if (pidFile.open(QIODevice::ReadOnly)) {  // absent when the child was stopped before writing
        const pid_t pid = pid_t(pidFile.readAll().trimmed().toLongLong());
        ASSERT_GT(pid, 0);
        EXPECT_TRUE(
            runMainLoopUntil([pid] { return kill(pid, 0) == -1 && errno == ESRCH; }, kWaitMs));
    }
    for (const auto& outcome : {missing, notExecutable, died, silent}) {
        EXPECT_EQ(outcome->completions + outcome->cancellations + outcome->interruptions, 0);
    }
}

TEST_F(Runtime, ChildThatSendsGarbageOrHasNoPrincipalClassNeverReportsItems) {
    // Malformed messages and unreadable items: the request begins, nothing is returned.
    auto garbage = begin(extensionFor(
        "com.example.garbage", buildPath("tests/platform/extension/extension_test_child"), "X"));
    ASSERT_TRUE(runMainLoopUntil([&] { return garbage->interruptions == 1; }, kWaitMs));
    EXPECT_EQ(garbage->beginError, nullptr);

    // A principal class that the child does not have: the child cancels with an error.
    auto cancelled = begin(extensionFor("com.example.noprincipal",
                                        buildPath("programs/example-setup-ui/example-setup-ui"),
                                        "NoSuchController"));
    ASSERT_TRUE(runMainLoopUntil([&] { return cancelled->cancellations == 1; }, kWaitMs));
    ASSERT_NE(cancelled->cancelError, nullptr);
    EXPECT_EQ(cancelled->cancelError->code(), NSExtensionRequestNoViewControllerError);
    EXPECT_EQ(garbage->completions + garbage->cancellations, 0);
    EXPECT_EQ(cancelled->completions + cancelled->interruptions, 0);
}

// Two requests that wait for their user, ended by the host: the children are stopped and no
// block runs.
TEST_F(Runtime, TwoRequestsAtOnceAndNoViewForAServiceWithoutOne) {
    auto extension = extensionFor("com.example.twice.setupui",
                                  buildPath("programs/example-setup-ui/example-setup-ui"),
                                  QStringLiteral("ExampleSetupViewController"));
    auto first = begin(extension);
    auto second = begin(extension);
    ASSERT_TRUE(runMainLoopUntil([&] { return first->begun && second->begun; }, kWaitMs));
    ASSERT_NE(first->uuid, second->uuid);
    const auto running = extension->_runningRequestIdentifiers();
    EXPECT_EQ(QSet<QUuid>(running.begin(), running.end()),
              (QSet<QUuid>{first->uuid, second->uuid}));
    EXPECT_NE(extension->_extensionContextForUUID(first->uuid), nullptr);  // the host-side context
    EXPECT_EQ(extension->_extensionContextForUUID(QUuid::createUuid()), nullptr);

    // A view controller for a service that is no view service, or has no running request, is an
    // error. (An unknown class, and the principal class when none is named: the end-to-end road.)
    for (const QString service : {"com.example.twice.setupui", "com.example.nothing.veilnet"}) {
        SCOPED_TRACE(service.toStdString());
        auto parameters = std::make_shared<NSRemoteViewControllerParameters>();
        parameters->setServiceBundleIdentifier(service);
        parameters->setExtensionIdentifier(second->uuid);
        bool done = false;
        NSErrorPtr error;
        NSRemoteViewController::requestViewController(
            parameters, [&](std::shared_ptr<NSRemoteViewController> controller, NSErrorPtr e) {
                done = true;
                EXPECT_EQ(controller, nullptr);
                error = std::move(e);
            });
        ASSERT_TRUE(runMainLoopUntil([&] { return done; }, kWaitMs));
        EXPECT_NE(error, nullptr);
    }
    for (const auto& outcome : {first, second}) {
        extension->cancelExtensionRequestWithIdentifier(outcome->uuid);
    }
    ASSERT_TRUE(allRequestsGone());
    EXPECT_EQ(extension->_extensionContextForUUID(first->uuid), nullptr);
    for (const auto& outcome : {first, second}) {
        EXPECT_EQ(outcome->completions + outcome->cancellations + outcome->interruptions, 0);
    }
}
