// The index of one extension folder: what the registry read from each of the folder's manifests,
// kept in one binary file so that a new process can take it instead of reading and checking
// every manifest again.
//
// Where. ".lumaro-extensions.index" inside the folder; when the folder is not writable, a file
// named after the folder's path in $XDG_CACHE_HOME/lumaro/extension-index/ (default ~/.cache).
// Written to a temporary file and renamed into place, so a reader sees a whole index or none.
//
// Valid while the folder's modification time and each manifest's inode, size and modification
// time agree with what the index recorded. File times have a granularity (a clock tick, or a
// second or two on some file systems): a time recorded less than one granule before the index
// saw it cannot tell a later change in the same granule, so such a folder is listed again and
// such a manifest read again (and the index written anew) until the index has seen it older.
//
// A file that is not an index, an index of another version or of another folder, and a damaged
// index are ignored with one error line in the platform log, and the registry rebuilds it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <QString>
#include <memory>
#include <string>
#include <vector>

#include "platform/extension/NSExtension.h"

namespace platform::extension {

// A file's version as the index compares it.
struct ManifestIdentity {
    ino_t inode = 0;
    int64_t size = 0;
    int64_t mtimeNs = 0;
    bool operator==(const ManifestIdentity&) const = default;
};

// What one manifest gave: an extension, a refusal for good (its content, its kind of file), or a
// failure that may pass (a permission, an I/O error), which is never kept and is read again.
struct IndexRecord {
    std::string name;  // the file's name in the folder
    ManifestIdentity identity;
    NSExtensionPtr extension;
    QString problem;
    bool readAgain = false;
};

struct DecodeCache;

class ExtensionIndex {
public:
    ~ExtensionIndex();

    // The index of the folder whose handle is `folderFd`, from the folder itself or else from the
    // cache; null when there is none that can be used.
    static std::unique_ptr<ExtensionIndex> open(const QString& folder, int folderFd);

    // The folder's modification time the listing was made at, and when it was last seen so.
    int64_t folderMtimeNs() const { return folderMtimeNs_; }
    int64_t verifiedAtNs() const { return verifiedAtNs_; }
    // The manifests' names, in byte order.
    const std::vector<std::string>& names() const { return names_; }

    // Position of `name` in names(), or -1.
    qsizetype find(const std::string& name, qsizetype from) const;
    const ManifestIdentity& identity(qsizetype i) const { return items_[i].identity; }
    bool readAgain(qsizetype i) const { return items_[i].kind == kReadAgain; }
    // The record kept for item i; answers false (and logs one line) when it cannot be read.
    bool decode(qsizetype i, const QString& manifestPath, IndexRecord* record) const;

    // Records, in place, that the listing was seen unchanged at `verifiedAtNs`.
    void markVerified(int64_t verifiedAtNs);

    // Writes the index of a folder: `records` in byte order of name; the listing was made at
    // `folderMtimeNs`, with every time read after `startedAtNs`.
    static void write(const QString& folder, int folderFd, const std::vector<IndexRecord>& records,
                      int64_t folderMtimeNs, int64_t startedAtNs);

    // Whether a time recorded at `mtimeNs` is too close to `seenAtNs` for a later change to
    // show in it.
    static bool isRacy(int64_t mtimeNs, int64_t seenAtNs);
    static int64_t nowNs();

    static constexpr const char* kFileName = ".lumaro-extensions.index";

private:
    enum Kind : uint8_t { kExtension = 0, kRefused = 1, kReadAgain = 2 };
    struct Item {
        ManifestIdentity identity;
        Kind kind;
        size_t payload;
        size_t payloadSize;
    };
    ExtensionIndex();
    static std::unique_ptr<ExtensionIndex> map(const QString& path, const QString& folder,
                                               const struct stat& folderStat, bool inFolder);

    QString path_;
    const char* data_ = nullptr;
    size_t size_ = 0;
    int64_t folderMtimeNs_ = 0;
    int64_t verifiedAtNs_ = 0;
    std::vector<std::string> names_;
    std::vector<Item> items_;
    mutable std::unique_ptr<DecodeCache> shared_;  // what decode has met
};

}  // namespace platform::extension
