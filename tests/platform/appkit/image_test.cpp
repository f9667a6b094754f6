#include <gtest/gtest.h>

#include <QBuffer>

#include "platform/appkit/NSImage.h"
#include "platform/log/os_log.h"
#include "tests/support/TempDir.h"

namespace {

// Four quadrants of different colours, one of them half transparent.
QImage quadrants(int side) {
    QImage image(side, side, QImage::Format_ARGB32);
    const int h = side / 2;
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            QColor c = x < h ? (y < h ? QColor(255, 0, 0) : QColor(0, 255, 0))
                             : (y < h ? QColor(0, 0, 255) : QColor(255, 255, 0, 128));
            image.setPixelColor(x, y, c);
        }
    }
    return image;
}

TEST(NSImageTest, SizeInPointsAndSixteenBySixteenRendering) {
    NSImage image(quadrants(64));
    EXPECT_TRUE(image.isValid());
    EXPECT_EQ(image.size(), NSMakeSize(64, 64));
    image.setSize(NSMakeSize(16.0, 16.0));
    const QImage at1 = image.imageRepresentation();
    EXPECT_EQ(at1.size(), QSize(16, 16));
    EXPECT_EQ(image.imageRepresentation(2.0).size(), QSize(32, 32));
    // Resampled, not cropped: each quadrant keeps its colour.
    EXPECT_EQ(at1.pixelColor(2, 2), QColor(255, 0, 0));
    EXPECT_EQ(at1.pixelColor(13, 2), QColor(0, 0, 255));
    EXPECT_EQ(at1.pixelColor(2, 13), QColor(0, 255, 0));

    // A high-density bitmap counts its size in points.
    QImage dense = quadrants(64);
    dense.setDevicePixelRatio(2.0);
    EXPECT_EQ(NSImage(dense).size(), NSMakeSize(32, 32));

    // Sizes that make no sense are refused; empty images render to nothing.
    platform::log::LogCapture capture;
    image.setSize(NSMakeSize(-1, 16));
    image.setSize(NSMakeSize(16, std::nan("")));
    EXPECT_EQ(image.size(), NSMakeSize(16, 16));
    EXPECT_EQ(capture.records().size(), 2u);
    EXPECT_TRUE(image.imageRepresentation(0).isNull());
    EXPECT_TRUE(NSImage().imageRepresentation().isNull());
    EXPECT_TRUE(NSImage().TIFFRepresentation().isEmpty());
    image.setSize(NSZeroSize);
    EXPECT_TRUE(image.imageRepresentation().isNull());

    // An icon is drawn at the size it is given.
    NSImage icon(QIcon(QPixmap::fromImage(quadrants(48))), NSMakeSize(16, 16));
    EXPECT_TRUE(icon.isValid());
    EXPECT_EQ(icon.imageRepresentation().size(), QSize(16, 16));
}

TEST(NSImageTest, TiffRepresentationRoundTripsOtherFormatsLoadAndDamageGivesNothing) {
    const QImage source = quadrants(10);
    const QByteArray tiff = NSImage(source).TIFFRepresentation();
    ASSERT_FALSE(tiff.isEmpty());
    EXPECT_TRUE(tiff.startsWith(QByteArray("II*\0", 4)));
    const auto back = NSImage::initWithData(tiff);  // the pixels: the picker's icon archive
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->size(), NSMakeSize(10, 10));

    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    source.save(&buffer, "PNG");
    const auto fromPng = NSImage::initWithData(png);
    ASSERT_NE(fromPng, nullptr);
    EXPECT_EQ(fromPng->size(), NSMakeSize(10, 10));

    lumaro::test::TempDir dir;
    const QString file = dir.write(QStringLiteral("icon.tiff"), 0, tiff);
    EXPECT_NE(NSImage::initWithContentsOfFile(file), nullptr);
    EXPECT_EQ(NSImage::initWithContentsOfFile(dir.file(QStringLiteral("missing.png"))), nullptr);

    // Damaged data gives no image (any bytes at all: the request items' fuzz target).
    EXPECT_EQ(NSImage::initWithData(QByteArray()), nullptr);
    EXPECT_EQ(NSImage::initWithData("not an image"), nullptr);
    EXPECT_EQ(NSImage::initWithData(tiff.left(tiff.size() / 2)), nullptr);
}

}  // namespace
