// Extension requests to real child processes: the example setup UI and the test child.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <QFile>
#include <QFileDevice>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <algorithm>

#include "discovery/LMExtensions.h"
#include "platform/appkit/NSRemoteViewController.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/NSExtension.h"
#include "platform/extension/NSExtensionContext.h"
#include "platform/extension/NSExtensionRegistry.h"
#include "platform/extension/NSExtensionRequest.h"
#include "platform/extension/UTType.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/xpc/NSInvocation.h"
#include "tests/support/Manifests.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestBus.h"

using lumaro::test::buildPath;
using lumaro::test::loadItem;
using platform::dispatch::runMainLoopUntil;

namespace {

constexpr int kWaitMs = 20000;  // a bound for the waits, not a measure

NSExtensionPtr extensionFor(const QString& identifier, const QString& executable,
                            const QString& principal, const QString& contextClass = {}) {
    QVariantMap attributes{{NSExtensionPointIdentifierKey, QStringLiteral("com.example.test")},
                           {NSExtensionPrincipalClassKey, principal}};
    if (!contextClass.isEmpty()) {
        attributes.insert(NSExtensionContextClassKey, contextClass);
    }
    auto plugIn = std::make_shared<NSExtensionPlugIn>(
        identifier, QUrl(), 1, QUrl::fromLocalFile(executable), attributes, QString());
    return std::make_shared<NSExtension>(
        identifier, attributes, QVariantMap{{NSExtensionKey, attributes}}, plugIn, nullptr);
}

NSExtensionPtr setupUI(const QString& identifier = QStringLiteral("com.example.test.setupui")) {
    return extensionFor(identifier, buildPath("programs/example-setup-ui/example-setup-ui"),
                        QStringLiteral("ExampleSetupViewController"));
}

// The application-info item as the picker builds it: a keyed archive of the host's name,
// bundle identifier and icon, as the one data attachment of an untitled item.
NSExtensionItemPtr applicationInfoItem() {
    const QVariantMap info{
        {QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoAppName"),
         QStringLiteral("Ödeon")},
        {QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoBundleID"),
         QStringLiteral("com.example.host")},
        {QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoAppIcon"), QByteArray("PNG?")}};
    auto item = std::make_shared<NSExtensionItem>();
    item->setAttachments({NSItemProvider::initWithItem(
        NSKeyedArchiver::archivedDataWithRootObject(info), kUTTypeData)});
    return item;
}

// What a request reported.
struct Outcome {
    bool begun = false;
    QUuid uuid;
    NSErrorPtr beginError;
    int completions = 0;
    std::vector<NSExtensionItemPtr> items;
    int cancellations = 0;
    int interruptions = 0;
};

std::shared_ptr<Outcome> begin(const NSExtensionPtr& extension,
                               std::vector<NSExtensionItemPtr> items = {applicationInfoItem()}) {
    auto outcome = std::make_shared<Outcome>();
    extension->setRequestCompletionBlock([outcome](QUuid, std::vector<NSExtensionItemPtr> items) {
        ++outcome->completions;
        outcome->items = std::move(items);
    });
    extension->setRequestCancellationBlock(
        [outcome](QUuid, NSErrorPtr) { ++outcome->cancellations; });
    extension->setRequestInterruptionBlock([outcome](QUuid) { ++outcome->interruptions; });
    extension->beginExtensionRequestWithInputItems(std::move(items),
                                                   [outcome](QUuid id, NSErrorPtr error) {
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
        qputenv("LUMARO_EXAMPLE_SETUP_MODE", "complete");
        qputenv("LUMARO_EXAMPLE_SETUP_ACT", "loaded");
        NSExtension::_setRequestStartTimeout(10000);
    }
    void TearDown() override {
        qunsetenv("LUMARO_EXAMPLE_SETUP_MODE");
        qunsetenv("LUMARO_EXAMPLE_SETUP_ACT");
        qunsetenv("LUMARO_TEST_CHILD_MODE");
        EXPECT_TRUE(allRequestsGone());
    }
};

}  // namespace

TEST(RuntimeItems, TravelWithTitleTypeDataAndUserInfo) {
    auto titled = LMExtensions::itemWithTitle("key", QByteArray("\x00\x01value", 7));
    titled->setUserInfo({{"n", 3}, {"url", QUrl("https://example.com/a")}});
    auto untitled = std::make_shared<NSExtensionItem>();
    untitled->setAttachments(
        {NSItemProvider::initWithItem(QUrl("https://example.com/b"), "public.url")});
    const auto decoded = platform::extension::decodeItems(
        platform::extension::encodeItems({titled, nullptr, untitled}));
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), 2u);
    EXPECT_EQ((*decoded)[0]->attributedTitle(), "key");
    EXPECT_EQ((*decoded)[0]->attachments()[0]->typeIdentifier(), kUTTypeData);
    EXPECT_EQ((*decoded)[0]->userInfo().value("url").toUrl(), QUrl("https://example.com/a"));
    NSErrorPtr error;
    EXPECT_EQ(loadItem((*decoded)[0]->attachments()[0], &error), QByteArray("\x00\x01value", 7));
    EXPECT_TRUE((*decoded)[1]->attributedTitle().isNull());
    EXPECT_EQ((*decoded)[1]->attachments()[0]->toPlainValue().value("item").toUrl(),
              QUrl("https://example.com/b"));

    EXPECT_FALSE(platform::extension::decodeItems(QByteArray("junk")));
    EXPECT_FALSE(platform::extension::decodeItems(
        NSKeyedArchiver::archivedDataWithRootObject(QVariantMap{{"not", "a list"}})));
    // Entries that are not items are left out, the rest kept.
    const auto mixed = platform::extension::decodeItems(NSKeyedArchiver::archivedDataWithRootObject(
        QVariantList{42, QVariantMap{{"attachments", "wrong"}}, titled->toPlainValue()}));
    ASSERT_TRUE(mixed);
    EXPECT_EQ(mixed->size(), 1u);
}

TEST_F(Runtime, SetupUIReadsTheHostInfoAndReturnsTheFourItems) {
    auto extension = setupUI("com.example.lumenstream.setupui");
    auto outcome = begin(extension);
    ASSERT_TRUE(runMainLoopUntil([&] { return outcome->begun; }, kWaitMs));
    ASSERT_EQ(outcome->beginError, nullptr);
    ASSERT_FALSE(outcome->uuid.isNull());
    // The host-side context of the running request (until it ends).
    if (auto context = extension->_extensionContextForUUID(outcome->uuid)) {
        EXPECT_EQ(context->_UUID(), outcome->uuid);
        EXPECT_EQ(context->inputItems().size(), 1u);
    }
    EXPECT_EQ(extension->_extensionContextForUUID(QUuid::createUuid()), nullptr);

    ASSERT_TRUE(runMainLoopUntil([&] { return outcome->completions == 1; }, kWaitMs));
    ASSERT_EQ(outcome->items.size(), 4u);
    const QStringList titles{"LMBroadcastExtensionKeyExtensionBundleIdentifier",
                             "LMBroadcastExtensionKeyBroadcastConfiguration",
                             "LMBroadcastExtensionKeyExtensionUserInfo",
                             "kLMBroadcastExtensionKeyExtensionServiceURL"};
    std::vector<QVariant> values;
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(outcome->items[i]->attributedTitle(), titles[qsizetype(i)]);
        ASSERT_EQ(outcome->items[i]->attachments().size(), 1u);
        NSErrorPtr error;
        values.push_back(loadItem(outcome->items[i]->attachments()[0], &error));
        EXPECT_EQ(error, nullptr);
    }
    EXPECT_EQ(values[0].toString(), "com.example.lumenstream.broadcast");
    const QVariantMap configuration =
        NSKeyedUnarchiver::unarchiveObjectWithData(values[1].toByteArray()).toMap();
    EXPECT_EQ(configuration.value("hostBundleID").toString(), "com.example.host");
    EXPECT_EQ(values[2].toMap().value("hostAppName").toString(), "Ödeon");
    EXPECT_TRUE(values[3].toUrl().isValid());
    EXPECT_EQ(values[3].toUrl().host(), "live.example.com");
    EXPECT_EQ(outcome->cancellations + outcome->interruptions, 0);
    ASSERT_TRUE(allRequestsGone());
    EXPECT_EQ(extension->_extensionContextForUUID(outcome->uuid), nullptr);
}

TEST_F(Runtime, CancelGivesAnEmptyListAndAFailedItemStaysUnloadable) {
    qputenv("LUMARO_EXAMPLE_SETUP_MODE", "cancel");
    auto cancelled = begin(setupUI());
    ASSERT_TRUE(runMainLoopUntil([&] { return cancelled->completions == 1; }, kWaitMs));
    EXPECT_TRUE(cancelled->items.empty());

    qputenv("LUMARO_EXAMPLE_SETUP_MODE", "fail-item");
    auto failing = begin(setupUI());
    ASSERT_TRUE(runMainLoopUntil([&] { return failing->completions == 1; }, kWaitMs));
    ASSERT_EQ(failing->items.size(), 4u);
    NSErrorPtr error;
    loadItem(failing->items[1]->attachments()[0], &error);
    EXPECT_NE(error, nullptr);
    loadItem(failing->items[0]->attachments()[0], &error);
    EXPECT_EQ(error, nullptr);
}

TEST_F(Runtime, RemoteViewControllerOfARunningRequest) {
    qputenv("LUMARO_EXAMPLE_SETUP_ACT", "shown");
    auto extension = setupUI("com.example.remote.setupui");
    auto outcome = begin(extension);
    ASSERT_TRUE(runMainLoopUntil([&] { return outcome->begun; }, kWaitMs));
    ASSERT_FALSE(outcome->uuid.isNull());

    struct Answer {
        bool done = false;
        std::shared_ptr<NSRemoteViewController> controller;
        NSErrorPtr error;
    };
    auto ask = [](std::shared_ptr<NSRemoteViewControllerParameters> parameters) {
        auto answer = std::make_shared<Answer>();
        NSRemoteViewController::requestViewController(
            parameters, [answer](std::shared_ptr<NSRemoteViewController> c, NSErrorPtr e) {
                answer->done = true;
                answer->controller = std::move(c);
                answer->error = std::move(e);
            });
        EXPECT_TRUE(runMainLoopUntil([&] { return answer->done; }, kWaitMs));
        return answer;
    };
    // Not a view service, and a service with no running request.
    auto wrong = std::make_shared<NSRemoteViewControllerParameters>();
    wrong->setServiceBundleIdentifier("com.example.remote.setupui");
    EXPECT_NE(ask(wrong)->error, nullptr);
    wrong->setServiceBundleIdentifier("com.example.nothing.veilnet");
    EXPECT_EQ(ask(wrong)->error->code(), NSExtensionRequestNotRunningError);

    auto parameters = std::make_shared<NSRemoteViewControllerParameters>();
    parameters->setServiceBundleIdentifier("com.example.remote.setupui.veilnet");
    parameters->setServiceViewControllerClassName("ExampleSetupViewController");
    parameters->setHostAppClientParameters(QVariantMap{{"request-identifier", outcome->uuid},
                                                       {"isPrismApp", "NO"},
                                                       {"view-width", 400.0},
                                                       {"view-height", 300.0}});
    auto answer = ask(parameters);
    ASSERT_NE(answer->controller, nullptr);
    EXPECT_EQ(answer->error, nullptr);
    EXPECT_EQ(answer->controller->serviceBundleIdentifier(), "com.example.remote.setupui.veilnet");
    EXPECT_EQ(answer->controller->view()->frame().size.width, 360);  // the service view's size
    EXPECT_EQ(answer->controller->remoteWindowId(), 0);              // headless: a placeholder

    // The service's controller got the client parameters; shown, it answers the request.
    ASSERT_TRUE(runMainLoopUntil([&] { return outcome->completions == 1; }, kWaitMs));
    ASSERT_EQ(outcome->items.size(), 4u);
    NSErrorPtr error;
    const QVariantMap userInfo = loadItem(outcome->items[2]->attachments()[0], &error).toMap();
    const QVariantMap received = userInfo.value("hostAppClientParameters").toMap();
    EXPECT_EQ(received.value("request-identifier").toString(), outcome->uuid.toString());
    EXPECT_EQ(received.value("isPrismApp").toString(), "NO");
    EXPECT_EQ(received.value("view-width").toDouble(), 400.0);
    EXPECT_EQ(received.value("view-height").toDouble(), 300.0);
}

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

    // A child that dies before it connects.
    const QString dies = dir.write("dies", 0, "#!/bin/sh\nexit 3\n");
    QFile::setPermissions(dies, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    auto died = begin(extensionFor("com.example.dies", dies, "X"));
    ASSERT_TRUE(runMainLoopUntil([&] { return died->begun; }, kWaitMs));
    ASSERT_NE(died->beginError, nullptr);
    EXPECT_EQ(died->beginError->code(), NSExtensionRequestExitedError);

    // A child that never connects: the start timeout ends it, and it is reaped.
    qputenv("LUMARO_TEST_CHILD_MODE", "silent");
    qputenv("LUMARO_TEST_CHILD_PIDFILE", dir.file("pid").toLocal8Bit());
    NSExtension::_setRequestStartTimeout(300);
    auto silent = begin(extensionFor(
        "com.example.silent", buildPath("tests/platform/extension/extension_test_child"), "X"));
    ASSERT_TRUE(runMainLoopUntil([&] { return silent->begun; }, kWaitMs));
    ASSERT_NE(silent->beginError, nullptr);
    EXPECT_EQ(silent->beginError->code(), NSExtensionRequestTimeoutError);
    ASSERT_TRUE(allRequestsGone());
    QFile pidFile(dir.file("pid"));
    if (pidFile.open(QIODevice::ReadOnly)) {  // absent when the child was stopped before writing
        const pid_t pid = pid_t(pidFile.readAll().toLongLong());
        ASSERT_GT(pid, 0);
        EXPECT_TRUE(
            runMainLoopUntil([pid] { return kill(pid, 0) == -1 && errno == ESRCH; }, kWaitMs));
    }
    qunsetenv("LUMARO_TEST_CHILD_PIDFILE");
    for (const auto& outcome : {missing, notExecutable, died, silent}) {
        EXPECT_EQ(outcome->completions + outcome->cancellations + outcome->interruptions, 0);
    }
}

TEST_F(Runtime, ChildThatCrashesOrSendsGarbageOrIsCancelledNeverReportsItems) {
    // Crash in the middle of the request: an interruption, no completion.
    qputenv("LUMARO_EXAMPLE_SETUP_MODE", "crash");
    auto crashed = begin(setupUI());
    ASSERT_TRUE(runMainLoopUntil([&] { return crashed->interruptions == 1; }, kWaitMs));
    EXPECT_FALSE(crashed->uuid.isNull());

    // Malformed messages and unreadable items: the request begins, nothing is returned.
    qputenv("LUMARO_TEST_CHILD_MODE", "garbage");
    auto garbage = begin(extensionFor(
        "com.example.garbage", buildPath("tests/platform/extension/extension_test_child"), "X"));
    ASSERT_TRUE(runMainLoopUntil([&] { return garbage->interruptions == 1; }, kWaitMs));
    EXPECT_EQ(garbage->beginError, nullptr);

    // A principal class that the child does not have: the child cancels with an error.
    auto refused = std::make_shared<NSErrorPtr>();
    auto noPrincipal =
        extensionFor("com.example.noprincipal",
                     buildPath("programs/example-setup-ui/example-setup-ui"), "NoSuchController");
    auto cancelled = begin(noPrincipal);
    noPrincipal->setRequestCancellationBlock([cancelled, refused](QUuid, NSErrorPtr error) {
        ++cancelled->cancellations;
        *refused = error;
    });
    ASSERT_TRUE(runMainLoopUntil([&] { return cancelled->cancellations == 1; }, kWaitMs));
    ASSERT_NE(*refused, nullptr);
    EXPECT_EQ((*refused)->code(), NSExtensionRequestNoViewControllerError);
    EXPECT_EQ(cancelled->completions + cancelled->interruptions, 0);

    // The host ends a request that waits for its user: the child is stopped, no block runs.
    qputenv("LUMARO_EXAMPLE_SETUP_MODE", "interactive");
    auto extension = setupUI("com.example.waiting.setupui");
    auto waiting = begin(extension);
    ASSERT_TRUE(runMainLoopUntil([&] { return waiting->begun; }, kWaitMs));
    ASSERT_FALSE(waiting->uuid.isNull());
    EXPECT_EQ(extension->_runningRequestIdentifiers(), std::vector<QUuid>{waiting->uuid});
    extension->cancelExtensionRequestWithIdentifier(waiting->uuid);
    ASSERT_TRUE(allRequestsGone());
    EXPECT_EQ(extension->_extensionContextForUUID(waiting->uuid), nullptr);

    for (const auto& outcome : {crashed, garbage, waiting}) {
        EXPECT_EQ(outcome->completions + outcome->cancellations, 0);
    }
    EXPECT_EQ(waiting->interruptions, 0);
}

TEST_F(Runtime, BuildTreeManifestsStartTheBuiltPrograms) {
    NSExtensionRegistry registry;
    const NSExtensionRegistry::Scan scan = registry.scan({buildPath("share/lumaro/extensions")});
    EXPECT_TRUE(scan.problems.isEmpty()) << scan.problems.join("\n").toStdString();
    NSExtensionPtr picker, northwind;
    for (const auto& extension : scan.extensions) {
        if (extension->identifier() == "com.vantor.lumaro.broadcast-picker") {
            picker = extension;
        } else if (extension->identifier() == "com.example.northwind-live.setupui") {
            northwind = extension;
        }
    }
    ASSERT_NE(picker, nullptr);
    ASSERT_NE(northwind, nullptr);
    EXPECT_EQ(picker->extensionPointIdentifier(), "com.vantor.lumaro.view-service");
    EXPECT_EQ(picker->attributes().value(NSExtensionPrincipalClassKey).toString(),
              "LMBroadcastActivityExtensionNSViewController");
    EXPECT_EQ(picker->attributes().value(NSExtensionContextClassKey).toString(),
              "LMBroadcastActivityViewServiceExtensionContext");
    EXPECT_TRUE(QFileInfo(picker->_plugIn()->executableUrl().toLocalFile()).isExecutable());
    EXPECT_TRUE(QFileInfo::exists(picker->_plugIn()->containingUrl().toLocalFile() +
                                  "/Resources/BroadcastSetup.storyboard.json"));

    // The example service's record starts the built setup UI.
    auto outcome = begin(northwind);
    ASSERT_TRUE(runMainLoopUntil([&] { return outcome->completions == 1; }, kWaitMs));
    EXPECT_EQ(outcome->items.size(), 4u);

    // The picker's process starts, makes its context and connects; the host then ends it.
    auto started = begin(picker, {});
    ASSERT_TRUE(runMainLoopUntil([&] { return started->begun; }, kWaitMs));
    ASSERT_EQ(started->beginError, nullptr);
    picker->cancelExtensionRequestWithIdentifier(started->uuid);
}

TEST_F(Runtime, TwoRequestsAtOnceAndAViewThatCannotBeMade) {
    qputenv("LUMARO_EXAMPLE_SETUP_MODE", "interactive");
    auto extension = setupUI("com.example.twice.setupui");
    auto first = begin(extension);
    auto second = begin(extension);
    ASSERT_TRUE(runMainLoopUntil([&] { return first->begun && second->begun; }, kWaitMs));
    ASSERT_NE(first->uuid, second->uuid);
    auto running = extension->_runningRequestIdentifiers();
    std::sort(running.begin(), running.end());
    std::vector<QUuid> expected{first->uuid, second->uuid};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(running, expected);

    // The child cannot make a controller of an unknown class: an error, the request runs on.
    auto parameters = std::make_shared<NSRemoteViewControllerParameters>();
    parameters->setServiceBundleIdentifier("com.example.twice.setupui.veilnet");
    parameters->setExtensionIdentifier(second->uuid);
    parameters->setServiceViewControllerClassName("NoSuchViewController");
    bool done = false;
    NSErrorPtr error;
    std::shared_ptr<NSRemoteViewController> controller;
    NSRemoteViewController::requestViewController(
        parameters, [&](std::shared_ptr<NSRemoteViewController> c, NSErrorPtr e) {
            done = true;
            controller = std::move(c);
            error = std::move(e);
        });
    ASSERT_TRUE(runMainLoopUntil([&] { return done; }, kWaitMs));
    EXPECT_EQ(controller, nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), NSExtensionRequestNoViewControllerError);

    // The principal class of the second request answers, as its own class or by default.
    done = false;
    parameters->setServiceViewControllerClassName(QString());
    NSRemoteViewController::requestViewControllerOfClass<NSRemoteViewController>(
        QString(), "com.example.twice.setupui.veilnet",
        [&](std::shared_ptr<NSRemoteViewController> c, NSErrorPtr e) {
            done = true;
            controller = std::move(c);
            error = std::move(e);
        });
    ASSERT_TRUE(runMainLoopUntil([&] { return done; }, kWaitMs));
    ASSERT_NE(controller, nullptr);
    EXPECT_EQ(error, nullptr);

    extension->cancelExtensionRequestWithIdentifier(first->uuid);
    extension->cancelExtensionRequestWithIdentifier(second->uuid);
    ASSERT_TRUE(allRequestsGone());
    EXPECT_EQ(
        first->completions + second->completions + first->interruptions + second->interruptions, 0);
}

TEST(ExtensionPrograms, ExplainThemselvesAndRefuseToRunByHand) {
    auto run = [](const QString& program, const QStringList& arguments) {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove(platform::extension::kEnvRequestEndpoint);
        process.setProcessEnvironment(env);
        process.start(buildPath(program), arguments);
        process.waitForFinished(kWaitMs);
        return std::make_pair(process.exitCode(),
                              QString::fromLocal8Bit(process.readAllStandardOutput() +
                                                     process.readAllStandardError()));
    };
    const QString picker = "programs/lumaro-broadcast-picker/lumaro-broadcast-picker";
    const QString setup = "programs/example-setup-ui/example-setup-ui";
    for (const QString& program : {picker, setup}) {
        auto [code, text] = run(program, {"--help"});
        EXPECT_EQ(code, 0);
        EXPECT_TRUE(text.contains("started by the extension runtime") ||
                    text.contains("the extension runtime starts it"))
            << text.toStdString();
        std::tie(code, text) = run(program, {});
        EXPECT_EQ(code, 64);
        EXPECT_TRUE(text.contains("LUMARO_EXTENSION_ENDPOINT")) << text.toStdString();
    }
    EXPECT_EQ(run(setup, {"--mode=sideways"}).first, 64);
    EXPECT_EQ(run(setup, {"--bogus"}).first, 64);
}
