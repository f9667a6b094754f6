#include "platform/sandbox/token_key.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QRandomGenerator>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace platform::sandbox {
namespace {

constexpr auto kKeyFileName = "sandbox-token.key";
constexpr int kAttempts = 4;

void setError(QString* errorText, const QString& text) {
    if (errorText != nullptr) {
        *errorText = text;
    }
}

QString errnoText(int code) {
    return QString::fromLocal8Bit(std::strerror(code));
}

// Makes sure `dir` is a real folder owned by this user that no one else can write to; with
// `create`, makes it (mode 0700) first when it is missing.
bool checkDirectory(const QByteArray& dir, bool create, QString* errorText) {
    if (create && ::mkdir(dir.constData(), 0700) != 0 && errno != EEXIST) {
        const int mkdirErrno = errno;
        setError(errorText, QStringLiteral("cannot create %1: %2")
                                .arg(QFile::decodeName(dir), errnoText(mkdirErrno)));
        return false;
    }
    struct stat st {};
    if (::lstat(dir.constData(), &st) != 0) {
        const int statErrno = errno;
        setError(errorText, statErrno == ENOENT
                                ? QStringLiteral("no key")
                                : QStringLiteral("cannot look at %1: %2")
                                      .arg(QFile::decodeName(dir), errnoText(statErrno)));
        return false;
    }
    if (!S_ISDIR(st.st_mode) || st.st_uid != ::geteuid() || (st.st_mode & 022) != 0) {
        setError(errorText,
                 QStringLiteral("%1 is not a private folder of this user (a link, another "
                                "owner, or writable by others)")
                     .arg(QFile::decodeName(dir)));
        return false;
    }
    return true;
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// Writes a fresh key to a private file, then links it into place (`replace` false: only when
// there is no key yet) or renames it over the old one (`replace` true).
bool makeKey(const QByteArray& dir, const QByteArray& path, bool replace, QString* errorText) {
    std::array<quint32, kTokenKeySize / sizeof(quint32)> words{};
    QRandomGenerator::system()->generate(words.begin(), words.end());
    const QByteArray key(reinterpret_cast<const char*>(words.data()), kTokenKeySize);
    const QByteArray scratch = dir + "/." + kKeyFileName + '.' + QByteArray::number(::getpid()) +
                               '.' + QByteArray::number(QRandomGenerator::system()->generate64());
    const int fd =
        ::open(scratch.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        const int openErrno = errno;
        setError(errorText, QStringLiteral("cannot create a key in %1: %2")
                                .arg(QFile::decodeName(dir), errnoText(openErrno)));
        return false;
    }
    const bool written = ::fchmod(fd, 0600) == 0 &&
                         writeAll(fd, key.constData(), static_cast<size_t>(key.size())) &&
                         ::fsync(fd) == 0;
    const int writeErrno = errno;
    ::close(fd);
    bool placed = false;
    if (written) {
        placed = replace ? ::rename(scratch.constData(), path.constData()) == 0
                         : ::link(scratch.constData(), path.constData()) == 0 || errno == EEXIST;
    }
    const int placeErrno = errno;
    ::unlink(scratch.constData());  // gone already after a rename
    if (!placed) {
        setError(errorText,
                 QStringLiteral("cannot write the key %1: %2")
                     .arg(QFile::decodeName(path), errnoText(written ? placeErrno : writeErrno)));
    }
    return placed;
}

enum class Read { Ok, Missing, Unusable, Failed };

Read readKey(const QByteArray& path, QByteArray* key, QString* errorText) {
    const int fd = ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        const int openErrno = errno;
        if (openErrno == ENOENT) {
            return Read::Missing;
        }
        setError(errorText, QStringLiteral("cannot open the key %1: %2")
                                .arg(QFile::decodeName(path), errnoText(openErrno)));
        return openErrno == ELOOP ? Read::Unusable : Read::Failed;
    }
    struct stat st {};
    Read result = Read::Unusable;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
        (st.st_mode & 077) == 0 && st.st_size == kTokenKeySize) {
        key->resize(kTokenKeySize);
        ssize_t got = 0;
        do {
            got = ::pread(fd, key->data(), kTokenKeySize, 0);
        } while (got < 0 && errno == EINTR);
        result = got == kTokenKeySize ? Read::Ok : Read::Failed;
    }
    ::close(fd);
    if (result != Read::Ok) {
        key->clear();
        setError(errorText, QStringLiteral("the key %1 is not a private file of %2 bytes")
                                .arg(QFile::decodeName(path))
                                .arg(kTokenKeySize));
    }
    return result;
}

}  // namespace

QString tokenKeyDirectory() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] == '/') {
        return QFile::decodeName(runtime) + QStringLiteral("/lumaro");
    }
    return QStringLiteral("/tmp/lumaro-%1").arg(::geteuid());
}

QString tokenKeyPath() {
    return tokenKeyDirectory() + QLatin1Char('/') + QLatin1String(kKeyFileName);
}

QByteArray loadTokenKey(bool create, QString* errorText) {
    const QByteArray dir = QFile::encodeName(tokenKeyDirectory());
    if (!checkDirectory(dir, create, errorText)) {
        return {};
    }
    const QByteArray path = dir + '/' + kKeyFileName;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        QByteArray key;
        switch (readKey(path, &key, errorText)) {
            case Read::Ok:
                return key;
            case Read::Missing:
                if (!create) {
                    setError(errorText, QStringLiteral("no key"));
                    return {};
                }
                if (!makeKey(dir, path, false, errorText)) {
                    return {};
                }
                break;  // read back whichever key won
            case Read::Unusable:
                if (!create || !makeKey(dir, path, true, errorText)) {
                    return {};
                }
                break;
            case Read::Failed:
                return {};
        }
    }
    setError(errorText, QStringLiteral("the key %1 keeps changing").arg(QFile::decodeName(path)));
    return {};
}

}  // namespace platform::sandbox
