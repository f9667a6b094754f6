#include "platform/extension/NSExtensionIndex.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unordered_map>

#include "platform/extension/NSExtensionManifest.h"
#include "platform/log/os_log.h"

namespace platform::extension {

// Keys and whole maps and lists met before, by their bytes in the index: manifests repeat keys and
// whole dictionaries (activation rules, often the declared attributes), and a repeated one costs
// a look-up instead of allocations (Qt's containers share their data). Other strings are mostly
// a manifest's own: looking them up would cost more than it saves.
struct DecodeCache {
    std::unordered_map<std::string_view, QString> strings;
    std::unordered_map<std::string_view, QVariant> values;
};

namespace {

// Layout, native byte order (the magic tells another order apart):
//   header (kHeaderSize bytes): magic, version, folder mtime, verified-at, folder device and
//   inode, checksum of everything after the header, item count, length of the folder's path;
//   then the folder's path, then per manifest: name, inode, size, mtime, kind, payload.
// The folder mtime and verified-at fields are rewritten in place and so stay out of the checksum.
constexpr char kMagic[8] = {'L', 'M', 'X', 'I', 'N', 'D', 'E', 'X'};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderSize = 64;
constexpr size_t kFolderMtimeAt = 16;
constexpr size_t kVerifiedAtAt = 24;

struct Header {
    char magic[8];
    uint32_t version;
    uint32_t reserved;
    int64_t folderMtimeNs;
    int64_t verifiedAtNs;
    uint64_t folderDevice;
    uint64_t folderInode;
    uint64_t checksum;
    uint32_t itemCount;
    uint32_t folderPathSize;
};
static_assert(sizeof(Header) == kHeaderSize);

// Variant tags of the payload: the types that a manifest's JSON turns into.
enum Tag : uint8_t {
    kMap = 'm',
    kList = 'l',
    kString = 's',
    kBool = 'b',
    kInt = 'i',
    kDouble = 'd',
    kNull = 'n'
};

uint64_t checksum(const char* data, size_t size) {
    uint64_t h = 0x9E3779B97F4A7C15ULL ^ size;
    size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        uint64_t word;
        std::memcpy(&word, data + i, 8);
        h = (h ^ word) * 0xFF51AFD7ED558CCDULL;
        h ^= h >> 29;
    }
    for (; i < size; ++i) {
        h = (h ^ static_cast<unsigned char>(data[i])) * 0xC4CEB9FE1A85EC53ULL;
    }
    return h ^ (h >> 31);
}

int64_t mtimeNsOf(const struct stat& st) {
    return static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

QString cachePathFor(const QString& folder) {
    QString base = QFile::decodeName(qgetenv("XDG_CACHE_HOME"));
    if (base.isEmpty() || !QDir::isAbsolutePath(base)) {
        base = QDir::homePath() + QStringLiteral("/.cache");
    }
    const QByteArray key = QFile::encodeName(folder);
    return QStringLiteral("%1/lumaro/extension-index/%2.index")
        .arg(base)
        .arg(checksum(key.constData(), static_cast<size_t>(key.size())), 16, 16, QLatin1Char('0'));
}

// --- Writing ---

class Writer {
public:
    void raw(const void* data, size_t size) {
        out_.append(static_cast<const char*>(data), static_cast<qsizetype>(size));
    }
    template <class T>
    void value(T v) {
        raw(&v, sizeof v);
    }
    void bytes(const QByteArray& b) {
        value<uint32_t>(static_cast<uint32_t>(b.size()));
        raw(b.constData(), static_cast<size_t>(b.size()));
    }
    void string(const QString& s) { bytes(s.toUtf8()); }

    // False when the value holds a type that a manifest cannot give.
    bool variant(const QVariant& v) {
        switch (v.typeId()) {
            case QMetaType::QVariantMap: {
                const QVariantMap map = v.toMap();
                const qsizetype start = begin(kMap, map.size());
                for (auto it = map.cbegin(); it != map.cend(); ++it) {
                    string(it.key());
                    if (!variant(it.value())) {
                        return false;
                    }
                }
                return end(start);
            }
            case QMetaType::QVariantList: {
                const QVariantList list = v.toList();
                const qsizetype start = begin(kList, list.size());
                return std::all_of(list.cbegin(), list.cend(),
                                   [this](const QVariant& item) { return variant(item); }) &&
                       end(start);
            }
            case QMetaType::QString:
                value<uint8_t>(kString);
                string(v.toString());
                return true;
            case QMetaType::Bool:
                value<uint8_t>(kBool);
                value<uint8_t>(v.toBool() ? 1 : 0);
                return true;
            case QMetaType::LongLong:
                value<uint8_t>(kInt);
                value<int64_t>(v.toLongLong());
                return true;
            case QMetaType::Double:
                value<uint8_t>(kDouble);
                value<double>(v.toDouble());
                return true;
            case QMetaType::Nullptr:
                value<uint8_t>(kNull);
                return true;
            default:
                return false;
        }
    }
    QByteArray& out() { return out_; }

private:
    // A map or a list: its tag, then the size of what follows (so that a reader can take a
    // value met before whole), then its count and items.
    qsizetype begin(Tag tag, qsizetype count) {
        value<uint8_t>(tag);
        const qsizetype start = out_.size();
        value<uint32_t>(0);
        value<uint32_t>(static_cast<uint32_t>(count));
        return start;
    }
    bool end(qsizetype start) {
        const auto size = static_cast<uint32_t>(out_.size() - start - sizeof(uint32_t));
        std::memcpy(out_.data() + start, &size, sizeof size);
        return true;
    }
    QByteArray out_;
};

// The payload of an extension: its record's parts, as extensionRecord takes them.
bool encodeExtension(const NSExtension& extension, Writer* w) {
    const auto& plugIn = extension._plugIn();
    if (!plugIn) {
        return false;
    }
    QVariantMap info = extension.infoDictionary();
    info.remove(NSExtensionKey);
    w->string(extension.identifier());
    w->string(plugIn->containingUrl().toLocalFile());
    w->string(plugIn->executableUrl().toLocalFile());
    w->value<int64_t>(plugIn->platform());
    return w->variant(extension.attributes()) && w->variant(info);
}

// --- Reading ---

class Reader {
public:
    Reader(const char* data, size_t size, DecodeCache* shared = nullptr)
        : p_(data), end_(data + size), shared_(shared) {}
    bool ok() const { return ok_; }
    const char* position() const { return p_; }
    bool skip(size_t n) {
        if (!ok_ || static_cast<size_t>(end_ - p_) < n) {
            ok_ = false;
            return false;
        }
        p_ += n;
        return true;
    }
    template <class T>
    T value() {
        T v{};
        const char* at = p_;
        if (skip(sizeof v)) {
            std::memcpy(&v, at, sizeof v);
        }
        return v;
    }
    std::string_view bytes() {
        const auto size = value<uint32_t>();
        const char* at = p_;
        return skip(size) ? std::string_view(at, size) : std::string_view();
    }
    QString string() {
        const std::string_view b = bytes();
        return QString::fromUtf8(b.data(), static_cast<qsizetype>(b.size()));
    }
    QString sharedString() {
        const std::string_view b = bytes();
        if (shared_ == nullptr) {
            return QString::fromUtf8(b.data(), static_cast<qsizetype>(b.size()));
        }
        auto [it, added] = shared_->strings.try_emplace(b);
        if (added) {
            it->second = QString::fromUtf8(b.data(), static_cast<qsizetype>(b.size()));
        }
        return it->second;
    }
    QVariant variant(int depth = 0) {
        if (depth > 64) {
            ok_ = false;
            return {};
        }
        const auto tag = value<uint8_t>();
        if (tag == kMap || tag == kList) {
            const char* start = p_;
            const auto size = value<uint32_t>();
            if (!skip(size)) {
                return {};
            }
            const std::string_view whole(start, size + sizeof size);
            if (shared_ != nullptr) {
                if (auto it = shared_->values.find(whole); it != shared_->values.end()) {
                    return it->second;
                }
            }
            Reader inner(start + sizeof size, size, shared_);
            QVariant made = tag == kMap ? inner.map(depth) : inner.list(depth);
            ok_ = inner.ok_;
            if (shared_ != nullptr && ok_) {
                shared_->values.emplace(whole, made);
            }
            return made;
        }
        switch (tag) {
            case kString:
                return string();
            case kBool:
                return value<uint8_t>() != 0;
            case kInt:
                return QVariant::fromValue<qlonglong>(value<int64_t>());
            case kDouble:
                return value<double>();
            case kNull:
                return QVariant::fromValue(nullptr);
            default:
                ok_ = false;
                return {};
        }
    }

private:
    QVariant map(int depth) {
        QVariantMap map;
        const auto count = value<uint32_t>();
        for (uint32_t i = 0; i < count && ok_; ++i) {
            QString key = sharedString();
            map.insert(std::move(key), variant(depth + 1));
        }
        ok_ = ok_ && p_ == end_;
        return map;
    }
    QVariant list(int depth) {
        QVariantList list;
        const auto count = value<uint32_t>();
        for (uint32_t i = 0; i < count && ok_; ++i) {
            list.push_back(variant(depth + 1));
        }
        ok_ = ok_ && p_ == end_;
        return list;
    }

    const char* p_;
    const char* end_;
    DecodeCache* shared_;
    bool ok_ = true;
};

void logIgnored(const QString& path, const char* reason) {
    os_log_error(OS_LOG_DEFAULT, "extension index %{public}s ignored: %{public}s", path, reason);
}

}  // namespace

ExtensionIndex::ExtensionIndex() = default;

ExtensionIndex::~ExtensionIndex() {
    if (data_ != nullptr) {
        ::munmap(const_cast<char*>(data_), size_);
    }
}

int64_t ExtensionIndex::nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

bool ExtensionIndex::isRacy(int64_t mtimeNs, int64_t seenAtNs) {
    // A time with no fraction of a second comes from a file system that may keep whole seconds
    // (or two); otherwise the granule is the kernel's clock tick, 10 ms at most.
    const int64_t granule = mtimeNs % 1000000000 == 0 ? 2000000000 : 25000000;
    return mtimeNs > seenAtNs - granule;
}

std::unique_ptr<ExtensionIndex> ExtensionIndex::open(const QString& folder, int folderFd) {
    struct stat folderStat {};
    if (::fstat(folderFd, &folderStat) != 0) {
        return nullptr;
    }
    // The folder's own index or the cache's: one that holds for the folder's time, the newer if
    // both do (a folder that stopped being writable has its own index left behind).
    auto own = map(folder + QLatin1Char('/') + QLatin1String(kFileName), folder, folderStat, true);
    auto cached = map(cachePathFor(folder), folder, folderStat, false);
    const auto holds = [&](const std::unique_ptr<ExtensionIndex>& index) {
        return index && index->folderMtimeNs_ == mtimeNsOf(folderStat);
    };
    if (holds(own) && holds(cached)) {
        return own->verifiedAtNs_ >= cached->verifiedAtNs_ ? std::move(own) : std::move(cached);
    }
    if (holds(cached) || !own) {
        return cached;
    }
    return own;
}

std::unique_ptr<ExtensionIndex> ExtensionIndex::map(const QString& path, const QString& folder,
                                                    const struct stat& folderStat, bool inFolder) {
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;  // none yet
    }
    struct stat st {};
    const bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    void* mapped = regular && st.st_size > 0 ? ::mmap(nullptr, static_cast<size_t>(st.st_size),
                                                      PROT_READ, MAP_PRIVATE, fd, 0)
                                             : MAP_FAILED;
    ::close(fd);
    if (mapped == MAP_FAILED) {
        logIgnored(path, regular ? "damaged" : "not an extension index");
        return nullptr;
    }
    std::unique_ptr<ExtensionIndex> index(new ExtensionIndex);
    index->path_ = path;
    index->data_ = static_cast<const char*>(mapped);
    index->size_ = static_cast<size_t>(st.st_size);

    Header header{};
    if (index->size_ < kHeaderSize) {
        logIgnored(path,
                   std::memcmp(index->data_, kMagic, std::min(index->size_, sizeof kMagic)) == 0
                       ? "damaged"
                       : "not an extension index");
        return nullptr;
    }
    std::memcpy(&header, index->data_, kHeaderSize);
    if (std::memcmp(header.magic, kMagic, sizeof kMagic) != 0) {
        logIgnored(path, "not an extension index");
        return nullptr;
    }
    if (header.version != kVersion) {
        logIgnored(path, "written by another version");
        return nullptr;
    }
    if (checksum(index->data_ + kHeaderSize, index->size_ - kHeaderSize) != header.checksum) {
        logIgnored(path, "damaged");
        return nullptr;
    }
    Reader reader(index->data_ + kHeaderSize, index->size_ - kHeaderSize);
    const std::string_view recordedFolder(
        reader.position(), std::min<size_t>(header.folderPathSize, index->size_ - kHeaderSize));
    reader.skip(header.folderPathSize);
    if (!inFolder && recordedFolder != QFile::encodeName(folder).toStdString()) {
        logIgnored(path, "made for another folder");
        return nullptr;
    }
    if (header.folderDevice != static_cast<uint64_t>(folderStat.st_dev) ||
        header.folderInode != static_cast<uint64_t>(folderStat.st_ino)) {
        return nullptr;  // the folder was made anew: its old index is out of date, not wrong
    }
    index->folderMtimeNs_ = header.folderMtimeNs;
    index->verifiedAtNs_ = header.verifiedAtNs;
    index->names_.reserve(header.itemCount);
    index->items_.reserve(header.itemCount);
    for (uint32_t i = 0; i < header.itemCount && reader.ok(); ++i) {
        const std::string_view name = reader.bytes();
        Item item{};
        item.identity.inode = static_cast<ino_t>(reader.value<uint64_t>());
        item.identity.size = reader.value<int64_t>();
        item.identity.mtimeNs = reader.value<int64_t>();
        item.kind = static_cast<Kind>(reader.value<uint8_t>());
        item.payloadSize = reader.value<uint32_t>();
        item.payload = static_cast<size_t>(reader.position() - index->data_);
        reader.skip(item.payloadSize);
        if (item.kind > kReadAgain || (!index->names_.empty() && !(index->names_.back() < name))) {
            break;
        }
        index->names_.emplace_back(name);
        index->items_.push_back(item);
    }
    if (!reader.ok() || index->items_.size() != header.itemCount) {
        logIgnored(path, "damaged");
        return nullptr;
    }
    return index;
}

qsizetype ExtensionIndex::find(const std::string& name, qsizetype from) const {
    const auto begin =
        names_.begin() + std::min<qsizetype>(from, static_cast<qsizetype>(names_.size()));
    const auto it = std::lower_bound(begin, names_.end(), name);
    return it != names_.end() && *it == name ? it - names_.begin() : -1;
}

bool ExtensionIndex::decode(qsizetype i, const QString& manifestPath, IndexRecord* record) const {
    const Item& item = items_[static_cast<size_t>(i)];
    if (!shared_) {
        shared_ = std::make_unique<DecodeCache>();
    }
    Reader reader(data_ + item.payload, item.payloadSize, shared_.get());
    record->name = names_[static_cast<size_t>(i)];
    record->identity = item.identity;
    record->readAgain = item.kind == kReadAgain;
    if (item.kind == kRefused) {
        record->problem = reader.string();
    } else if (item.kind == kExtension) {
        const QString identifier = reader.string();
        const QString containing = reader.string();
        const QString executable = reader.string();
        const auto platform = reader.value<int64_t>();
        const QVariant attributes = reader.variant();
        const QVariant info = reader.variant();
        if (reader.ok() && attributes.typeId() == QMetaType::QVariantMap &&
            info.typeId() == QMetaType::QVariantMap) {
            record->extension = extensionRecord(identifier, attributes.toMap(), info.toMap(),
                                                containing, executable, platform, manifestPath);
        }
    }
    if (!reader.ok() || (item.kind == kExtension && !record->extension)) {
        logIgnored(path_, "damaged");
        return false;
    }
    return true;
}

void ExtensionIndex::markVerified(int64_t verifiedAtNs) {
    const int fd = ::open(QFile::encodeName(path_).constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return;  // another's index: it is listed again next time too
    }
    (void)!::pwrite(fd, &verifiedAtNs, sizeof verifiedAtNs, kVerifiedAtAt);
    ::close(fd);
    verifiedAtNs_ = verifiedAtNs;
}

namespace {

// Writes `bytes` to a new temporary file beside `target` and renames it over `target`. Answers
// the handle of the written file (the caller closes it), or -1 and errno.
int replaceFile(const QString& target, const QByteArray& bytes) {
    QByteArray temp = QFile::encodeName(target) + ".XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    size_t done = 0;
    while (done < static_cast<size_t>(bytes.size())) {
        const ssize_t n =
            ::write(fd, bytes.constData() + done, static_cast<size_t>(bytes.size()) - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const int err = n < 0 ? errno : ENOSPC;
            ::close(fd);
            ::unlink(temp.constData());
            errno = err;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    ::fchmod(fd, 0644);
    if (::rename(temp.constData(), QFile::encodeName(target).constData()) != 0) {
        const int err = errno;
        ::close(fd);
        ::unlink(temp.constData());
        errno = err;
        return -1;
    }
    return fd;
}

bool manifestNamesEqual(int folderFd, const std::vector<IndexRecord>& records) {
    const int fd = ::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (dir == nullptr) {
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        if (isManifestFileName(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return std::equal(names.begin(), names.end(), records.begin(), records.end(),
                      [](const std::string& n, const IndexRecord& r) { return n == r.name; });
}

}  // namespace

void ExtensionIndex::write(const QString& folder, int folderFd,
                           const std::vector<IndexRecord>& records, int64_t folderMtimeNs,
                           int64_t startedAtNs) {
    struct stat folderStat {};
    if (::fstat(folderFd, &folderStat) != 0) {
        return;
    }
    Writer body;
    body.raw(QFile::encodeName(folder).constData(),
             static_cast<size_t>(QFile::encodeName(folder).size()));
    for (const IndexRecord& record : records) {
        Writer payload;
        Kind kind = kReadAgain;
        if (record.extension) {
            kind = encodeExtension(*record.extension, &payload) ? kExtension : kReadAgain;
        } else if (!record.readAgain) {
            kind = kRefused;
            payload.string(record.problem);
        }
        if (kind == kReadAgain) {
            payload.out().clear();
        }
        body.bytes(QByteArray::fromStdString(record.name));
        body.value<uint64_t>(record.identity.inode);
        body.value<int64_t>(record.identity.size);
        body.value<int64_t>(record.identity.mtimeNs);
        body.value<uint8_t>(kind);
        body.bytes(payload.out());
    }
    Header header{};
    std::memcpy(header.magic, kMagic, sizeof kMagic);
    header.version = kVersion;
    header.folderMtimeNs = folderMtimeNs;
    header.verifiedAtNs = startedAtNs;
    header.folderDevice = static_cast<uint64_t>(folderStat.st_dev);
    header.folderInode = static_cast<uint64_t>(folderStat.st_ino);
    header.checksum = checksum(body.out().constData(), static_cast<size_t>(body.out().size()));
    header.itemCount = static_cast<uint32_t>(records.size());
    header.folderPathSize = static_cast<uint32_t>(QFile::encodeName(folder).size());
    QByteArray bytes(reinterpret_cast<const char*>(&header), kHeaderSize);
    bytes.append(body.out());

    const int fd = replaceFile(folder + QLatin1Char('/') + QLatin1String(kFileName), bytes);
    if (fd >= 0) {
        // The rename changed the folder's time: the listing is valid for the new time when the
        // manifests are still those listed. Seen just now, that time is racy until a later look.
        const int64_t seenAt = nowNs();
        struct stat after {};
        const bool same = ::fstat(folderFd, &after) == 0 && manifestNamesEqual(folderFd, records);
        const int64_t times[2] = {same ? mtimeNsOf(after) : 0, seenAt};
        (void)!::pwrite(fd, times, sizeof times, kFolderMtimeAt);
        ::close(fd);
        return;
    }
    // Not writable here: the user's cache.
    const QString cached = cachePathFor(folder);
    if (!QDir().mkpath(QFileInfo(cached).absolutePath())) {
        return;
    }
    const int cachedFd = replaceFile(cached, bytes);
    if (cachedFd >= 0) {
        ::close(cachedFd);
    }
}

}  // namespace platform::extension
