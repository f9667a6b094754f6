#include "filestore/LMFileManagerExtensions.h"

#include <QLocale>
#include <QStringList>
#include <cmath>
#include <limits>
#include <utility>

#include "filestore/LMLocalizedAppName.h"
#include "platform/dispatch/dispatch.h"
#include "platform/foundation/NSDate.h"
#include "platform/log/os_log.h"

namespace LMExtensions {

namespace {

// "%@" of a nil object, as the platform renders it.
QString orNil(const QString& value) {
    return value.isNull() ? QStringLiteral("(null)") : value;
}

// "%@/%@": an entry of the working directory.
QString entryPath(const QString& directory, const QString& name) {
    return directory + QLatin1Char('/') + name;
}

// The time to live as the log's "%i" shows it: truncated toward zero, saturating at the 32-bit
// limits, and 0 for a value that is not a number.
int truncatedSeconds(double seconds) {
    if (std::isnan(seconds)) {
        return 0;
    }
    if (seconds >= static_cast<double>(std::numeric_limits<int>::max())) {
        return std::numeric_limits<int>::max();
    }
    if (seconds <= static_cast<double>(std::numeric_limits<int>::min())) {
        return std::numeric_limits<int>::min();
    }
    return static_cast<int>(seconds);
}

// The age walk's error report: repeated after every step while its error variable holds an error.
void reportWalkError(const NSErrorPtr& error) {
    if (!error) {
        return;
    }
    os_log_error(OS_LOG_DEFAULT,
                 "error in _lmRemoveFile_srDeleteFilesOlderThanTimeToLiveInSeconds, error code: %i",
                 error->code());
    NSLog("error = %@", error);
}

// Decomposed, stripped of combining marks and case-folded: the form in which two names compare
// equal when they differ only in case and diacritics.
QString foldedForComparison(const QString& text) {
    const QString decomposed = text.normalized(QString::NormalizationForm_D);
    QString stripped;
    stripped.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        if (!c.isMark()) {
            stripped += c;
        }
    }
    return stripped.toCaseFolded();
}

// "self BEGINSWITH[cd] prefix". An empty prefix matches nothing.
bool nameHasPrefixIgnoringCaseAndDiacritics(const QString& name, const QString& prefix) {
    if (prefix.isEmpty()) {
        return false;
    }
    return foldedForComparison(name).startsWith(foldedForComparison(prefix));
}

}  // namespace

QString _srTempPath(NSFileManager& /*fm*/) {
    return stringByExpandingTildeInPath(
        QStringLiteral("~/Library/Application Support/com.vantor.lumarod/"));
}

void _srSetupTempDirectory(NSFileManager& fm) {
    os_log(OS_LOG_DEFAULT, "_srSetupTempDirectory");
    const QString path = _srTempPath(fm);
    if (fm.fileExistsAtPath(path)) {
        return;  // whatever is there stands for the directory
    }
    NSErrorPtr error;
    fm.createDirectoryAtPath(path, false, nullptr, &error);
    if (error) {
        NSLog("error: %@", error);
        os_log_error(OS_LOG_DEFAULT, "error creating temp directory");
    }
}

QString dateSuffix(NSFileManager& /*fm*/) {
    const QString formatted =
        QLocale().toString(NSDate::date().toLocalTime(), QStringLiteral("MM-dd-yyyy HH:mm:ss"));
    return QString(formatted).replace(QLatin1Char(':'), QLatin1Char('-'));
}

QString outputPath(NSFileManager& fm, int32_t kind, const QString& bundleID) {
    const QString suffix = dateSuffix(fm);
    const QString directory = _srTempPath(*NSFileManager::defaultManager());
    switch (kind) {
        case kLMRecordingKindClip:
            return QStringLiteral("%1/ClipRecording_%2.mp4").arg(directory, suffix);
        case kLMRecordingKindScreen:
            return QStringLiteral("%1/ScreenRecording_%2.mp4").arg(directory, suffix);
        default:
            return QStringLiteral("%1/%2_%3.mp4")
                .arg(directory, orNil(_lmLocalizedAppNameFromBundleID(bundleID)), suffix);
    }
}

QString trimmedOutputPath(NSFileManager& /*fm*/, const QString& bundleID) {
    return QStringLiteral("%1/%2_trimmed.mp4")
        .arg(_srTempPath(*NSFileManager::defaultManager()),
             orNil(_lmLocalizedAppNameFromBundleID(bundleID)));
}

int64_t _srSizeOfTempDir(NSFileManager& fm, NSErrorPtr* error) {
    const QVariantMap attributes =
        NSFileManager::defaultManager()->attributesOfItemAtPath(_srTempPath(fm), error);
    return static_cast<int64_t>(fileSize(attributes));
}

int64_t _srDeleteAllTempFiles(NSFileManager& fm) {
    return _srDeleteFilesOlderThanTimeToLiveInSeconds(fm, 0.0);
}

int64_t _srDeleteFilesOlderThanTimeToLiveInSeconds(NSFileManager& fm, double timeToLive) {
    os_log(OS_LOG_DEFAULT, "_srDeleteFilesOlderThanTimeToLiveInSeconds: %i",
           truncatedSeconds(timeToLive));
    // A line per entry: gathered into few writes where the log's sink allows it.
    const platform::log::LogBatch batch;
    NSErrorPtr error;  // one for the whole walk: once set, it stays set
    // The listing keeps the directory open: each entry is read and removed by its name in it.
    const std::unique_ptr<NSDirectory> directory =
        NSFileManager::defaultManager()->openDirectoryAtPath(_srTempPath(fm), &error);
    reportWalkError(error);

    const qint64 now = NSDate::date().toMSecsSinceEpoch();
    int64_t total = 0;
    for (const std::string& name : directory->names()) {
        NSFileItemAttributes attributes;
        // An entry that could not be read has no date and counts as age 0, size 0.
        const bool read = fm.attributesOfItemInDirectory(*directory, name, &attributes, &error);
        reportWalkError(error);
        const double age =
            read ? static_cast<double>(now - attributes.modificationMSecs) / 1000.0 : 0.0;
        // A time to live that is not a number compares false both ways and keeps everything.
        if (timeToLive == 0.0 || age > timeToLive) {
            os_log(OS_LOG_DEFAULT, "deleting old file");
            fm.removeItemInDirectory(*directory, name, &error);
            reportWalkError(error);
            if (!error) {
                total += static_cast<int64_t>(attributes.size);
            }
        }
    }
    return total;
}

void _srRemoveFile(const std::shared_ptr<NSFileManager>& fm, const QUrl& url,
                   LMFileCompletion completion) {
    dispatch_async(
        dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_BACKGROUND, 0),
        [fm, url, completion = std::move(completion)] {
            const QString path = url.toLocalFile();
            NSErrorPtr error;
            if (fm->fileExistsAtPath(path) && !fm->removeItemAtPath(path, &error) && error) {
                os_log_error(OS_LOG_DEFAULT, "_lmRemoveFile error: %i", error->code());
            }
            if (completion) {
                completion(error);
            }
        });
}

void _srMoveFileFromURL(const std::shared_ptr<NSFileManager>& fm, const QUrl& from,
                        const QUrl& toURL, LMFileCompletion completion) {
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                   [fm, from, toURL, completion = std::move(completion)] {
                       if (fm->fileExistsAtPath(toURL.toLocalFile())) {
                           fm->removeItemAtURL(toURL, nullptr);
                       }
                       NSErrorPtr error;
                       fm->moveItemAtURL(from, toURL, &error);
                       if (error) {
                           os_log_error(OS_LOG_DEFAULT, "_lmMoveFileFromURL error: %i",
                                        error->narrowedReference());
                       }
                       if (completion) {
                           completion(error);
                       }
                   });
}

void _srDeleteFilesWithPrefix(const std::shared_ptr<NSFileManager>& fm, const QString& prefix) {
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [fm, prefix] {
        const QString directory = _srTempPath(*fm);
        NSErrorPtr error;  // shared by the listing and every removal
        const QStringList names =
            NSFileManager::defaultManager()->contentsOfDirectoryAtPath(directory, &error);
        for (const QString& name : names) {
            if (!nameHasPrefixIgnoringCaseAndDiacritics(name, prefix)) {
                continue;
            }
            // Reports the error of the step before, as the reference narrowed to 32 bits.
            if (error) {
                os_log_error(OS_LOG_DEFAULT, "_lmDeleteFilesWithPrefix error: %i",
                             error->narrowedReference());
            }
            fm->removeItemAtPath(entryPath(directory, name), &error);
        }
    });
}

QDateTime _srGetCreationDateForFile(NSFileManager& /*fm*/, const QUrl& url) {
    return NSFileManager::defaultManager()
        ->attributesOfItemAtPath(url.toLocalFile(), nullptr)
        .value(NSFileCreationDate)
        .toDateTime();
}

uint64_t _srDeviceFreeDiskSpace(NSFileManager& fm) {
    return NSFileManager::defaultManager()
        ->attributesOfFileSystemForPath(_srTempPath(fm), nullptr)
        .value(NSFileSystemFreeSize)
        .toULongLong();
}

bool _srDeviceHasSufficientFreeSpaceForRecording(NSFileManager& fm) {
    return _srDeviceFreeDiskSpace(fm) >= kLMMinimumFreeSpaceForRecording + 1;
}

bool _srDeviceHasSufficientSpaceForCurrentRecording(NSFileManager& fm) {
    const auto size = static_cast<uint64_t>(_srSizeOfTempDir(fm, nullptr));
    const uint64_t freeSpace = _srDeviceFreeDiskSpace(fm);
    return kLMRecordingGrowthFactor * size + kLMRecordingReserve < freeSpace;
}

}  // namespace LMExtensions
