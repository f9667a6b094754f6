// The keyed archive's values and errors; that any bytes decode or fail cleanly is the fuzz
// target's part. Item providers load in the concurrent test and in the picker's, which skip what
// cannot be loaded; titled items travel both ways on the end-to-end road.
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
    // Equal values of other types differ, numbers aside: hence the flag's own check.
    EXPECT_EQ(back.toMap(), sampleTree());
    EXPECT_EQ(back.toMap().value("bool").typeId(), QMetaType::Bool);
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
