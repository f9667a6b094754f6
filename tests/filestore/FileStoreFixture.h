// A throw-away home folder (and desktop data folders) per test, a fixed clock when asked for,
// the real file manager restored afterwards, and the log captured.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QLocale>
#include <cstdlib>
#include <optional>

#include "filestore/LMFileManagerExtensions.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/log/os_log.h"
#include "tests/support/TempDir.h"

namespace lumaro::test {

class FileStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        saveAndSet("HOME", home_.path());
        saveAndSet("XDG_DATA_HOME", home_.file(QStringLiteral("data")));
        saveAndSet("XDG_DATA_DIRS", home_.file(QStringLiteral("system-data")));
        savedTypes_ = platform::log::enabledTypes();
        platform::log::setEnabledTypes(platform::log::kDefaultTypeBit |
                                       platform::log::kErrorTypeBit);
        fm_ = NSFileManager::defaultManager();
        workDir_ = LMExtensions::_srTempPath(*fm_);
    }

    void TearDown() override {
        NSDate::setClockForTesting({});
        NSFileManager::setDefaultManagerForTesting({});
        QLocale::setDefault(QLocale::system());
        platform::log::setEnabledTypes(savedTypes_);
        for (const auto& [name, value] : saved_) {
            if (value) {
                qputenv(name.constData(), *value);
            } else {
                qunsetenv(name.constData());
            }
        }
    }

    // The parent a desktop session provides, and the working directory in it.
    void makeWorkDir() const { ASSERT_TRUE(QDir().mkpath(workDir_)); }

    // A file of `bytes` bytes in the working directory; its path.
    QString writeEntry(const QString& name, qint64 bytes) const {
        return home_.write(QStringLiteral("Library/Application Support/com.vantor.lumarod/") + name,
                           bytes);
    }

    QString entry(const QString& name) const { return workDir_ + QLatin1Char('/') + name; }

    static bool exists(const QString& path) {
        struct stat st {};
        return ::lstat(QFile::encodeName(path).constData(), &st) == 0;
    }

    static void fixClock(const QDateTime& now) {
        NSDate::setClockForTesting([now] { return now; });
    }

    TempDir home_;
    std::shared_ptr<NSFileManager> fm_;
    QString workDir_;
    platform::log::LogCapture log_;

private:
    void saveAndSet(const char* name, const QString& value) {
        saved_.emplace_back(QByteArray(name), qEnvironmentVariableIsSet(name)
                                                  ? std::optional<QByteArray>(qgetenv(name))
                                                  : std::nullopt);
        qputenv(name, QFile::encodeName(value));
    }

    std::vector<std::pair<QByteArray, std::optional<QByteArray>>> saved_;
    uint32_t savedTypes_ = 0;
};

// A file-system view that reports chosen numbers for the working directory: its entry size and
// the file system's free space. Everything else is the real file system.
class FixedSpaceFileManager : public NSFileManager {
public:
    FixedSpaceFileManager(uint64_t directorySize, std::optional<uint64_t> freeSpace)
        : directorySize_(directorySize), freeSpace_(freeSpace) {}

    QVariantMap attributesOfItemAtPath(const QString& path, NSErrorPtr* error) override {
        QVariantMap attributes = NSFileManager::attributesOfItemAtPath(path, error);
        if (path == LMExtensions::_srTempPath(*this)) {
            attributes.insert(NSFileSize, static_cast<qulonglong>(directorySize_));
        }
        return attributes;
    }

    QVariantMap attributesOfFileSystemForPath(const QString& path, NSErrorPtr* error) override {
        if (!freeSpace_) {
            if (error != nullptr) {
                *error = NSError::errorWithDomain(NSCocoaErrorDomain, NSFileReadUnknownError);
            }
            return {};
        }
        return {{NSFileSystemSize, static_cast<qulonglong>(*freeSpace_) * 2},
                {NSFileSystemFreeSize, static_cast<qulonglong>(*freeSpace_)}};
    }

private:
    uint64_t directorySize_;
    std::optional<uint64_t> freeSpace_;
};

}  // namespace lumaro::test
