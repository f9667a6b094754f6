// The keyed archive, item providers, and titled items with their plain-value form.
#include <gtest/gtest.h>

#include <QDateTime>
#include <QSize>
#include <QUrl>
#include <future>

#include "discovery/LMExtensions.h"
#include "platform/dispatch/dispatch.h"
#include "platform/extension/UTType.h"
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
    QByteArray flipped = good;
    flipped[flipped.size() / 2] = static_cast<char>(0xff);
    const QList<QByteArray> corrupt{
        {},
        "not an archive at all",
        good.left(good.size() - 3),       // truncated
        good + QByteArray("\x01", 1),     // trailing byte
        QByteArray::fromHex("a1616101"),  // a plain CBOR map, no signature
        QByteArray::fromHex("d9d9f7a2686172636869766572"
                            "6f4e534b657965644172636869766572"
                            "64726f6f74a10101"),  // an integer dictionary key
        QByteArray(100000, '\x9f'),               // deeply nested indefinite arrays
        flipped,
    };
    for (const QByteArray& data : corrupt) {
        NSErrorPtr error;
        const QVariant value = NSKeyedUnarchiver::unarchiveObjectWithData(data, &error);
        EXPECT_FALSE(value.isValid()) << data.toHex().left(40).toStdString();
        if (error) {
            EXPECT_EQ(error->domain(), NSPlatformErrorDomain);
            EXPECT_EQ(error->code(), NSCoderReadCorruptError);
        } else if (data != flipped) {  // a flipped byte can still leave a valid archive
            ADD_FAILURE() << "no error for " << data.toHex().left(40).toStdString();
        }
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

struct Loaded {
    QVariant item;
    NSErrorPtr error;
    std::string queue;
};

Loaded load(const NSItemProvider& provider, const QString& type) {
    std::promise<Loaded> promise;
    provider.loadItemForTypeIdentifier(type, {}, [&promise](QVariant item, NSErrorPtr error) {
        promise.set_value({item, error, dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL)});
    });
    return promise.get_future().get();
}

TEST(ItemProvider, LoadsConformingTypesOnAGlobalQueueAndRefusesOthers) {
    const NSItemProviderPtr provider = NSItemProvider::initWithItem(QByteArray("v"), kUTTypePNG);
    EXPECT_TRUE(provider->hasItemConformingToTypeIdentifier(kUTTypePNG));
    EXPECT_TRUE(provider->hasItemConformingToTypeIdentifier(kUTTypeData));
    EXPECT_TRUE(provider->hasItemConformingToTypeIdentifier(kUTTypeItem));
    EXPECT_FALSE(provider->hasItemConformingToTypeIdentifier(kUTTypeText));
    EXPECT_FALSE(NSItemProvider(QByteArray("v"), kUTTypeData)
                     .hasItemConformingToTypeIdentifier(kUTTypeImage));
    EXPECT_FALSE(NSItemProvider(QByteArray("v"), "com.test.unknown")
                     .hasItemConformingToTypeIdentifier(kUTTypeData));

    const Loaded ok = load(*provider, kUTTypeData);
    EXPECT_FALSE(ok.error);
    EXPECT_EQ(ok.item.toByteArray(), "v");
    EXPECT_NE(ok.queue, std::string(dispatch_queue_get_label(dispatch_get_main_queue())));
    EXPECT_NE(ok.queue, "");

    const Loaded refused = load(*provider, kUTTypeText);
    ASSERT_TRUE(refused.error);
    EXPECT_EQ(refused.error->domain(), NSItemProviderErrorDomain);
    EXPECT_FALSE(refused.item.isValid());
    provider->loadItemForTypeIdentifier(kUTTypeData, {}, nullptr);  // an empty handler is fine
}

// The trip of items through the archive is the runtime's (RuntimeItems in the platform's tests).
TEST(TitledItem, CarriesTitleAndOneDataProviderAndMalformedPlainValuesAreRefused) {
    const NSExtensionItemPtr item = LMExtensions::itemWithTitle(
        "LMBroadcastExtensionKeyExtensionHostInfo", QVariantMap{{"k", QByteArray("\x00v", 2)}});
    EXPECT_EQ(item->attributedTitle(), "LMBroadcastExtensionKeyExtensionHostInfo");
    ASSERT_EQ(item->attachments().size(), 1u);
    EXPECT_EQ(item->attachments()[0]->typeIdentifier(), kUTTypeData);
    EXPECT_EQ(load(*item->attachments()[0], kUTTypeData).item.toMap().value("k").toByteArray(),
              QByteArray("\x00v", 2));
    for (const QVariantMap& bad :
         {QVariantMap{{"attributedTitle", 5}}, QVariantMap{{"attachments", "x"}},
          QVariantMap{{"attachments", QVariantList{QVariantMap{{"item", 1}}}}},
          QVariantMap{{"userInfo", QVariantList{}}}}) {
        QString reason;
        EXPECT_FALSE(NSExtensionItem::fromPlainValue(bad, &reason));
        EXPECT_FALSE(reason.isEmpty());
    }
}

}  // namespace
