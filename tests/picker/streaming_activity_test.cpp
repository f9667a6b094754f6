// The streaming activity: title, the image taken at construction against activityImage, and icons
// that are missing or not images. Choosing an entry hands the activity to its delegate in the
// presentation's tests and end to end (tests/e2e).
#include <gtest/gtest.h>

#include <QBuffer>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>

#include "picker/LMStreamingActivity.h"
#include "platform/appkit/NSWorkspace.h"
#include "tests/picker/PickerFixture.h"
#include "tests/support/TempDir.h"

using namespace lumaro::test;

namespace {

class StreamingActivityTest : public ::testing::Test {
protected:
    // The activity of an extension whose containing application folder holds `iconBytes` as
    // icon.png (none when empty), optionally with an Info.json naming another icon file.
    std::shared_ptr<LMStreamingActivity> activity(const QByteArray& iconBytes,
                                                  const QVariantMap& info = {{"CFBundleDisplayName",
                                                                              "Service"}},
                                                  const QString& namedIcon = {}) {
        const QString app = dir_.file("apps/com.test.activity");
        QDir().mkpath(app);
        if (!iconBytes.isEmpty()) {
            dir_.write("apps/com.test.activity/icon.png", 0, iconBytes);
        }
        if (!namedIcon.isEmpty()) {
            dir_.write("apps/com.test.activity/Info.json", 0,
                       QJsonDocument(QJsonObject{{"CFBundleIconFile", namedIcon}}).toJson());
        }
        return makeActivity("com.test.activity", info, QUrl::fromLocalFile(app));
    }

    static QByteArray redIcon() {
        QImage image(64, 32, QImage::Format_ARGB32);  // wide, to check the 16 by 16 fit
        image.fill(Qt::red);
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        image.save(&buffer, "PNG");
        return png;
    }

    TempDir dir_;
};

TEST_F(StreamingActivityTest, ImageAtConstructionIsTheIconForNoPathAndLaterCallsGiveTheAppIcon) {
    const auto activity = this->activity(redIcon());
    ASSERT_TRUE(activity);
    EXPECT_EQ(activity->activityTitle(), "Service");
    EXPECT_EQ(activity->activityType(), "com.test.activity");

    const QImage genericIcon = NSWorkspace::sharedWorkspace()->iconForFile(QString()).scaled(
        16, 16, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    ASSERT_TRUE(activity->image());
    EXPECT_EQ(activity->image()->size(), NSMakeSize(16, 16));
    const QImage shown = activity->image()->imageRepresentation();
    EXPECT_EQ(shown.convertToFormat(QImage::Format_ARGB32),
              NSImage(genericIcon).imageRepresentation().convertToFormat(QImage::Format_ARGB32));

    const auto laterImage = activity->activityImage();
    EXPECT_EQ(laterImage->size(), NSMakeSize(16, 16));
    const QImage later = laterImage->imageRepresentation();
    EXPECT_EQ(later.size(), QSize(16, 16));
    EXPECT_EQ(QColor(later.pixel(8, 8)), QColor(Qt::red));
    EXPECT_EQ(qAlpha(later.pixel(8, 1)), 0);  // the wide icon is centred, not stretched
    EXPECT_NE(shown, later);                  // construction's image is never refreshed
}

TEST_F(StreamingActivityTest, NoDisplayNameGivesANilTitleEvenWithABundleName) {
    const auto activity = this->activity({}, {{"CFBundleName", "PlainName"}});
    ASSERT_TRUE(activity);
    EXPECT_TRUE(activity->activityTitle().isNull());
    EXPECT_TRUE(activity->title().isNull());
}

TEST_F(StreamingActivityTest, MissingOrBrokenIconsGiveThePlaceholderAndOneErrorLine) {
    const QImage placeholder = NSWorkspace::placeholderIcon();
    platform::log::LogCapture capture;

    const auto garbage = activity("this is not a png");
    EXPECT_EQ(NSWorkspace::sharedWorkspace()->iconForFile(dir_.file("apps/com.test.activity")),
              placeholder);
    EXPECT_EQ(garbage->activityImage()->imageRepresentation().size(), QSize(16, 16));

    const auto named = activity({}, {}, "missing.png");
    EXPECT_EQ(named->activityImage()->imageRepresentation().size(), QSize(16, 16));
    EXPECT_EQ(NSWorkspace::sharedWorkspace()->iconForFile(dir_.file("no/such/app")), placeholder);

    // Two per broken icon asked twice, one for the missing folder.
    EXPECT_EQ(errorCount(capture), 4u);
}

}  // namespace
