// A fresh temporary folder per test, removed with everything in it afterwards.
#pragma once

#include <QString>

namespace lumaro::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const QString& path() const { return path_; }
    QString file(const QString& name) const { return path_ + QLatin1Char('/') + name; }

    // Writes `bytes` bytes to `name` (creating parents) and answers its path.
    QString write(const QString& name, qint64 bytes = 0, const QByteArray& content = {}) const;

private:
    QString path_;
};

}  // namespace lumaro::test
