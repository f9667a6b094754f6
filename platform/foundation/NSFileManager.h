// File-manager operations on real files. Each operation that can fail takes an optional out-error
// pointer: on failure it stores an error of the platform error domain (with the path and the underlying
// POSIX error in its user info) and answers false / empty; on success it leaves the pointer
// untouched, so one error variable can serve several calls.
//
// The default manager can be replaced for a whole process, which is how tests fix what the file
// system reports (free space, sizes) without touching the real disk's numbers.
#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariantMap>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"

// Keys of attributesOfItemAtPath: and attributesOfFileSystemForPath:.
inline const QString NSFileType = QStringLiteral("NSFileType");
inline const QString NSFileSize = QStringLiteral("NSFileSize");
inline const QString NSFileModificationDate = QStringLiteral("NSFileModificationDate");
inline const QString NSFileCreationDate = QStringLiteral("NSFileCreationDate");
inline const QString NSFilePosixPermissions = QStringLiteral("NSFilePosixPermissions");
inline const QString NSFileSystemSize = QStringLiteral("NSFileSystemSize");
inline const QString NSFileSystemFreeSize = QStringLiteral("NSFileSystemFreeSize");

inline const QString NSFileTypeRegular = QStringLiteral("NSFileTypeRegular");
inline const QString NSFileTypeDirectory = QStringLiteral("NSFileTypeDirectory");
inline const QString NSFileTypeSymbolicLink = QStringLiteral("NSFileTypeSymbolicLink");
inline const QString NSFileTypeUnknown = QStringLiteral("NSFileTypeUnknown");

// Typed readers of an attributes dictionary.
uint64_t fileSize(const QVariantMap& attributes);
QDateTime fileModificationDate(const QVariantMap& attributes);

// What a walk needs of one entry, read without building an attributes dictionary.
struct NSFileItemAttributes {
    uint64_t size = 0;                // NSFileSize
    qint64 modificationMSecs = 0;     // NSFileModificationDate, milliseconds since the epoch
    bool isDirectory = false;
};

// An open directory and the entry names it listed (raw bytes, in listing order, no "." or
// ".."). Entries are named relative to its handle, so a walk pays no path lookup per entry.
// A directory that could not be opened has no handle and no names.
class NSDirectory {
public:
    NSDirectory(QString path, int fd, std::vector<std::string> names);
    ~NSDirectory();
    NSDirectory(const NSDirectory&) = delete;
    NSDirectory& operator=(const NSDirectory&) = delete;

    const QString& path() const { return path_; }
    int fd() const { return fd_; }
    const std::vector<std::string>& names() const { return names_; }
    // "path/name": how errors name an entry.
    QString pathOfEntry(const std::string& name) const;

private:
    QString path_;
    int fd_;
    std::vector<std::string> names_;
};

class NSFileManager {
public:
    virtual ~NSFileManager() = default;

    static std::shared_ptr<NSFileManager> defaultManager();
    // Installs `manager` as the default manager; an empty pointer restores the real one.
    static void setDefaultManagerForTesting(std::shared_ptr<NSFileManager> manager);

    // Whether anything exists at `path`, following a final symbolic link.
    virtual bool fileExistsAtPath(const QString& path);

    virtual bool createDirectoryAtPath(const QString& path, bool withIntermediateDirectories,
                                       const QVariantMap* attributes, NSErrorPtr* error);

    // Entry names (not "." or ".."), in the order the directory lists them, not recursive.
    virtual QStringList contentsOfDirectoryAtPath(const QString& path, NSErrorPtr* error);

    // The item itself, not what a symbolic link points to.
    virtual QVariantMap attributesOfItemAtPath(const QString& path, NSErrorPtr* error);
    virtual QVariantMap attributesOfFileSystemForPath(const QString& path, NSErrorPtr* error);

    // Removes a file, a link (never what it points to) or a whole directory tree.
    virtual bool removeItemAtPath(const QString& path, NSErrorPtr* error);
    bool removeItemAtURL(const QUrl& url, NSErrorPtr* error);

    // Fails with NSFileWriteFileExistsError when something is already at the destination.
    virtual bool moveItemAtURL(const QUrl& source, const QUrl& destination, NSErrorPtr* error);

    // The same operations on the entries of an open directory, with the same errors (which name
    // the entry by its path). openDirectoryAtPath lists like contentsOfDirectoryAtPath and
    // never answers null.
    virtual std::unique_ptr<NSDirectory> openDirectoryAtPath(const QString& path,
                                                             NSErrorPtr* error);
    // Answers false, with `attributes` zeroed, when the entry cannot be read.
    virtual bool attributesOfItemInDirectory(const NSDirectory& directory, const std::string& name,
                                             NSFileItemAttributes* attributes, NSErrorPtr* error);
    virtual bool removeItemInDirectory(const NSDirectory& directory, const std::string& name,
                                       NSErrorPtr* error);
};

// "~" and "~/..." expanded from HOME; like every path string, the result has no trailing slash.
QString stringByExpandingTildeInPath(const QString& path);
