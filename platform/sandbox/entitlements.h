// The entitlements a program is signed with, and the paths they let it grant to others.
//
// A program's entitlements live in "Entitlements.json" in its main bundle's folder: one JSON
// object of entitlement key to value, read once per process. A missing or malformed file means no
// entitlements (with one error line in the platform log), which means not sandboxed.
//
// What a sandboxed process ("com.vantor.security.app-sandbox" true) may issue tokens for:
// - its main bundle, the folder itself and anything inside it, for reading only;
// - each folder of "com.vantor.security.temporary-exception.files.home-relative-path.read-write"
//   (taken relative to $HOME, and only where it stays inside $HOME), the folder and anything
//   inside it, for reading and writing;
// - with "com.vantor.security.files.user-selected.read-write" true, what the user selected in an
//   open or save panel, recorded with grantUserSelectedPath, for reading and writing. A grant is
//   as narrow as the selection: a selected file covers that file only (not its folder), a selected
//   folder covers itself and everything inside it. A panel that lets the daemon write next to a
//   chosen file must therefore grant the folder the user chose, not just the file.
// Within those grants a path need not exist yet (the daemon may be asked to create it).
//
// A process that is not sandboxed may issue a token for any existing path that it can itself
// access in that class (readable; readable and writable for read-write): a token never gives the
// daemon more than the issuing process already has.
#pragma once

#include <QVariantMap>
#include <string>
#include <vector>

namespace platform::sandbox {

inline constexpr const char* kAppSandboxEntitlement = "com.vantor.security.app-sandbox";
inline constexpr const char* kUserSelectedReadWriteEntitlement =
    "com.vantor.security.files.user-selected.read-write";
inline constexpr const char* kHomeRelativeReadWriteEntitlement =
    "com.vantor.security.temporary-exception.files.home-relative-path.read-write";
inline constexpr const char* kMachLookupGlobalNameEntitlement =
    "com.vantor.security.temporary-exception.mach-lookup.global-name";
inline constexpr const char* kCanSetupBroadcastEntitlement =
    "com.vantor.private.lumaro.can-setup-broadcast";
inline constexpr const char* kEntitlementsFileName = "Entitlements.json";

// This process's entitlements: the main bundle's Entitlements.json, read on first use.
QVariantMap entitlements();
// Reads an entitlements file; empty, with one error line, when it is missing or malformed.
QVariantMap entitlementsFromFile(const QString& path);
// Replaces this process's entitlements (tests); resetEntitlementsForTesting() reads the file again
// on next use.
void setEntitlementsForTesting(const QVariantMap& values);
void resetEntitlementsForTesting();

// True when the entitlement is the boolean true (a string "true" or a number is not).
bool hasBooleanEntitlement(const QVariantMap& values, const char* key);
bool isSandboxed();

// Records that the user selected `path` (a file or a folder) in an open or save panel. The path is
// canonicalised now; false when it cannot be (relative, too long, a symlink loop...).
bool grantUserSelectedPath(const std::string& path);
void clearUserSelectedPathsForTesting();

// One place this process may grant: `root` (canonical) and everything inside it.
struct PathGrant {
    std::string root;
    bool readWrite = false;
};
// What the entitlements cover right now (empty when not sandboxed: see above).
std::vector<PathGrant> currentPathGrants();

}  // namespace platform::sandbox
