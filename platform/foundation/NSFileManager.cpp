#include "platform/foundation/NSFileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

namespace {

std::mutex gDefaultMutex;
std::shared_ptr<NSFileManager> gOverride;  // guarded by gDefaultMutex

QByteArray fsPath(const QString& path) {
    return QFile::encodeName(path);
}

enum class Operation { Read, Write, Create, Remove, Move };

int64_t platformErrorCode(int errnum, Operation op) {
    const bool reading = op == Operation::Read;
    switch (errnum) {
        case ENOENT:
        case ENOTDIR:
            return reading ? NSFileReadNoSuchFileError : NSFileNoSuchFileError;
        case EACCES:
        case EPERM:
            return reading ? NSFileReadNoPermissionError : NSFileWriteNoPermissionError;
        case EEXIST:
        case ENOTEMPTY:
            return NSFileWriteFileExistsError;
        case ENOSPC:
        case EDQUOT:
            return NSFileWriteOutOfSpaceError;
        case EROFS:
            return NSFileWriteVolumeReadOnlyError;
        case ENAMETOOLONG:
            return reading ? NSFileReadInvalidFileNameError : NSFileWriteInvalidFileNameError;
        default:
            return reading ? NSFileReadUnknownError : NSFileWriteUnknownError;
    }
}

const char* verb(Operation op) {
    switch (op) {
        case Operation::Read:
            return "couldn't be opened";
        case Operation::Write:
            return "couldn't be saved";
        case Operation::Create:
            return "couldn't be created";
        case Operation::Remove:
            return "couldn't be removed";
        case Operation::Move:
            return "couldn't be moved";
    }
    return "couldn't be used";
}

void fail(NSErrorPtr* error, int errnum, Operation op, const QString& path) {
    if (error == nullptr) {
        return;
    }
    const QString name = QFileInfo(path).fileName().isEmpty() ? path : QFileInfo(path).fileName();
    const QString text = QStringLiteral("The file \u201c%1\u201d %2: %3")
                             .arg(name, QString::fromLatin1(verb(op)),
                                  QString::fromLocal8Bit(strerror(errnum)));
    *error = NSError::errorWithDomain(
        NSPlatformErrorDomain, platformErrorCode(errnum, op),
        {{NSLocalizedDescriptionKey, text},
         {NSFilePathErrorKey, path},
         {NSUnderlyingErrorKey, QVariant::fromValue(NSError::posixError(errnum))}});
}

// Dates are instants: made in UTC they need no time-zone lookup, which in local time costs a
// check of the zone file on every call (most of a directory walk's time outside the kernel).
// Compare them or convert them with toLocalTime() for display.
QDateTime dateFrom(const struct statx_timestamp& ts) {
    return QDateTime::fromMSecsSinceEpoch(ts.tv_sec * 1000 + ts.tv_nsec / 1000000, Qt::UTC);
}

// Removes the entry `name` of the directory `dirFd` (AT_FDCWD for a path): one unlinkat for a
// file or a link, and for a directory a walk by handles, depth first. Answers 0 or the first
// error met, where the walk stops.
int removeEntry(int dirFd, const char* name) {
    if (::unlinkat(dirFd, name, 0) == 0) {
        return 0;
    }
    const int unlinkError = errno;
    if (unlinkError != EISDIR && unlinkError != EPERM) {
        return unlinkError;
    }
    const int fd = ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOTDIR || errno == ELOOP ? unlinkError : errno;
    }
    DIR* dir = ::fdopendir(fd);
    if (dir == nullptr) {
        const int err = errno;
        ::close(fd);
        return err;
    }
    int result = 0;
    while (result == 0) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            result = errno;
            break;
        }
        const char* n = entry->d_name;
        if ((n[0] == '.' && n[1] == '\0') || (n[0] == '.' && n[1] == '.' && n[2] == '\0')) {
            continue;
        }
        result = removeEntry(fd, n);
    }
    ::closedir(dir);
    if (result == 0 && ::unlinkat(dirFd, name, AT_REMOVEDIR) != 0) {
        result = errno;
    }
    return result;
}

bool isDotOrDotDot(const char* n) {
    return (n[0] == '.' && n[1] == '\0') || (n[0] == '.' && n[1] == '.' && n[2] == '\0');
}

}  // namespace

NSDirectory::NSDirectory(QString path, int fd, std::vector<std::string> names)
    : path_(std::move(path)), fd_(fd), names_(std::move(names)) {}

NSDirectory::~NSDirectory() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

QString NSDirectory::pathOfEntry(const std::string& name) const {
    return path_ + QLatin1Char('/') + QFile::decodeName(name.c_str());
}

uint64_t fileSize(const QVariantMap& attributes) {
    return attributes.value(NSFileSize).toULongLong();
}

QDateTime fileModificationDate(const QVariantMap& attributes) {
    return attributes.value(NSFileModificationDate).toDateTime();
}

std::shared_ptr<NSFileManager> NSFileManager::defaultManager() {
    static const auto real = std::make_shared<NSFileManager>();
    std::lock_guard lock(gDefaultMutex);
    return gOverride ? gOverride : real;
}

void NSFileManager::setDefaultManagerForTesting(std::shared_ptr<NSFileManager> manager) {
    std::lock_guard lock(gDefaultMutex);
    gOverride = std::move(manager);
}

bool NSFileManager::fileExistsAtPath(const QString& path) {
    struct stat st {};
    return !path.isEmpty() && ::stat(fsPath(path).constData(), &st) == 0;
}

bool NSFileManager::createDirectoryAtPath(const QString& path, bool withIntermediateDirectories,
                                          const QVariantMap* attributes, NSErrorPtr* error) {
    const mode_t mode = attributes != nullptr && attributes->contains(NSFilePosixPermissions)
                            ? static_cast<mode_t>(attributes->value(NSFilePosixPermissions).toUInt())
                            : 0777;
    if (path.isEmpty()) {
        fail(error, ENOENT, Operation::Create, path);
        return false;
    }
    if (!withIntermediateDirectories) {
        if (::mkdir(fsPath(path).constData(), mode) != 0) {
            fail(error, errno, Operation::Create, path);
            return false;
        }
        return true;
    }
    std::error_code ec;
    std::filesystem::create_directories(fsPath(path).toStdString(), ec);
    if (ec) {
        fail(error, ec.value(), Operation::Create, path);
        return false;
    }
    return true;
}

QStringList NSFileManager::contentsOfDirectoryAtPath(const QString& path, NSErrorPtr* error) {
    QStringList names;
    DIR* dir = ::opendir(fsPath(path).constData());
    if (dir == nullptr) {
        fail(error, errno, Operation::Read, path);
        return names;
    }
    while (const dirent* entry = ::readdir(dir)) {
        if (!isDotOrDotDot(entry->d_name)) {
            names << QFile::decodeName(entry->d_name);
        }
    }
    ::closedir(dir);
    return names;
}

QVariantMap NSFileManager::attributesOfItemAtPath(const QString& path, NSErrorPtr* error) {
    struct statx sx {};
    const unsigned mask = STATX_BASIC_STATS | STATX_BTIME;
    if (::statx(AT_FDCWD, fsPath(path).constData(), AT_SYMLINK_NOFOLLOW, mask, &sx) != 0) {
        fail(error, errno, Operation::Read, path);
        return {};
    }
    QString type = NSFileTypeUnknown;
    if (S_ISREG(sx.stx_mode)) {
        type = NSFileTypeRegular;
    } else if (S_ISDIR(sx.stx_mode)) {
        type = NSFileTypeDirectory;
    } else if (S_ISLNK(sx.stx_mode)) {
        type = NSFileTypeSymbolicLink;
    }
    // Without a birth time the file system's change time stands in for the creation date.
    const QDateTime created =
        (sx.stx_mask & STATX_BTIME) != 0 ? dateFrom(sx.stx_btime) : dateFrom(sx.stx_ctime);
    return {{NSFileType, type},
            {NSFileSize, static_cast<qulonglong>(sx.stx_size)},
            {NSFileModificationDate, dateFrom(sx.stx_mtime)},
            {NSFileCreationDate, created},
            {NSFilePosixPermissions, static_cast<uint>(sx.stx_mode & 07777)}};
}

QVariantMap NSFileManager::attributesOfFileSystemForPath(const QString& path, NSErrorPtr* error) {
    struct statvfs vfs {};
    if (::statvfs(fsPath(path).constData(), &vfs) != 0) {
        fail(error, errno, Operation::Read, path);
        return {};
    }
    return {{NSFileSystemSize, static_cast<qulonglong>(vfs.f_blocks) * vfs.f_frsize},
            {NSFileSystemFreeSize, static_cast<qulonglong>(vfs.f_bavail) * vfs.f_frsize}};
}

bool NSFileManager::removeItemAtPath(const QString& path, NSErrorPtr* error) {
    const int err = removeEntry(AT_FDCWD, fsPath(path).constData());
    if (err != 0) {
        fail(error, err, Operation::Remove, path);
        return false;
    }
    return true;
}

bool NSFileManager::removeItemAtURL(const QUrl& url, NSErrorPtr* error) {
    return removeItemAtPath(url.toLocalFile(), error);
}

bool NSFileManager::moveItemAtURL(const QUrl& source, const QUrl& destination, NSErrorPtr* error) {
    const QString from = source.toLocalFile();
    const QString to = destination.toLocalFile();
    struct stat st {};
    if (::lstat(fsPath(to).constData(), &st) == 0) {
        fail(error, EEXIST, Operation::Move, from);
        return false;
    }
    if (::rename(fsPath(from).constData(), fsPath(to).constData()) == 0) {
        return true;
    }
    if (errno != EXDEV) {
        fail(error, errno, Operation::Move, from);
        return false;
    }
    // Across file systems: copy the tree, then remove the original.
    std::error_code ec;
    std::filesystem::copy(fsPath(from).toStdString(), fsPath(to).toStdString(),
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::copy_symlinks,
                          ec);
    if (ec) {
        fail(error, ec.value(), Operation::Move, from);
        return false;
    }
    return removeItemAtPath(from, error);
}

QString stringByExpandingTildeInPath(const QString& path) {
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(QLatin1Char('/'))) {
        trimmed.chop(1);  // a path string carries no trailing slash
    }
    if (trimmed != QLatin1String("~") && !trimmed.startsWith(QLatin1String("~/"))) {
        return trimmed;
    }
    const char* home = std::getenv("HOME");
    QString base = home != nullptr && *home != '\0' ? QFile::decodeName(home) : QDir::homePath();
    while (base.size() > 1 && base.endsWith(QLatin1Char('/'))) {
        base.chop(1);
    }
    return base + trimmed.mid(1);
}

std::unique_ptr<NSDirectory> NSFileManager::openDirectoryAtPath(const QString& path,
                                                                NSErrorPtr* error) {
    const int fd = ::open(fsPath(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (dir == nullptr) {
        const int err = errno;
        if (fd >= 0) {
            ::close(fd);
        }
        fail(error, err, Operation::Read, path);
        return std::make_unique<NSDirectory>(path, -1, std::vector<std::string>{});
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        if (!isDotOrDotDot(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    // The stream goes, the handle stays open for the entries' operations.
    const int kept = ::dup(fd);
    ::closedir(dir);
    if (kept < 0) {
        fail(error, errno, Operation::Read, path);
        return std::make_unique<NSDirectory>(path, -1, std::vector<std::string>{});
    }
    ::fcntl(kept, F_SETFD, FD_CLOEXEC);
    return std::make_unique<NSDirectory>(path, kept, std::move(names));
}

bool NSFileManager::attributesOfItemInDirectory(const NSDirectory& directory,
                                                const std::string& name,
                                                NSFileItemAttributes* attributes,
                                                NSErrorPtr* error) {
    *attributes = {};
    struct stat st {};
    if (::fstatat(directory.fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        fail(error, errno, Operation::Read, directory.pathOfEntry(name));
        return false;
    }
    attributes->size = static_cast<uint64_t>(st.st_size);
    attributes->modificationMSecs =
        static_cast<qint64>(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    attributes->isDirectory = S_ISDIR(st.st_mode);
    return true;
}

bool NSFileManager::removeItemInDirectory(const NSDirectory& directory, const std::string& name,
                                          NSErrorPtr* error) {
    const int err = removeEntry(directory.fd(), name.c_str());
    if (err != 0) {
        fail(error, err, Operation::Remove, directory.pathOfEntry(name));
        return false;
    }
    return true;
}
