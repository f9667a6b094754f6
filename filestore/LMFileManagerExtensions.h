// The recording file store: the per-user working directory for recordings, the names of new
// recording files, clean-up by age or name prefix, single-file moves and removals, and the
// free-space checks made before and during a recording.
//
// These are the file manager's LMExtensions operations: each function takes the receiving file
// manager as its first argument. Which manager does the work matters and is kept as designed:
//  - the working directory listing, its size, the file system's free space and creation dates
//    always come from NSFileManager::defaultManager(), whatever the receiver;
//  - existence tests, per-entry attributes, removals, creation and moves go through the receiver.
//
// The asynchronous operations take the receiver as a shared pointer and hold it until their work
// and completion have run, so a caller may drop its own reference at once. They run on the global
// queues (background priority for a single removal, default priority for moves and prefix
// deletion) and call their completions there, never on the main queue. Nothing is locked: two
// operations on the same files simply see each other's files vanish.
//
// Every message goes to the default log at its type, whatever __LMLogLevel says; the "error ="
// and "error:" lines go through NSLog and are always written.
#pragma once

#include <QDateTime>
#include <QString>
#include <QUrl>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileManager.h"

namespace LMExtensions {

using LMFileCompletion = std::function<void(NSErrorPtr error)>;

// Recording kinds of outputPath(); any other value is a recording of one app.
inline constexpr int32_t kLMRecordingKindClip = 1;
inline constexpr int32_t kLMRecordingKindScreen = 2;

// Free space needed to start a recording: more than this many bytes.
inline constexpr uint64_t kLMMinimumFreeSpaceForRecording = 100'000'000;
// Continuing a recording needs twice the working directory's size plus this reserve.
inline constexpr uint64_t kLMRecordingReserve = 20'000'000;
inline constexpr uint64_t kLMRecordingGrowthFactor = 2;

// --- Working directory and output paths ---

// "~/Library/Application Support/com.vantor.lumarod" with the home folder expanded (no trailing
// slash).
QString _srTempPath(NSFileManager& fm);

// Creates the working directory when nothing exists at its path. Parents are never created, and
// whatever already sits at the path (even a plain file) counts as the directory.
void _srSetupTempDirectory(NSFileManager& fm);

// Now as "MM-dd-yyyy HH-mm-ss" in the default locale and the local time zone.
QString dateSuffix(NSFileManager& fm);

// The path for a new recording of `kind`; `bundleID` names the app of an app recording and is
// ignored for clips and screen recordings. Nothing is created; calls within one second agree.
QString outputPath(NSFileManager& fm, int32_t kind, const QString& bundleID);

// The one trimmed-copy path of an app's recording (no date in it).
QString trimmedOutputPath(NSFileManager& fm, const QString& bundleID);

// --- Clean-up and free space ---

// The size of the working directory's own entry (not of the files inside); 0 when unreadable,
// with `error` (may be null) filled.
int64_t _srSizeOfTempDir(NSFileManager& fm, NSErrorPtr* error);

// Deletes every entry of the working directory, subdirectories included; answers the bytes
// deleted as _srDeleteFilesOlderThanTimeToLiveInSeconds counts them.
int64_t _srDeleteAllTempFiles(NSFileManager& fm);

// Deletes the entries of the working directory last modified more than `timeToLive` seconds ago
// (every entry when it is 0.0; none when it is not a number), not recursing, never following a
// symbolic link. Answers the bytes deleted. One error variable serves the whole walk: once an
// error is met, it is reported again after every later step and no further size is counted.
// The directory is listed once and kept open: each entry is read and removed by its name in it,
// and the walk's log lines are written together where the log's sink allows.
int64_t _srDeleteFilesOlderThanTimeToLiveInSeconds(NSFileManager& fm, double timeToLive);

// Removes the file at `url` on the background queue when it exists; `completion` (may be empty)
// gets the removal's error, or nil when the file was missing or removed.
void _srRemoveFile(const std::shared_ptr<NSFileManager>& fm, const QUrl& url,
                   LMFileCompletion completion);

// On the default queue, replaces whatever is at `toURL` with the file at `from`; `completion`
// (may be empty) gets the move's error or nil.
void _srMoveFileFromURL(const std::shared_ptr<NSFileManager>& fm, const QUrl& from,
                        const QUrl& toURL, LMFileCompletion completion);

// On the default queue, removes every entry of the working directory whose name begins with
// `prefix`, ignoring case and diacritics ("clip" matches "ClipRecording_...", "cafe" matches
// "Café..."). An empty prefix matches nothing. Nobody is told the outcome.
void _srDeleteFilesWithPrefix(const std::shared_ptr<NSFileManager>& fm, const QString& prefix);

// The file's creation date (its birth time where the file system keeps one), or a null date.
QDateTime _srGetCreationDateForFile(NSFileManager& fm, const QUrl& url);

// Free bytes on the working directory's file system; 0 when it cannot be read.
uint64_t _srDeviceFreeDiskSpace(NSFileManager& fm);

// Free space of at least 100,000,001 bytes.
bool _srDeviceHasSufficientFreeSpaceForRecording(NSFileManager& fm);

// 2 x the working directory's size + 20,000,000 strictly below the free space (unsigned).
bool _srDeviceHasSufficientSpaceForCurrentRecording(NSFileManager& fm);

}  // namespace LMExtensions
