#include "platform/appkit/NSImage.h"

#include <QFile>
#include <QGuiApplication>
#include <QPainter>
#include <QtEndian>
#include <cmath>
#include <optional>

#include "platform/log/os_log.h"

namespace {

constexpr qint64 kMaxImageFileBytes = 64 << 20;
constexpr int kMaxPixels = 1 << 26;  // a side of 8192 pixels squared

// Pixmaps and icon rendering need a QGuiApplication; bitmaps do not.
bool hasGuiApplication() {
    return qobject_cast<QGuiApplication*>(QCoreApplication::instance()) != nullptr;
}

bool validSize(const NSSize& s) {
    return std::isfinite(s.width) && std::isfinite(s.height) && s.width >= 0 && s.height >= 0;
}

// TIFF tags written and read.
enum : quint16 {
    kImageWidth = 256,
    kImageLength = 257,
    kBitsPerSample = 258,
    kCompression = 259,
    kPhotometric = 262,
    kStripOffsets = 273,
    kSamplesPerPixel = 277,
    kRowsPerStrip = 278,
    kStripByteCounts = 279,
    kPlanarConfiguration = 284,
    kExtraSamples = 338,
};
enum : quint16 { kShort = 3, kLong = 4 };

QByteArray writeTiff(const QImage& source) {
    const QImage rgba = source.convertToFormat(QImage::Format_RGBA8888);
    const auto width = static_cast<quint32>(rgba.width());
    const auto height = static_cast<quint32>(rgba.height());
    const quint32 pixelBytes = width * height * 4;
    constexpr quint16 kEntries = 11;
    constexpr quint32 kIfdOffset = 8;
    constexpr quint32 kBitsOffset = kIfdOffset + 2 + kEntries * 12 + 4;
    constexpr quint32 kPixelOffset = kBitsOffset + 8;

    QByteArray out(static_cast<qsizetype>(kPixelOffset + pixelBytes), '\0');
    auto* p = reinterpret_cast<uchar*>(out.data());
    p[0] = 'I';
    p[1] = 'I';
    qToLittleEndian<quint16>(42, p + 2);
    qToLittleEndian<quint32>(kIfdOffset, p + 4);
    uchar* e = p + kIfdOffset;
    qToLittleEndian<quint16>(kEntries, e);
    e += 2;
    auto entry = [&e](quint16 tag, quint16 type, quint32 count, quint32 value) {
        qToLittleEndian<quint16>(tag, e);
        qToLittleEndian<quint16>(type, e + 2);
        qToLittleEndian<quint32>(count, e + 4);
        if (type == kShort && count == 1) {
            qToLittleEndian<quint16>(static_cast<quint16>(value), e + 8);
        } else {
            qToLittleEndian<quint32>(value, e + 8);
        }
        e += 12;
    };
    entry(kImageWidth, kLong, 1, width);
    entry(kImageLength, kLong, 1, height);
    entry(kBitsPerSample, kShort, 4, kBitsOffset);
    entry(kCompression, kShort, 1, 1);
    entry(kPhotometric, kShort, 1, 2);
    entry(kStripOffsets, kLong, 1, kPixelOffset);
    entry(kSamplesPerPixel, kShort, 1, 4);
    entry(kRowsPerStrip, kLong, 1, height);
    entry(kStripByteCounts, kLong, 1, pixelBytes);
    entry(kPlanarConfiguration, kShort, 1, 1);
    entry(kExtraSamples, kShort, 1, 2);  // unassociated alpha
    qToLittleEndian<quint32>(0, e);      // no further directory
    for (int i = 0; i < 4; ++i) {
        qToLittleEndian<quint16>(8, p + kBitsOffset + 2 * i);
    }
    for (quint32 y = 0; y < height; ++y) {
        memcpy(p + kPixelOffset + y * width * 4, rgba.constScanLine(static_cast<int>(y)),
               width * 4);
    }
    return out;
}

// Reads the uncompressed, 8-bit, chunky RGB or RGBA TIFFs that writeTiff makes (either byte
// order, any number of strips). Anything else, or anything that points outside the data,
// gives no image.
std::optional<QImage> readTiff(const QByteArray& data) {
    const auto* p = reinterpret_cast<const uchar*>(data.constData());
    const auto size = static_cast<quint64>(data.size());
    if (size < 8) {
        return std::nullopt;
    }
    bool little = false;
    if (p[0] == 'I' && p[1] == 'I') {
        little = true;
    } else if (!(p[0] == 'M' && p[1] == 'M')) {
        return std::nullopt;
    }
    auto u16 = [&](quint64 at) -> std::optional<quint32> {
        if (at + 2 > size)
            return std::nullopt;
        return little ? qFromLittleEndian<quint16>(p + at) : qFromBigEndian<quint16>(p + at);
    };
    auto u32 = [&](quint64 at) -> std::optional<quint32> {
        if (at + 4 > size)
            return std::nullopt;
        return little ? qFromLittleEndian<quint32>(p + at) : qFromBigEndian<quint32>(p + at);
    };
    if (u16(2) != 42u) {
        return std::nullopt;
    }
    const auto ifd = u32(4);
    const auto count = ifd ? u16(*ifd) : std::nullopt;
    if (!count) {
        return std::nullopt;
    }
    quint32 width = 0, height = 0, samples = 1, compression = 1, planar = 1;
    quint32 rowsPerStrip = 0xFFFFFFFFu;
    bool bitsOk = true;
    std::vector<quint32> offsets, byteCounts;
    // The values of one entry (SHORT or LONG), read inline or from the offset it holds.
    auto values = [&](quint64 entryAt) -> std::optional<std::vector<quint32>> {
        const auto type = u16(entryAt + 2);
        const auto n = u32(entryAt + 4);
        if (!type || !n || (*type != kShort && *type != kLong) || *n > 1u << 20) {
            return std::nullopt;
        }
        const quint64 width1 = *type == kShort ? 2 : 4;
        quint64 at = entryAt + 8;
        if (width1 * *n > 4) {
            const auto off = u32(entryAt + 8);
            if (!off)
                return std::nullopt;
            at = *off;
        }
        std::vector<quint32> out;
        for (quint32 i = 0; i < *n; ++i) {
            const auto v = *type == kShort ? u16(at + i * width1) : u32(at + i * width1);
            if (!v)
                return std::nullopt;
            out.push_back(*v);
        }
        return out;
    };
    for (quint32 i = 0; i < *count; ++i) {
        const quint64 at = *ifd + 2 + 12ull * i;
        const auto tag = u16(at);
        if (!tag) {
            return std::nullopt;
        }
        if (*tag != kImageWidth && *tag != kImageLength && *tag != kBitsPerSample &&
            *tag != kCompression && *tag != kStripOffsets && *tag != kSamplesPerPixel &&
            *tag != kRowsPerStrip && *tag != kStripByteCounts && *tag != kPlanarConfiguration) {
            continue;
        }
        const auto v = values(at);
        if (!v || v->empty()) {
            return std::nullopt;
        }
        switch (*tag) {
            case kImageWidth:
                width = v->front();
                break;
            case kImageLength:
                height = v->front();
                break;
            case kBitsPerSample:
                for (quint32 b : *v) bitsOk = bitsOk && b == 8;
                break;
            case kCompression:
                compression = v->front();
                break;
            case kStripOffsets:
                offsets = *v;
                break;
            case kSamplesPerPixel:
                samples = v->front();
                break;
            case kRowsPerStrip:
                rowsPerStrip = v->front();
                break;
            case kStripByteCounts:
                byteCounts = *v;
                break;
            case kPlanarConfiguration:
                planar = v->front();
                break;
            default:
                break;
        }
    }
    if (width == 0 || height == 0 || static_cast<quint64>(width) * height > kMaxPixels || !bitsOk ||
        compression != 1 || planar != 1 || (samples != 3 && samples != 4) || offsets.empty() ||
        offsets.size() != byteCounts.size() || rowsPerStrip == 0) {
        return std::nullopt;
    }
    // Gather the strips into one run of rows.
    QByteArray pixels;
    const quint64 needed = static_cast<quint64>(width) * height * samples;
    for (size_t s = 0; s < offsets.size() && static_cast<quint64>(pixels.size()) < needed; ++s) {
        const quint64 from = offsets[s];
        const quint64 n = byteCounts[s];
        if (from > size || n > size - from) {
            return std::nullopt;
        }
        pixels.append(data.constData() + from, static_cast<qsizetype>(n));
    }
    if (static_cast<quint64>(pixels.size()) < needed) {
        return std::nullopt;
    }
    QImage image(static_cast<int>(width), static_cast<int>(height),
                 samples == 4 ? QImage::Format_RGBA8888 : QImage::Format_RGB888);
    if (image.isNull()) {
        return std::nullopt;
    }
    const quint64 rowBytes = static_cast<quint64>(width) * samples;
    for (quint32 y = 0; y < height; ++y) {
        memcpy(image.scanLine(static_cast<int>(y)), pixels.constData() + y * rowBytes, rowBytes);
    }
    return image;
}

}  // namespace

NSImage::NSImage(const QImage& image) : image_(image) {
    if (!image_.isNull()) {
        const double ratio = image_.devicePixelRatio() > 0 ? image_.devicePixelRatio() : 1.0;
        size_ = {image_.width() / ratio, image_.height() / ratio};
    }
}

NSImage::NSImage(const QIcon& icon, const NSSize& size) : icon_(icon) {
    setSize(size);
}

std::shared_ptr<NSImage> NSImage::initWithContentsOfFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return nullptr;
    }
    return initWithData(file.read(kMaxImageFileBytes));
}

std::shared_ptr<NSImage> NSImage::initWithData(const QByteArray& data) {
    if (data.isEmpty()) {
        return nullptr;
    }
    if (auto tiff = readTiff(data)) {
        return std::make_shared<NSImage>(*tiff);
    }
    QImage image = QImage::fromData(data);
    if (image.isNull()) {
        return nullptr;
    }
    return std::make_shared<NSImage>(image);
}

void NSImage::setSize(const NSSize& size) {
    if (!validSize(size)) {
        os_log_error(OS_LOG_DEFAULT, "NSImage: refusing size %f x %f", size.width, size.height);
        return;
    }
    size_ = size;
}

QImage NSImage::imageRepresentation(double scale) const {
    if (!isValid() || !std::isfinite(scale) || scale <= 0) {
        return {};
    }
    const int w = NSPixel(size_.width * scale);
    const int h = NSPixel(size_.height * scale);
    if (w <= 0 || h <= 0 || static_cast<qint64>(w) * h > kMaxPixels) {
        return {};
    }
    if (!icon_.isNull()) {
        if (!hasGuiApplication()) {
            return {};
        }
        return icon_.pixmap(QSize(w, h))
            .toImage()
            .convertToFormat(QImage::Format_ARGB32_Premultiplied);
    }
    if (image_.width() == w && image_.height() == h) {
        return image_.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    }
    return image_.scaled(w, h, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
        .convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

QIcon NSImage::icon() const {
    if (!icon_.isNull()) {
        return icon_;
    }
    if (image_.isNull() || !hasGuiApplication()) {
        return {};
    }
    return QIcon(QPixmap::fromImage(image_));
}

QByteArray NSImage::TIFFRepresentation() const {
    if (!image_.isNull()) {
        return writeTiff(image_);
    }
    const QImage rendered = imageRepresentation(1.0);
    return rendered.isNull() ? QByteArray() : writeTiff(rendered);
}

QString NSImage::description() const {
    return QStringLiteral("<NSImage %1 size {%2, %3}>")
        .arg(QString::asprintf("%p", static_cast<const void*>(this)))
        .arg(size_.width)
        .arg(size_.height);
}
