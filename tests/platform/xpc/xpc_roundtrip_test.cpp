// Values through a real link and back, on both transports (a private bus, and peer to peer through
// an anonymous listener's endpoint): every argument type keeps its value and its type, nil stays
// nil both ways, and the listener can call the client back on the same link.
#include <gtest/gtest.h>

#include <QDBusMessage>
#include <QSizeF>
#include <QUrl>
#include <cstdint>
#include <limits>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "tests/platform/xpc/EchoScene.h"
#include "tests/support/TestBus.h"

using lumaro::test::EchoScene;
using lumaro::test::kEchoObjects;
using lumaro::test::kEchoScalars;
using lumaro::test::kMisbehave;
using lumaro::test::Transport;
using platform::dispatch::runMainLoopUntil;
using platform::log::LogCapture;

namespace {

class RoundTripTest : public testing::TestWithParam<Transport> {
protected:
    void SetUp() override {
        ASSERT_TRUE(lumaro::test::sharedBus().isRunning());
        scene_ = EchoScene::make(GetParam());
        ASSERT_TRUE(scene_);
    }

    QVariantList echo(const char* selector, const QVariantList& values) {
        auto outcome = lumaro::test::send(scene_->client, selector, values);
        EXPECT_EQ(outcome->replies.load(), 1);
        EXPECT_EQ(outcome->errors.load(), 0);
        std::lock_guard lock(outcome->mutex);
        return outcome->values;
    }

    // Each value of `got` is `expected`'s, of the same type; errors compare field by field.
    static void expectSame(const QVariantList& got, const QVariantList& expected) {
        ASSERT_EQ(got.size(), expected.size());
        for (qsizetype i = 0; i < got.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(got[i].typeId(), expected[i].typeId()) << got[i].typeName();
            const NSErrorPtr a = got[i].value<NSErrorPtr>(), b = expected[i].value<NSErrorPtr>();
            if (a && b) {
                EXPECT_EQ(a->domain(), b->domain());
                EXPECT_EQ(a->code(), b->code());
                EXPECT_EQ(a->userInfo(), b->userInfo());
            } else {
                EXPECT_EQ(got[i], expected[i]);
            }
        }
    }

    std::shared_ptr<EchoScene> scene_;
};

// The objects a client might send, in the echo protocol's order.
QVariantList someObjects() {
    QVariantMap nested{{QStringLiteral("long"), qlonglong(1) << 40},
                       {QStringLiteral("double"), 2.5},
                       {QStringLiteral("bool"), true},
                       {QStringLiteral("text"), QStringLiteral("grüße ✓")},
                       {QStringLiteral("data"), QByteArray("\0\xff", 2)},
                       {QStringLiteral("list"), QVariantList{1, QStringLiteral("two")}},
                       {QStringLiteral("empty"), QVariantMap()}};
    QVariantMap info{{NSLocalizedDescriptionKey, QStringLiteral("broken")},
                     {QStringLiteral("detail"), QVariantMap{{QStringLiteral("n"), 3}}}};
    return {QStringLiteral("héllo wörld"),
            qlonglong(-1234567890123),
            QUrl(QStringLiteral("file:///tmp/a b/ü.mov?x=1#frag")),
            QByteArray("\x00\x01\xfe\xff bytes", 10),
            QVariantMap{{QStringLiteral("outer"), nested}},
            QVariantList{1, 2.5, QStringLiteral("three"), QVariantList{4}, QVariantMap{{"k", 5}}},
            QVariant::fromValue(NSError::errorWithDomain(QStringLiteral("com.example"), -7, info)),
            QVariant::fromValue(NSXPCListenerEndpoint(QStringLiteral("unix:path=/tmp/x,guid=1"))),
            QVariantMap{{QStringLiteral("any"), 1}}};
}

TEST_P(RoundTripTest, ObjectsComeBackWithTheirValuesAndTypesAndNilStaysNil) {
    // Empty string, data, dictionary and array are things, not nil.
    QVariantList empty = someObjects();
    empty[0] = QString(QLatin1String(""));
    empty[3] = QByteArray("");
    empty[4] = QVariantMap();
    empty[5] = QVariantList();
    for (const QVariantList& sent : {someObjects(), empty, QVariantList(9)}) {
        expectSame(echo(kEchoObjects, sent), sent);
    }
    // A number keeps its kind.
    for (const QVariant& number :
         {QVariant(true), QVariant(-5), QVariant(4000000000u),
          QVariant(std::numeric_limits<qlonglong>::min()), QVariant(-0.125)}) {
        SCOPED_TRACE(number.toString().toStdString());
        QVariantList sent = someObjects();
        sent[1] = number;
        expectSame(echo(kEchoObjects, sent), sent);
    }
    // A one-way message with a nil argument reaches the exported object as nil.
    lumaro::test::send(scene_->client, lumaro::test::kNote, {QVariant()});
    ASSERT_TRUE(runMainLoopUntil([&] { return scene_->serverObject->notes.load() == 1; }, 10000));
    EXPECT_EQ(scene_->serverObject->noteObjects(), QVariantList{QVariant()});
}

TEST_P(RoundTripTest, ScalarsKeepTheirBoundaries) {
    using L = std::numeric_limits<qlonglong>;
    const QVariantList low = {-128, INT32_MIN, 0u, L::min(), -1e300, QSizeF(0.5, 1e6)};
    const QVariantList high = {127, INT32_MAX, UINT32_MAX, L::max(), 0.1, QSizeF(640, 480)};
    for (const auto& [sent, expected] : std::vector<std::pair<QVariantList, QVariantList>>{
             {low, low},
             {high, high},
             // A flag given as a boolean, a size given in whole numbers.
             {{true, 1, 1u, qlonglong(1), 1.0, QSize(3, 4)},
              {1, 1, 1u, qlonglong(1), 1.0, QSizeF(3, 4)}},
         }) {
        expectSame(echo(kEchoScalars, sent), expected);
    }
}

TEST_P(RoundTripTest, ValuesThatCannotTravelFailTheSendNotTheProcess) {
    LogCapture capture;
    QVariantList wrongObject = someObjects();
    wrongObject[0] = 5;  // a number where a string belongs
    QVariantList unsendable = someObjects();
    unsendable[8] = QVariant::fromValue(QDBusMessage());  // nothing that can travel
    const std::vector<std::tuple<const char*, const char*, QVariantList>> cases = {
        {"wrong object type", kEchoObjects, wrongObject},
        {"untravelable object", kEchoObjects, unsendable},
        {"too few", kEchoObjects, {QStringLiteral("only one")}},
        {"nil scalar", kEchoScalars, {QVariant(), 1, 1u, qlonglong(1), 1.0, QSizeF()}},
        {"flag out of range", kEchoScalars, {300, 1, 1u, qlonglong(1), 1.0, QSizeF()}},
        {"int32 out of range",
         kEchoScalars,
         {1, qlonglong(1) << 40, 1u, qlonglong(1), 1.0, QSizeF()}},
        {"uint32 negative", kEchoScalars, {1, 1, -1, qlonglong(1), 1.0, QSizeF()}},
        {"not in the interface", "noSuchMethod:", {}},
    };
    for (const auto& [what, selector, values] : cases) {
        SCOPED_TRACE(what);
        auto outcome = lumaro::test::send(scene_->client, selector, values);
        EXPECT_EQ(outcome->replies.load(), 0);
        ASSERT_EQ(outcome->errors.load(), 1);
        std::lock_guard lock(outcome->mutex);
        EXPECT_EQ(outcome->error->domain(), NSPlatformErrorDomain);
        EXPECT_EQ(outcome->error->code(), NSXPCConnectionInvalid);
    }
    EXPECT_EQ(capture.records().size(), cases.size());
    // The link is unharmed.
    EXPECT_EQ(echo(kEchoObjects, someObjects()).size(), 9);
}

TEST_P(RoundTripTest, NullsInsideDictionariesAndArraysAreLeftOutEitherWay) {
    QVariantList sent = someObjects();
    sent[4] =
        QVariantMap{{QStringLiteral("null"), QVariant()},
                    {QStringLiteral("nullptr"), QVariant::fromValue(nullptr)},
                    {QStringLiteral("noError"), QVariant::fromValue(NSErrorPtr())},
                    {QStringLiteral("kept"), 1},
                    {QStringLiteral("inner"),
                     QVariantMap{{QStringLiteral("null"), QVariant()}, {QStringLiteral("k"), 2}}},
                    {QStringLiteral("list"), QVariantList{QVariant(), 3, QVariant()}}};
    sent[5] = QVariantList{QVariant(), QVariantMap{{QStringLiteral("null"), QVariant()}}};
    const QVariantList got = echo(kEchoObjects, sent);
    ASSERT_EQ(got.size(), 9);
    EXPECT_EQ(got[4],
              QVariant(QVariantMap{{QStringLiteral("kept"), 1},
                                   {QStringLiteral("inner"), QVariantMap{{QStringLiteral("k"), 2}}},
                                   {QStringLiteral("list"), QVariantList{3}}}));
    EXPECT_EQ(got[5], QVariant(QVariantList{QVariantMap()}));

    // The same from the answering side: a reply block called with nulls inside its dictionary.
    EXPECT_EQ(echo(kMisbehave, {QStringLiteral("nulls")}).value(0),
              QVariant(QVariantMap{{QStringLiteral("kept"), 1},
                                   {QStringLiteral("inner"), QVariantMap()},
                                   {QStringLiteral("list"), QVariantList{2}}}));
}

TEST_P(RoundTripTest, ReplyBlockCalledTwiceOrWronglyAnswersOnce) {
    LogCapture capture;
    auto twice = lumaro::test::send(scene_->client, kMisbehave, {QStringLiteral("twice")});
    // A later round trip on the same link: anything further for the first would be in by then.
    EXPECT_EQ(echo(kEchoObjects, someObjects()).size(), 9);
    EXPECT_EQ(twice->replies.load(), 1);
    EXPECT_EQ(twice->errors.load(), 0);
    {
        std::lock_guard lock(twice->mutex);
        EXPECT_EQ(twice->values.value(0), QVariant(QVariantMap{{QStringLiteral("n"), 1}}));
    }
    // Values that do not fit the block: the caller's error handler hears it, as it would for a
    // reply that arrived in the wrong shape.
    for (const char* how : {"wrongType", "wrongCount"}) {
        SCOPED_TRACE(how);
        auto outcome = lumaro::test::send(scene_->client, kMisbehave, {QString::fromLatin1(how)});
        EXPECT_EQ(outcome->replies.load(), 0);
        EXPECT_EQ(outcome->errors.load(), 1);
        EXPECT_EQ(outcome->errorCode(), NSXPCConnectionReplyInvalid);
    }
    EXPECT_EQ(capture.count("NSXPCConnection: reply values of misbehave:reply: do not match"), 2u);
}

INSTANTIATE_TEST_SUITE_P(Transports, RoundTripTest,
                         testing::Values(Transport::Bus, Transport::Peer),
                         [](const testing::TestParamInfo<Transport>& info) {
                             return info.param == Transport::Bus ? "Bus" : "PeerToPeer";
                         });

}  // namespace
