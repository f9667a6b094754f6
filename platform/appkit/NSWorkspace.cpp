#include "platform/appkit/NSWorkspace.h"

#include <QFileInfo>
#include <QGuiApplication>
#include <QIcon>
#include <QImageReader>
#include <QPainter>

#include "platform/foundation/NSBundle.h"
#include "platform/log/os_log.h"

namespace {

constexpr int kGenericSize = 32;

// The theme's icon by name when a GUI application runs (the theme needs one), else the
// placeholder.
QImage genericIcon(const char* themeName) {
    if (qobject_cast<QGuiApplication*>(QCoreApplication::instance()) != nullptr) {
        const QIcon icon = QIcon::fromTheme(QString::fromLatin1(themeName));
        if (!icon.isNull()) {
            const QImage image = icon.pixmap(kGenericSize, kGenericSize).toImage();
            if (!image.isNull()) {
                return image;
            }
        }
    }
    return NSWorkspace::placeholderIcon();
}

QImage loadImage(const QString& path, QString* reason) {
    QImageReader reader(path);
    reader.setDecideFormatFromContent(true);
    // Refuse absurd dimensions before decoding: an icon never needs more than this.
    const QSize size = reader.size();
    if (size.isValid() && (size.width() > 4096 || size.height() > 4096)) {
        *reason = QStringLiteral("image too large (%1x%2)").arg(size.width()).arg(size.height());
        return {};
    }
    QImage image = reader.read();
    if (image.isNull()) {
        *reason = reader.errorString();
    }
    return image;
}

}  // namespace

std::shared_ptr<NSWorkspace> NSWorkspace::sharedWorkspace() {
    static const auto workspace = std::make_shared<NSWorkspace>();
    return workspace;
}

QImage NSWorkspace::placeholderIcon() {
    QImage image(kGenericSize, kGenericSize, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(QColor(90, 90, 100), 2));
    painter.setBrush(QColor(200, 204, 214));
    painter.drawRoundedRect(QRectF(3, 3, kGenericSize - 6, kGenericSize - 6), 6, 6);
    painter.setBrush(QColor(90, 90, 100));
    painter.drawEllipse(QRectF(12, 12, 8, 8));
    painter.end();
    return image;
}

QImage NSWorkspace::iconForFile(const QString& fullPath) const {
    if (fullPath.isEmpty()) {
        return genericIcon("application-x-executable");
    }
    const QFileInfo info(fullPath);
    if (!info.exists()) {
        os_log_error(OS_LOG_DEFAULT, "NSWorkspace: no file at %{public}s; using a placeholder icon",
                     fullPath);
        return placeholderIcon();
    }
    if (!info.isDir()) {
        return genericIcon("text-x-generic");
    }
    const NSBundle bundle(info.absoluteFilePath());
    QString iconPath;
    const QString named =
        bundle.infoDictionary().value(QStringLiteral("CFBundleIconFile")).toString();
    if (!named.isEmpty()) {
        iconPath = bundle.pathForResource(named, QString());
        if (iconPath.isEmpty()) {
            os_log_error(OS_LOG_DEFAULT,
                         "NSWorkspace: icon %{public}s of %{public}s is missing; using a "
                         "placeholder icon",
                         named, fullPath);
            return placeholderIcon();
        }
    } else {
        iconPath = bundle.pathForResource(QStringLiteral("icon"), QStringLiteral("png"));
        if (iconPath.isEmpty()) {
            return genericIcon("application-x-executable");
        }
    }
    QString reason;
    QImage image = QFileInfo(iconPath).isFile() ? loadImage(iconPath, &reason) : QImage();
    if (image.isNull()) {
        os_log_error(OS_LOG_DEFAULT,
                     "NSWorkspace: icon %{public}s is not an image (%{public}s); using a "
                     "placeholder icon",
                     iconPath, reason.isEmpty() ? QStringLiteral("not a file") : reason);
        return placeholderIcon();
    }
    return image;
}
