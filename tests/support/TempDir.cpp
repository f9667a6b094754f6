#include "tests/support/TempDir.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cstdlib>
#include <filesystem>

namespace lumaro::test {

TempDir::TempDir() {
    QByteArray pattern = QDir::tempPath().toUtf8() + "/lumaro-test-XXXXXX";
    const char* made = ::mkdtemp(pattern.data());
    path_ = made != nullptr ? QString::fromUtf8(made) : QString();
}

TempDir::~TempDir() {
    if (path_.isEmpty()) {
        return;
    }
    // Restore permissions that a test may have taken away, then remove everything.
    namespace fs = std::filesystem;
    const fs::path root = path_.toStdString();
    std::error_code ec;
    fs::permissions(root, fs::perms::owner_all, fs::perm_options::add, ec);
    for (auto it = fs::recursive_directory_iterator(
             root, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::end(it); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) {
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
        }
    }
    fs::remove_all(root, ec);
}

QString TempDir::write(const QString& name, qint64 bytes, const QByteArray& content) const {
    const QString full = file(name);
    QDir().mkpath(QFileInfo(full).absolutePath());
    QFile f(full);
    if (f.open(QIODevice::WriteOnly)) {
        if (!content.isEmpty()) {
            f.write(content);
        } else if (bytes > 0) {
            f.write(QByteArray(static_cast<int>(bytes), 'x'));
        }
    }
    return full;
}

}  // namespace lumaro::test
