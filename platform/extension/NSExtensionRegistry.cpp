#include "platform/extension/NSExtensionRegistry.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "platform/extension/NSExtensionIndex.h"
#include "platform/extension/NSExtensionManifest.h"
#include "platform/log/os_log.h"

// One manifest file as last read: what identifies the file's version, and what it gave.
struct NSExtensionRegistry::Entry {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t mtimeNs = 0;
    int64_t readAtNs = 0;  // a time this close to the read may hide a later change (see the index)
    NSExtensionPtr extension;  // empty when the manifest was refused
    QString problem;
    bool readAgain = false;  // refused for now only: the file could not be read
};

namespace {

std::mutex gFallbackMutex;
QStringList gFallback;

QString envPath(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? QFile::decodeName(value) : QString();
}

int64_t mtimeNs(const struct stat& st) {
    return static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

}  // namespace

NSExtensionRegistry::NSExtensionRegistry() = default;
NSExtensionRegistry::~NSExtensionRegistry() = default;

std::shared_ptr<NSExtensionRegistry> NSExtensionRegistry::sharedRegistry() {
    static const auto registry = std::make_shared<NSExtensionRegistry>();
    return registry;
}

void NSExtensionRegistry::setFallbackSearchPaths(const QStringList& paths) {
    std::lock_guard lock(gFallbackMutex);
    gFallback = paths;
}

QStringList NSExtensionRegistry::fallbackSearchPaths() {
    std::lock_guard lock(gFallbackMutex);
    return gFallback;
}

QStringList NSExtensionRegistry::searchPaths() {
    const QString explicitPath = envPath("LUMARO_EXTENSIONS_PATH");
    if (!explicitPath.isEmpty()) {
        QStringList folders;
        for (const QString& folder : explicitPath.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
            folders << QDir::cleanPath(folder);
        }
        return folders;
    }
    // XDG base directories: relative entries are invalid and ignored.
    QString dataHome = envPath("XDG_DATA_HOME");
    if (dataHome.isEmpty() || !QDir::isAbsolutePath(dataHome)) {
        dataHome = QDir::homePath() + QStringLiteral("/.local/share");
    }
    QString dataDirs = envPath("XDG_DATA_DIRS");
    if (dataDirs.isEmpty()) {
        dataDirs = QStringLiteral("/usr/local/share:/usr/share");
    }
    QStringList folders{QDir::cleanPath(dataHome + QStringLiteral("/lumaro/extensions"))};
    for (const QString& dir : dataDirs.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        if (QDir::isAbsolutePath(dir)) {
            folders << QDir::cleanPath(dir + QStringLiteral("/lumaro/extensions"));
        }
    }
    folders.removeDuplicates();
    const bool anyExists = std::any_of(folders.cbegin(), folders.cend(), [](const QString& f) {
        struct stat st {};
        return ::stat(QFile::encodeName(f).constData(), &st) == 0;
    });
    return anyExists ? folders : fallbackSearchPaths();
}

NSExtensionRegistry::Scan NSExtensionRegistry::scan() {
    return scan(searchPaths());
}

NSExtensionRegistry::Scan NSExtensionRegistry::scan(const QStringList& folders) {
    using platform::extension::ExtensionIndex;
    using platform::extension::IndexRecord;
    Scan result;
    std::map<QString, NSExtensionPtr> byIdentifier;  // ordered by identifier (byte order)

    for (const QString& folder : folders) {
        // Every time read below is later than this, which the index's check of times needs.
        const int64_t startedAt = ExtensionIndex::nowNs();
        const QByteArray folderBytes = QFile::encodeName(folder);
        const int dirFd = ::open(folderBytes.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        struct stat folderStat {};
        if (dirFd < 0 || ::fstat(dirFd, &folderStat) != 0) {
            const int err = errno;
            if (dirFd >= 0) {
                ::close(dirFd);
            }
            if (err == ENOENT) {
                continue;  // an absent folder is the usual case on a search path
            }
            os_log_error(OS_LOG_DEFAULT,
                         "extension folder %{public}s cannot be searched: %{public}s", folder,
                         strerror(err));
            if (!result.error) {
                result.error = NSError::errorWithDomain(
                    NSPlatformErrorDomain,
                    err == EACCES ? NSFileReadNoPermissionError : NSFileReadUnknownError,
                    {{NSFilePathErrorKey, folder},
                     {NSLocalizedDescriptionKey,
                      QStringLiteral("The extension folder %1 cannot be searched: %2")
                          .arg(folder, QString::fromLocal8Bit(strerror(err)))}});
            }
            continue;
        }
        const int64_t folderMtime = mtimeNs(folderStat);
        // What this process read of the folder before, and what it holds after this scan.
        std::shared_ptr<const FolderEntries> before;
        {
            std::lock_guard lock(mutex_);
            if (auto it = cache_.find(folderBytes.toStdString()); it != cache_.end()) {
                before = it->second;
            }
        }
        auto after = std::make_shared<FolderEntries>();
        const std::unique_ptr<ExtensionIndex> index = ExtensionIndex::open(folder, dirFd);

        // The listing: the index's while the folder's time says it holds, else the folder's own.
        const bool listedBefore = index && index->folderMtimeNs() == folderMtime;
        const bool racyListing =
            listedBefore && ExtensionIndex::isRacy(folderMtime, index->verifiedAtNs());
        bool rewrite = !listedBefore;
        std::vector<std::string> names;
        if (listedBefore && !racyListing) {
            names = index->names();
        } else {
            DIR* dir = ::fdopendir(::dup(dirFd));
            if (dir == nullptr) {
                ::close(dirFd);
                continue;
            }
            while (const dirent* entry = ::readdir(dir)) {
                if (platform::extension::isManifestFileName(entry->d_name)) {
                    names.emplace_back(entry->d_name);
                }
            }
            ::closedir(dir);
            std::sort(names.begin(), names.end());
            rewrite = rewrite || !index || names != index->names();
        }

        std::vector<IndexRecord> records(names.size());
        std::map<QString, QString> identifiersHere;  // identifier -> manifest path
        qsizetype indexAt = 0;
        for (size_t n = 0; n < names.size(); ++n) {
            const std::string& name = names[n];
            const QString path = QFile::decodeName(folderBytes + '/' + name.c_str());
            struct stat st {};
            const bool statted = ::fstatat(dirFd, name.c_str(), &st, 0) == 0;
            const platform::extension::ManifestIdentity identity{
                statted ? st.st_ino : 0, statted ? st.st_size : 0, statted ? mtimeNs(st) : 0};
            IndexRecord& record = records[n];
            record.name = name;
            record.identity = identity;

            // Known to the index when it recorded this very version, long enough ago.
            qsizetype known = -1;
            if (index && statted) {
                known = index->find(name, indexAt);
                if (known >= 0) {
                    indexAt = known + 1;
                    if (!(index->identity(known) == identity) ||
                        ExtensionIndex::isRacy(identity.mtimeNs, index->verifiedAtNs())) {
                        known = -1;
                    }
                }
            }
            rewrite = rewrite || known < 0;

            std::shared_ptr<const Entry> entry;
            std::shared_ptr<const Entry> readBefore;  // this version, read too recently to trust
            if (statted && before) {
                auto cached = before->find(name);
                if (cached != before->end() && cached->second->device == st.st_dev &&
                    cached->second->inode == st.st_ino && cached->second->size == st.st_size &&
                    cached->second->mtimeNs == mtimeNs(st)) {
                    (ExtensionIndex::isRacy(cached->second->mtimeNs, cached->second->readAtNs)
                         ? readBefore
                         : entry) = cached->second;
                }
            }
            bool logged = !entry;  // whether its refusals are news to this registry
            if (!entry) {
                auto made = std::make_shared<Entry>();
                made->device = st.st_dev;
                made->inode = st.st_ino;
                made->size = st.st_size;
                made->mtimeNs = mtimeNs(st);
                made->readAtNs = startedAt;
                IndexRecord kept;
                if (known >= 0 && !index->readAgain(known) && index->decode(known, path, &kept)) {
                    made->extension = std::move(kept.extension);
                    made->problem = std::move(kept.problem);
                } else {
                    QByteArray bytes;
                    if (platform::extension::readManifestFile(path, &bytes, &made->problem)) {
                        made->extension = platform::extension::extensionFromManifestData(
                            bytes, path, &made->problem);
                    } else {
                        // A regular file of a fitting size that cannot be read now may be
                        // readable later: never kept as refused.
                        made->readAgain =
                            !statted || (S_ISREG(st.st_mode) &&
                                         st.st_size <= platform::extension::kMaxManifestSize);
                    }
                    if (known >= 0 && !(index->readAgain(known) && made->readAgain)) {
                        rewrite = true;
                    }
                }
                // Read again only to be sure, and found as before: not news.
                const bool asBefore =
                    readBefore && readBefore->problem == made->problem &&
                    (readBefore->extension && made->extension
                         ? readBefore->extension->identifier() == made->extension->identifier()
                         : !readBefore->extension && !made->extension);
                logged = !asBefore;
                if (!made->extension && logged) {
                    os_log_error(OS_LOG_DEFAULT,
                                 "extension manifest %{public}s skipped: %{public}s", path,
                                 made->problem);
                }
                entry = made;
            }
            record.extension = entry->extension;
            record.problem = entry->problem;
            record.readAgain = entry->readAgain;
            after->emplace(name, entry);
            if (!entry->extension) {
                result.problems << path + QStringLiteral(": ") + entry->problem;
                continue;
            }
            const QString& identifier = entry->extension->identifier();
            if (auto earlier = identifiersHere.find(identifier); earlier != identifiersHere.end()) {
                const QString problem =
                    QStringLiteral("duplicate identifier %1 (already provided by %2)")
                        .arg(identifier, earlier->second);
                // Logged when the file is new to the registry, like every other refusal.
                if (logged) {
                    os_log_error(OS_LOG_DEFAULT,
                                 "extension manifest %{public}s skipped: %{public}s", path,
                                 problem);
                }
                result.problems << path + QStringLiteral(": ") + problem;
                continue;
            }
            identifiersHere.emplace(identifier, path);
            byIdentifier.emplace(identifier, entry->extension);  // an earlier folder wins
        }
        {
            std::lock_guard lock(mutex_);
            cache_[folderBytes.toStdString()] = std::move(after);
        }
        if (rewrite) {
            ExtensionIndex::write(folder, dirFd, records, folderMtime, startedAt);
        } else if (racyListing && !ExtensionIndex::isRacy(folderMtime, startedAt)) {
            index->markVerified(startedAt);
        }
        ::close(dirFd);
    }

    result.extensions.reserve(byIdentifier.size());
    for (auto& [identifier, extension] : byIdentifier) {
        result.extensions.push_back(extension);
    }
    return result;
}

void NSExtensionRegistry::dropCaches() {
    std::lock_guard lock(mutex_);
    cache_.clear();
}
