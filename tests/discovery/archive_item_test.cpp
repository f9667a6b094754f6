// The keyed archive's values and errors; that any bytes decode or fail cleanly is the fuzz
// target's part. Item providers load in the concurrent test and in the picker's, which skip what
// cannot be loaded; titled items travel in the runtime's tests (RuntimeItems).
#include <gtest/gtest.h>

#include <QSize>
#include <QUrl>

#include "platform/foundation/NSKeyedArchiver.h"

namespace {

QVariantMap sampleTree() {
    return QVariantMap{
        {"string", QStringLiteral("héllo")},
        {"empty", QString("")},
        {"int", qint64(-42)},
        {"big", qint64(1) << 53},
        {"double", 2.5},
        {"bool", true},
        {"data", QByteArray("\x00\x01\xff", 3)},
        {"url", QUrl("https://example.invalid/live?x=1")},
        {"list", QVariantList{1, "two", QVariantMap{{"three", 3}}}},
        {"nested", QVariantMap{{"inner", QVariantMap{{"deep", QByteArray("z")}}}}},
    };
}

TEST(KeyedArchive, RoundTripKeepsEveryValueAndType) {
    NSErrorPtr error;
    const QByteArray data = NSKeyedArchiver::archivedDataWithRootObject(sampleTree(), &error);
    ASSERT_FALSE(error);
    const QVariant back = NSKeyedUnarchiver::unarchiveObjectWithData(data, &error);
    ASSERT_FALSE(error) << error->description().toStdString();
    const QVariantMap map = back.toMap();
    EXPECT_EQ(map.value("data").typeId(), QMetaType::QByteArray);
    EXPECT_EQ(map.value("data").toByteArray(), QByteArray("\x00\x01\xff", 3));
    EXPECT_EQ(map.value("int").toLongLong(), -42);
    EXPECT_EQ(map.value("big").toLongLong(), qint64(1) << 53);
    EXPECT_EQ(map.value("bool").typeId(), QMetaType::Bool);
    EXPECT_EQ(map.value("url").toUrl(), QUrl("https://example.invalid/live?x=1"));
    EXPECT_EQ(map.value("list").toList().at(2).toMap().value("three").toLongLong(), 3);
    EXPECT_EQ(map.value("nested").toMap().value("inner").toMap().value("deep").toByteArray(), "z");
    EXPECT_EQ(map.value("empty").toString(), "");
    EXPECT_EQ(map.value("string").toString(), QStringLiteral("héllo"));
    EXPECT_EQ(map.size(), sampleTree().size());
}

TEST(KeyedArchive, CorruptOrForeignDataIsAnErrorNotACrash) {
    const QByteArray good = NSKeyedArchiver::archivedDataWithRootObject(sampleTree());
    const QList<QByteArray> corrupt{
        {},
        good.left(good.size() - 3),       // truncated
        good + QByteArray("\x01", 1),     // trailing byte
        QByteArray::fromHex("a1616101"),  // a plain CBOR map, no signature
        QByteArray::fromHex("d9d9f7a2686172636869766572"
                            "6f4e534b657965644172636869766572"
                            "64726f6f74a10101"),  // an integer dictionary key
        QByteArray(100000, '\x9f'),               // deeper than any input the fuzzer tries
    };
    for (const QByteArray& data : corrupt) {
        SCOPED_TRACE(data.toHex().left(40).toStdString());
        NSErrorPtr error;
        EXPECT_FALSE(NSKeyedUnarchiver::unarchiveObjectWithData(data, &error).isValid());
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), NSPlatformErrorDomain);
        EXPECT_EQ(error->code(), NSCoderReadCorruptError);
    }
}

TEST(KeyedArchive, ValuesWithoutAnEncodingAreRefused) {
    for (const QVariant& value :
         {QVariant(QVariantMap{{"size", QSize(1, 2)}}), QVariant(QVariantList{QVariant()})}) {
        NSErrorPtr error;
        EXPECT_TRUE(NSKeyedArchiver::archivedDataWithRootObject(value, &error).isEmpty());
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), NSCoderInvalidValueError);
    }
}

}  // namespace
