#include "platform/extension/NSExtensionManifest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <cerrno>
#include <cstring>

#include "platform/extension/JSONSchema.h"

namespace platform::extension {
namespace {

QString kindOf(mode_t mode) {
    if (S_ISDIR(mode)) {
        return QStringLiteral("a folder");
    }
    if (S_ISFIFO(mode)) {
        return QStringLiteral("a named pipe");
    }
    if (S_ISSOCK(mode)) {
        return QStringLiteral("a socket");
    }
    if (S_ISCHR(mode) || S_ISBLK(mode)) {
        return QStringLiteral("a device");
    }
    return QStringLiteral("not a regular file");
}

QString systemError(int errnum) {
    return QString::fromLocal8Bit(strerror(errnum));
}

// A path from the manifest, resolved against the manifest's folder when relative.
QString resolve(const QString& path, const QString& manifestPath) {
    if (QDir::isAbsolutePath(path)) {
        return QDir::cleanPath(path);
    }
    return QDir::cleanPath(QFileInfo(manifestPath).absolutePath() + QLatin1Char('/') + path);
}

const JSONSchema& compiledManifestSchema() {
    static const JSONSchema schema(manifestSchema());
    return schema;
}

}  // namespace

bool isManifestFileName(const char* name) {
    const size_t length = std::strlen(name);
    return name[0] != '.' && length > 5 && std::strcmp(name + length - 5, ".json") == 0;
}

const QJsonObject& manifestSchema() {
    static const QJsonObject schema =
        QJsonDocument::fromJson(QByteArray(manifestSchemaText())).object();
    return schema;
}

bool readManifestFile(const QString& path, QByteArray* bytes, QString* problem) {
    // Non-blocking, so that a named pipe without a writer cannot stall the search.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *problem = QStringLiteral("cannot open: %1").arg(systemError(errno));
        return false;
    }
    struct stat st {};
    bool ok = false;
    if (::fstat(fd, &st) != 0) {
        *problem = QStringLiteral("cannot read: %1").arg(systemError(errno));
    } else if (!S_ISREG(st.st_mode)) {
        *problem = QStringLiteral("cannot read: it is %1").arg(kindOf(st.st_mode));
    } else if (st.st_size > kMaxManifestSize) {
        *problem = QStringLiteral("too large: %1 bytes (at most %2)")
                       .arg(st.st_size)
                       .arg(kMaxManifestSize);
    } else {
        // Read to the end, refusing a file that grew past the limit meanwhile.
        bytes->resize(static_cast<qsizetype>(st.st_size) + 1);
        qsizetype filled = 0;
        ok = true;
        while (true) {
            if (filled == bytes->size()) {
                if (filled > kMaxManifestSize) {
                    *problem =
                        QStringLiteral("too large: more than %1 bytes").arg(kMaxManifestSize);
                    ok = false;
                    break;
                }
                bytes->resize(std::min<qsizetype>(filled * 2 + 1, kMaxManifestSize + 1));
            }
            const ssize_t n = ::read(fd, bytes->data() + filled, bytes->size() - filled);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                *problem = QStringLiteral("cannot read: %1").arg(systemError(errno));
                ok = false;
                break;
            }
            if (n == 0) {
                break;
            }
            filled += n;
        }
        bytes->resize(ok ? filled : 0);
    }
    ::close(fd);
    return ok;
}

QStringList validateManifestData(const QByteArray& bytes) {
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        return {QStringLiteral("not valid JSON: %1 at byte %2")
                    .arg(parseError.errorString())
                    .arg(parseError.offset)};
    }
    if (!document.isObject()) {
        return {QStringLiteral("/: expected object, found array")};
    }
    return compiledManifestSchema().validate(document.object());
}

QStringList validateManifestFile(const QString& path) {
    QByteArray bytes;
    QString problem;
    if (!readManifestFile(path, &bytes, &problem)) {
        return {problem};
    }
    return validateManifestData(bytes);
}

NSExtensionPtr extensionFromManifestData(const QByteArray& bytes, const QString& manifestPath,
                                         QString* problem) {
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    QStringList problems;
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        problems = validateManifestData(bytes);  // the same wording as validation
    } else {
        problems = compiledManifestSchema().validate(document.object());
    }
    if (!problems.isEmpty()) {
        *problem = problems.first();
        return nullptr;
    }
    const QJsonObject object = document.object();
    QVariantMap info = object.value("infoDictionary").toObject().toVariantMap();
    info.remove(NSExtensionKey);  // the declared attributes take its place
    return extensionRecord(object.value("identifier").toString(),
                           object.value("NSExtension").toObject().toVariantMap(), std::move(info),
                           resolve(object.value("containingApplication").toString(), manifestPath),
                           resolve(object.value("executable").toString(), manifestPath),
                           static_cast<int64_t>(object.value("platform").toInteger()),
                           manifestPath);
}

NSExtensionPtr extensionRecord(const QString& identifier, const QVariantMap& attributes,
                               QVariantMap info, const QString& containingPath,
                               const QString& executablePath, int64_t platform,
                               const QString& manifestPath) {
    info.insert(NSExtensionKey, attributes);
    if (!info.contains(kCFBundleIdentifierKey)) {
        info.insert(kCFBundleIdentifierKey, identifier);
    }
    auto plugIn = std::make_shared<const NSExtensionPlugIn>(
        identifier, QUrl::fromLocalFile(containingPath), platform,
        QUrl::fromLocalFile(executablePath), attributes, manifestPath);
    auto bundle = std::make_shared<const NSExtensionBundle>(manifestPath, identifier);
    return std::make_shared<NSExtension>(identifier, attributes, std::move(info), std::move(plugIn),
                                         std::move(bundle));
}

}  // namespace platform::extension
