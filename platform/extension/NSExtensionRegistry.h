// The registry of installed extensions: every manifest found on the search path.
//
// Search path. When LUMARO_EXTENSIONS_PATH is set and not empty, its colon-separated folders, in
// order. Otherwise the "lumaro/extensions" folder of each XDG data directory: $XDG_DATA_HOME
// (default ~/.local/share) first, then each entry of $XDG_DATA_DIRS (default
// /usr/local/share:/usr/share). Only when LUMARO_EXTENSIONS_PATH is unset and none of the XDG
// folders exists are the process's fallback folders searched (see setFallbackSearchPaths).
//
// Each "*.json" file directly inside a search folder (hidden files excepted) is one manifest.
// Folders are read in search-path order and, inside one, in file-name order; the first manifest
// of an identifier wins, so a user's manifest overrides a system one. A manifest that cannot be
// read, is not JSON or breaks the schema is skipped, and so is a second manifest of an
// identifier in the same folder; each such file gets one error line in the platform log (once
// per version of the file, not once per query).
//
// The registry keeps each parsed manifest together with the file's identity (device, inode,
// size, modification time) and reuses it while the file is unchanged; dropCaches forgets them.
// Across processes, each folder's index (NSExtensionIndex.h) stands in for reading its manifests
// again; dropCaches leaves the indexes alone.
#pragma once

#include <QStringList>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/extension/NSExtension.h"

class NSExtensionRegistry {
public:
    NSExtensionRegistry();
    ~NSExtensionRegistry();

    // The registry that the queries of NSExtension use.
    static std::shared_ptr<NSExtensionRegistry> sharedRegistry();

    // The folders a process searches when LUMARO_EXTENSIONS_PATH is unset and no XDG folder
    // exists: a development tree's share folder, for instance. Empty by default.
    static void setFallbackSearchPaths(const QStringList& paths);
    static QStringList fallbackSearchPaths();

    // The search path for the current environment, as described above.
    static QStringList searchPaths();

    struct Scan {
        std::vector<NSExtensionPtr> extensions;  // one per identifier, ordered by identifier
        NSErrorPtr error;                        // a search folder that exists but cannot be listed
        QStringList problems;                    // "path: reason" for every skipped manifest
    };
    // Reads the search path now (reusing unchanged manifests).
    Scan scan();
    Scan scan(const QStringList& folders);

    void dropCaches();

private:
    struct Entry;
    // By folder, the entries of its manifests by file name.
    using FolderEntries = std::unordered_map<std::string, std::shared_ptr<const Entry>>;
    std::mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<const FolderEntries>> cache_;
};
