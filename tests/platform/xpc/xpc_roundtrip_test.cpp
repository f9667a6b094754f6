// Values through a real link and back, on both transports (a private bus, and peer to peer through
// an anonymous listener's endpoint): every argument type keeps its value and its type, nil stays
// nil both ways, and the listener can call the client back on the same link.
#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QSizeF>
#include <QUrl>
#include <limits>

#include "platform/dispatch/dispatch.h"
#include "platform/log/os_log.h"
#include "tests/platform/xpc/EchoScene.h"
#include "tests/support/TestBus.h"

using lumaro::test::EchoScene;
using lumaro::test::kCallMeBack;
using lumaro::test::kEchoObjects;
using lumaro::test::kEchoScalars;
using lumaro::test::kMisbehave;
using lumaro::test::kNote;
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
    void TearDown() override { scene_.reset(); }

    QVariantList echo(const char* selector, const QVariantList& values) {
        auto outcome = lumaro::test::send(scene_->client, selector, values);
        EXPECT_EQ(outcome->replies.load(), 1);
        EXPECT_EQ(outcome->errors.load(), 0);
        std::lock_guard lock(outcome->mutex);
        return outcome->values;
    }

    std::shared_ptr<EchoScene> scene_;
};

// The objects a client might send, in EchoProtocol's order.
QVariantList someObjects() {
    QVariantMap nested{{QStringLiteral("int"), 7},
                       {QStringLiteral("long"), qlonglong(1) << 40},
                       {QStringLiteral("double"), 2.5},
                       {QStringLiteral("bool"), true},
                       {QStringLiteral("text"), QStringLiteral("grüße ✓")},
                       {QStringLiteral("data"), QByteArray("\0\xff", 2)},
                       {QStringLiteral("list"), QVariantList{1, QStringLiteral("two")}},
                       {QStringLiteral("empty"), QVariantMap()}};
    QVariantMap dictionary{
        {QStringLiteral("outer"), nested},
        {QStringLiteral("deeper"), QVariantMap{{QStringLiteral("level"), QVariantMap{{"x", 1}}}}}};
    QVariantMap info{{NSLocalizedDescriptionKey, QStringLiteral("broken")},
                     {QStringLiteral("detail"), QVariantMap{{QStringLiteral("n"), 3}}}};
    return {QStringLiteral("héllo wörld"),
            qlonglong(-1234567890123),
            QUrl(QStringLiteral("file:///tmp/a b/ü.mov?x=1#frag")),
            QByteArray("\x00\x01\xfe\xff bytes", 10),
            dictionary,
            QVariantList{1, 2.5, QStringLiteral("three"), QVariantList{4}, QVariantMap{{"k", 5}}},
            QVariant::fromValue(NSError::errorWithDomain(QStringLiteral("com.example"), -7, info)),
            QVariant::fromValue(NSXPCListenerEndpoint(QStringLiteral("unix:path=/tmp/x,guid=1"))),
            QVariantMap{{QStringLiteral("any"), 1}}};
}

void expectSameError(const QVariant& got, const QVariant& sent) {
    ASSERT_EQ(got.typeId(), qMetaTypeId<NSErrorPtr>());
    const NSErrorPtr a = got.value<NSErrorPtr>();
    const NSErrorPtr b = sent.value<NSErrorPtr>();
    ASSERT_TRUE(a);
    EXPECT_EQ(a->domain(), b->domain());
    EXPECT_EQ(a->code(), b->code());
    EXPECT_EQ(a->userInfo(), b->userInfo());
}

TEST_P(RoundTripTest, ObjectsComeBackWithTheirValuesAndTypes) {
    const QVariantList sent = someObjects();
    const QVariantList got = echo(kEchoObjects, sent);
    ASSERT_EQ(got.size(), sent.size());
    for (qsizetype i = 0; i < sent.size(); ++i) {
        SCOPED_TRACE(i);
        if (i == 6) {
            expectSameError(got[i], sent[i]);
            continue;
        }
        EXPECT_EQ(got[i].typeId(), sent[i].typeId()) << got[i].typeName();
        EXPECT_EQ(got[i], sent[i]);
    }
}

TEST_P(RoundTripTest, NumbersKeepTheirKind) {
    for (const QVariant& number :
         {QVariant(true), QVariant(false), QVariant(-5), QVariant(4000000000u),
          QVariant(std::numeric_limits<qlonglong>::min()), QVariant(-0.125)}) {
        SCOPED_TRACE(number.toString().toStdString());
        QVariantList sent = someObjects();
        sent[1] = number;
        const QVariantList got = echo(kEchoObjects, sent);
        ASSERT_EQ(got.size(), sent.size());
        EXPECT_EQ(got[1].typeId(), number.typeId());
        EXPECT_EQ(got[1], number);
    }
}

TEST_P(RoundTripTest, EmptyValuesAreValuesAndNilStaysNilBothWays) {
    // Empty string, data, dictionary and array are things, not nil.
    QVariantList empty = someObjects();
    empty[0] = QString(QLatin1String(""));
    empty[3] = QByteArray("");
    empty[4] = QVariantMap();
    empty[5] = QVariantList();
    QVariantList got = echo(kEchoObjects, empty);
    ASSERT_EQ(got.size(), empty.size());
    for (int i : {0, 3, 4, 5}) {
        EXPECT_TRUE(got[i].isValid()) << i;
        EXPECT_EQ(got[i], empty[i]) << i;
    }
    // Every object nil: nil arrives, and the echoed reply carries nil back.
    const QVariantList nils(9);
    got = echo(kEchoObjects, nils);
    ASSERT_EQ(got.size(), 9);
    for (const QVariant& v : got) {
        EXPECT_FALSE(v.isValid());
    }
    // A one-way message with a nil argument reaches the exported object as nil.
    lumaro::test::send(scene_->client, kNote, {QVariant()});
    ASSERT_TRUE(runMainLoopUntil([&] { return scene_->serverObject->notes.load() == 1; }, 10000));
    ASSERT_EQ(scene_->serverObject->lastNote().size(), 1);
    EXPECT_FALSE(scene_->serverObject->lastNote()[0].isValid());
}

TEST_P(RoundTripTest, ScalarsKeepTheirBoundaries) {
    struct Case {
        QVariantList sent;
        QVariantList expected = {};  // empty: the values sent
    };
    const std::vector<Case> cases = {
        {{-128, std::numeric_limits<int32_t>::min(), 0u, std::numeric_limits<qlonglong>::min(),
          -1e300, QSizeF(0.5, 1e6)},
         {}},
        {{127, std::numeric_limits<int32_t>::max(), std::numeric_limits<uint32_t>::max(),
          std::numeric_limits<qlonglong>::max(), 0.1, QSizeF(640, 480)},
         {}},
        // A flag given as a boolean, a size given in whole numbers.
        {{true, 1, 1u, qlonglong(1), 1.0, QSize(3, 4)},
         {1, 1, 1u, qlonglong(1), 1.0, QSizeF(3, 4)}},
    };
    for (auto c : cases) {
        if (c.expected.isEmpty()) {
            c.expected = c.sent;
        }
        const QVariantList got = echo(kEchoScalars, c.sent);
        ASSERT_EQ(got.size(), c.expected.size());
        for (qsizetype i = 0; i < got.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(got[i].typeId(), c.expected[i].typeId()) << got[i].typeName();
            EXPECT_EQ(got[i], c.expected[i]);
        }
    }
}

TEST_P(RoundTripTest, ValuesThatCannotTravelFailTheSendNotTheProcess) {
    LogCapture capture;
    struct Case {
        const char* what;
        const char* selector;
        QVariantList values;
    };
    QVariantList wrongObject = someObjects();
    wrongObject[0] = 5;  // a number where a string belongs
    QVariantList unsendable = someObjects();
    unsendable[8] = QVariant::fromValue(QDBusMessage());  // nothing that can travel
    const std::vector<Case> cases = {
        {"wrong object type", kEchoObjects, wrongObject},
        {"untravelable object", kEchoObjects, unsendable},
        {"too few", kEchoObjects, QVariantList{QStringLiteral("only one")}},
        {"nil scalar", kEchoScalars, {QVariant(), 1, 1u, qlonglong(1), 1.0, QSizeF()}},
        {"flag out of range", kEchoScalars, {300, 1, 1u, qlonglong(1), 1.0, QSizeF()}},
        {"int32 out of range",
         kEchoScalars,
         {1, qlonglong(1) << 40, 1u, qlonglong(1), 1.0, QSizeF()}},
        {"uint32 negative", kEchoScalars, {1, 1, -1, qlonglong(1), 1.0, QSizeF()}},
        {"not in the interface", "noSuchMethod:", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto outcome = lumaro::test::send(scene_->client, c.selector, c.values);
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
    auto outcome = lumaro::test::send(scene_->client, kMisbehave, {QStringLiteral("nulls")});
    ASSERT_EQ(outcome->replies.load(), 1);
    std::lock_guard lock(outcome->mutex);
    EXPECT_EQ(outcome->values.value(0),
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
        ASSERT_EQ(outcome->errors.load(), 1);
        std::lock_guard lock(outcome->mutex);
        EXPECT_EQ(outcome->error->code(), NSXPCConnectionReplyInvalid);
    }
    EXPECT_EQ(capture.count("NSXPCConnection: reply values of misbehave:reply: do not match"), 2u);
}

INSTANTIATE_TEST_SUITE_P(Transports, RoundTripTest,
                         testing::Values(Transport::Bus, Transport::Peer),
                         [](const testing::TestParamInfo<Transport>& info) {
                             return info.param == Transport::Bus ? "Bus" : "PeerToPeer";
                         });

}  // namespace
