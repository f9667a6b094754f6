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
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_.toStdString(), std::filesystem::directory_options::skip_permission_denied, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) {
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
        }
    }
    std::filesystem::permissions(path_.toStdString(), std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(path_.toStdString(), ec);
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
