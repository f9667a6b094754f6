// A throw-away home folder (with the desktop data folders inside it) per test, both log types on
// and captured; the clock, the default file manager and the locale are restored afterwards.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QLocale>

#include "filestore/LMFileManagerExtensions.h"
#include "platform/foundation/NSDate.h"
#include "platform/log/os_log.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

namespace lumaro::test {

class FileStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::log::setEnabledTypes(platform::log::kDefaultTypeBit |
                                       platform::log::kErrorTypeBit);
        workDir_ = LMExtensions::_srTempPath(*fm_);
    }

    void TearDown() override {
        NSDate::setClockForTesting({});
        NSFileManager::setDefaultManagerForTesting({});
        QLocale::setDefault(QLocale::system());
    }

    void makeWorkDir() const { ASSERT_TRUE(QDir().mkpath(workDir_)); }
    QString entry(const QString& name) const { return workDir_ + QLatin1Char('/') + name; }
    QString writeEntry(const QString& name, qint64 bytes) const {
        return home_.write(QStringLiteral("Library/Application Support/com.vantor.lumarod/") + name,
                           bytes);
    }
    static bool exists(const QString& path) {
        struct stat st {};
        return ::lstat(QFile::encodeName(path).constData(), &st) == 0;
    }
    static void fixClock(const QDateTime& now) {
        NSDate::setClockForTesting([now] { return now; });
    }

    TempDir home_;
    ScopedEnv homeEnv_{"HOME", QFile::encodeName(home_.path())};
    ScopedEnv dataEnv_{"XDG_DATA_HOME", QFile::encodeName(home_.file(QStringLiteral("data")))};
    ScopedEnv dirsEnv_{"XDG_DATA_DIRS", QFile::encodeName(home_.file("system-data"))};
    std::shared_ptr<NSFileManager> fm_ = NSFileManager::defaultManager();
    QString workDir_;
    platform::log::LogCapture log_;
};

}  // namespace lumaro::test
