// The extension queries: the filter matrix, order, the NSLog line per extension, the error
// passed through, and the processing mode.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "discovery/LMExtensions.h"
#include "platform/log/os_log.h"
#include "tests/support/Manifests.h"

using namespace lumaro::test;

namespace {

struct QueryResult {
    bool answered = false;
    std::vector<NSExtensionPtr> extensions;
    NSErrorPtr error;
    QStringList identifiers() const { return identifiersOf(extensions); }
};

// Runs `start` with a completion and waits for that completion (a guard, not a timing check).
using QueryStart =
    std::function<void(std::function<void(std::vector<NSExtensionPtr>, NSErrorPtr)>)>;
QueryResult waitFor(const QueryStart& start) {
    auto promise = std::make_shared<std::promise<QueryResult>>();
    start([promise](std::vector<NSExtensionPtr> extensions, NSErrorPtr error) {
        promise->set_value(QueryResult{true, std::move(extensions), std::move(error)});
    });
    auto future = promise->get_future();
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        return {};
    }
    return future.get();
}

class QueryTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Written out of identifier order, so that order is the registry's, not the disk's.
        writeManifest(dir_, "1.json",
                      manifest("com.test.zeta", QJsonObject{{"X", "YES"}, {"Y", 0}}));
        writeManifest(dir_, "2.json", manifest("com.test.Alpha", QJsonObject{{"X", true}}));
        writeManifest(dir_, "3.json", manifest("com.test.alpha.sub", QJsonObject{{"X", false}}));
        writeManifest(dir_, "4.json", manifest("com.test.beta", QJsonObject{{"Y", true}}));
        writeManifest(dir_, "5.json",
                      manifest("com.test.gamma", QJsonObject{{"X", true}, {"Y", true}}));
        writeManifest(dir_, "6.json", manifest("com.test.delta"));
        writeManifest(dir_, "7.json", manifest("com.test.eps", QJsonValue("TRUEPREDICATE")));
        // Not offered: another extension point, and a platform the query does not ask for.
        writeManifest(dir_, "8.json", manifest("com.test.other", {}, "com.test.elsewhere"));
        writeManifest(dir_, "9.json", manifest("com.test.platform2", {}, kTestPoint, 2));
    }

    TempDir dir_;
    ScopedSearchPath path_{{dir_.path()}};
};

TEST_F(QueryTest, NoConditionsKeepsEveryOfferedExtensionInRegistryOrderWithOneLogLineEach) {
    platform::log::LogCapture capture;
    const QueryResult result = waitFor([](auto completion) {
        LMExtensions::extensionsWithMatchingPointName(kTestPoint, completion);
    });
    ASSERT_TRUE(result.answered);
    EXPECT_FALSE(result.error);
    const QStringList expected{"com.test.Alpha", "com.test.alpha.sub", "com.test.beta",
                               "com.test.delta", "com.test.eps",       "com.test.gamma",
                               "com.test.zeta"};
    EXPECT_EQ(result.identifiers(), expected);

    size_t nslogLines = 0;
    for (const auto& record : capture.records()) {
        if (record.isNSLog) {
            ++nslogLines;
            EXPECT_EQ(
                record.text.rfind("NSExtensionPointIdentifier com.test.point _extensionBundle ", 0),
                0u)
                << record.text;
        }
    }
    EXPECT_EQ(nslogLines, expected.size());
}

TEST_F(QueryTest, BaseIdentifierActivationRuleAndUnwantedRuleMustAllHold) {
    struct Case {
        QString base, rule, unwanted;
        QStringList expected;
    };
    for (const Case& c : std::initializer_list<Case>{
             // The base identifier is a case-sensitive prefix; the empty one no prefix at all.
             {"com.test.alpha", {}, {}, {"com.test.alpha.sub"}},
             {"com.test.Alpha", {}, {}, {"com.test.Alpha"}},
             {"COM.", {}, {}, {}},
             {QStringLiteral(""), {}, {}, {}},
             // The rule must be present and true in a rule dictionary: X=true, X=true, X="YES";
             // X=false, no X, no rule and a predicate string are dropped.
             {{}, "X", {}, {"com.test.Alpha", "com.test.gamma", "com.test.zeta"}},
             // The unwanted rule drops only present and true (beta, gamma); Y=0, no Y, no rule
             // and a predicate string pass.
             {{},
              {},
              "Y",
              {"com.test.Alpha", "com.test.alpha.sub", "com.test.delta", "com.test.eps",
               "com.test.zeta"}},
             {{}, "X", "Y", {"com.test.Alpha", "com.test.zeta"}},
             {"com.test.z", "X", "Y", {"com.test.zeta"}},
         }) {
        const QueryResult result = waitFor([&](auto completion) {
            LMExtensions::extensionsWithMatchingPointNameBaseIdentifierActivationRule(
                kTestPoint, c.base, c.rule, c.unwanted, completion);
        });
        EXPECT_EQ(result.identifiers(), c.expected)
            << c.base.toStdString() << " " << c.rule.toStdString() << " "
            << c.unwanted.toStdString();
    }
}

TEST(QueryErrors, SearchFailureComesWithTheExtensionsFoundElsewhere) {
    TempDir good;
    writeManifest(good, "a.json", manifest("com.test.found"));
    const QString notAFolder = good.write("plain-file", 0, "x");
    ScopedSearchPath path({notAFolder, good.path()});
    const QueryResult result = waitFor([](auto completion) {
        LMExtensions::extensionsWithMatchingPointName(kTestPoint, completion);
    });
    ASSERT_TRUE(result.answered);
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->userInfo().value(NSFilePathErrorKey).toString(), notAFolder);
    EXPECT_EQ(result.identifiers(), QStringList{"com.test.found"});
}

TEST(ProcessMode, OnlyTheSampleBufferStringInTheNSExtensionDictionaryGivesOne) {
    const QString sample = "LMBroadcastProcessModeSampleBuffer";
    for (const auto& [info, mode] : std::vector<std::pair<QVariantMap, int64_t>>{
             {{{"NSExtension", QVariantMap{{"LMBroadcastProcessMode", sample}}}}, 1},
             {{{"NSExtension", QVariantMap{{"LMBroadcastProcessMode", "Other"}}}}, 0},
             {{{"NSExtension", QVariantMap{}}}, 0},
             {{}, 0},
             {{{"NSExtension", sample}}, 0}}) {
        EXPECT_EQ(LMExtensions::processMode(NSExtension("id", {}, info, nullptr, nullptr)), mode);
    }
}

TEST(BoolValue, ReadsRuleValuesAsDeclarationsMeanThem) {
    for (const QVariant& yes : {QVariant(true), QVariant(1), QVariant(2.5), QVariant("YES"),
                                QVariant(" true"), QVariant("-07"), QVariant("y")}) {
        EXPECT_TRUE(LMExtensions::boolValue(yes)) << yes.toString().toStdString();
    }
    for (const QVariant& no : {QVariant(false), QVariant(0), QVariant("NO"), QVariant("false"),
                               QVariant("000"), QVariant(""), QVariant()}) {
        EXPECT_FALSE(LMExtensions::boolValue(no)) << no.toString().toStdString();
    }
}

}  // namespace
