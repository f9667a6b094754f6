// Images: a bitmap or an icon with a size in points.
//
// The size is the size the image is drawn at; setting it does not resample what the image holds.
// `imageRepresentation` renders the image at its size (times a scale for dense screens), which
// is what a menu entry shows: an icon set to 16 by 16 points gives a 16 by 16 pixel bitmap at
// scale 1 and 32 by 32 at scale 2.
#pragma once

#include <QByteArray>
#include <QIcon>
#include <QImage>
#include <QString>
#include <memory>

#include "platform/appkit/NSGeometry.h"

class NSImage {
public:
    NSImage() = default;
    // The size in points is the bitmap's size in pixels divided by its device pixel ratio.
    explicit NSImage(const QImage& image);
    // An icon has no size of its own: give the size it is drawn at.
    NSImage(const QIcon& icon, const NSSize& size);

    // None when the file cannot be read or decoded.
    static std::shared_ptr<NSImage> initWithContentsOfFile(const QString& path);
    // PNG, JPEG, GIF, BMP, ICO or the uncompressed TIFF that TIFFRepresentation writes; none
    // when the data is none of them.
    static std::shared_ptr<NSImage> initWithData(const QByteArray& data);

    NSSize size() const { return size_; }
    // Sizes that are negative or not finite are refused (kept as they were).
    void setSize(const NSSize& size);
    bool isValid() const { return !image_.isNull() || !icon_.isNull(); }

    // The image rendered at its size times `scale`, in ARGB (premultiplied); a null image when
    // the image is empty or its size is zero (or, for an icon, without a QGuiApplication).
    QImage imageRepresentation(double scale = 1.0) const;
    // The image as an icon, for widgets (an empty icon without a QGuiApplication).
    QIcon icon() const;

    // An uncompressed baseline TIFF (8-bit RGBA, one strip) of the image at its own pixel size
    // (an icon at its size in points); empty for an empty image.
    QByteArray TIFFRepresentation() const;

    QString description() const;

private:
    QImage image_;
    QIcon icon_;
    NSSize size_;
};
