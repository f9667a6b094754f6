#include "platform/sandbox/sandbox.h"

#include <unistd.h>

#include <QByteArray>
#include <QMessageAuthenticationCode>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "platform/foundation/NSDate.h"
#include "platform/log/os_log.h"
#include "platform/sandbox/entitlements.h"
#include "platform/sandbox/paths.h"
#include "platform/sandbox/token_key.h"

const char* const APP_SANDBOX_READ = "com.vantor.app-sandbox.read";
const char* const APP_SANDBOX_READ_WRITE = "com.vantor.app-sandbox.read-write";

namespace {

constexpr std::string_view kVersion = "v1";
constexpr qint64 kTokenLifetimeSeconds = 24 * 60 * 60;
constexpr size_t kMacHexSize = 64;
// The longest token this format can produce: a full-length path in hex and the other fields.
constexpr size_t kMaxTokenSize = 2 * PATH_MAX + 256;

// The class as one of the two known values, or empty.
std::string_view knownClass(std::string_view name) {
    if (name == APP_SANDBOX_READ) {
        return APP_SANDBOX_READ;
    }
    if (name == APP_SANDBOX_READ_WRITE) {
        return APP_SANDBOX_READ_WRITE;
    }
    return {};
}

QByteArray mac(const QByteArray& signedPart, const QByteArray& key) {
    return QMessageAuthenticationCode::hash(signedPart, key, QCryptographicHash::Sha256);
}

bool isLowerHex(std::string_view text) {
    for (const char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return text.size() % 2 == 0;
}

bool equalInConstantTime(const QByteArray& a, const QByteArray& b) {
    if (a.size() != b.size()) {
        return false;
    }
    unsigned char difference = 0;
    for (qsizetype i = 0; i < a.size(); ++i) {
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    }
    return difference == 0;
}

// Whether this process may grant `path` (canonical) in `extensionClass`; errno-style answer.
int mayGrant(std::string_view extensionClass, const std::string& path) {
    const bool readWrite = extensionClass == APP_SANDBOX_READ_WRITE;
    if (!platform::sandbox::isSandboxed()) {
        return ::access(path.c_str(), readWrite ? R_OK | W_OK : R_OK) == 0 ? 0 : errno;
    }
    for (const platform::sandbox::PathGrant& grant : platform::sandbox::currentPathGrants()) {
        if ((grant.readWrite || !readWrite) && platform::sandbox::isWithin(path, grant.root)) {
            return 0;
        }
    }
    return EPERM;
}

platform::sandbox::TokenCheck invalid(const char* reason) {
    platform::sandbox::TokenCheck check;
    check.reason = reason;
    return check;
}

}  // namespace

char* sandbox_extension_issue_file(const char* extension_class, const char* path, uint32_t flags) {
    if (extension_class == nullptr || path == nullptr || flags != SANDBOX_EXTENSION_DEFAULT) {
        errno = EINVAL;
        return nullptr;
    }
    const std::string_view cls = knownClass(extension_class);
    if (cls.empty()) {
        errno = EINVAL;
        return nullptr;
    }
    const size_t length = ::strnlen(path, PATH_MAX);
    if (length >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    int error = 0;
    const std::optional<std::string> canonical =
        platform::sandbox::canonicalPath(std::string_view(path, length), &error);
    if (!canonical) {
        errno = error;
        return nullptr;
    }
    error = mayGrant(cls, *canonical);
    if (error != 0) {
        errno = error;
        return nullptr;
    }
    QString keyError;
    const QByteArray key = platform::sandbox::loadTokenKey(true, &keyError);
    if (key.isEmpty()) {
        os_log_error(OS_LOG_DEFAULT, "sandbox: cannot issue a token: %s", keyError);
        errno = EIO;
        return nullptr;
    }
    const qint64 expiry = NSDate::date().toSecsSinceEpoch() + kTokenLifetimeSeconds;
    const QByteArray signedPart =
        QByteArray(kVersion.data(), kVersion.size()) + ';' + QByteArray(cls.data(), cls.size()) +
        ';' + QByteArray::fromStdString(*canonical).toHex() + ';' + QByteArray::number(expiry);
    const QByteArray token = signedPart + ';' + mac(signedPart, key).toHex();
    char* result = static_cast<char*>(std::malloc(static_cast<size_t>(token.size()) + 1));
    if (result == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    std::memcpy(result, token.constData(), static_cast<size_t>(token.size()) + 1);
    return result;
}

namespace platform::sandbox {

TokenCheck verifyToken(const std::string& token) {
    if (token.size() > kMaxTokenSize) {
        return invalid("malformed");
    }
    const std::string_view text(token);
    const size_t versionEnd = text.find(';');
    const std::string_view version = text.substr(0, versionEnd);
    if (version != kVersion) {
        // Anything shaped like a version tag that is not ours is a newer or older format.
        const bool looksVersioned =
            version.size() >= 2 && version.front() == 'v' &&
            version.find_first_not_of("0123456789", 1) == std::string_view::npos;
        return invalid(looksVersioned ? "unknown version" : "malformed");
    }
    std::string_view fields[5];
    size_t count = 0;
    size_t start = 0;
    while (count < 5) {
        const size_t end = text.find(';', start);
        fields[count++] = text.substr(start, end == std::string_view::npos ? end : end - start);
        if (end == std::string_view::npos) {
            break;
        }
        start = end + 1;
        if (count == 5) {
            return invalid("malformed");  // a sixth field
        }
    }
    const std::string_view hexPath = fields[2];
    const std::string_view expiryText = fields[3];
    const std::string_view hexMac = fields[4];
    if (count != 5 || fields[1].empty() || hexPath.size() < 2 || !isLowerHex(hexPath) ||
        expiryText.empty() || expiryText.size() > 18 ||
        expiryText.find_first_not_of("0123456789") != std::string_view::npos ||
        hexMac.size() != kMacHexSize || !isLowerHex(hexMac)) {
        return invalid("malformed");
    }

    const QByteArray key = loadTokenKey(false);
    if (key.isEmpty()) {
        return invalid("no key");
    }
    const size_t signedSize = static_cast<size_t>(hexMac.data() - text.data()) - 1;
    const QByteArray signedPart(text.data(), static_cast<qsizetype>(signedSize));
    const QByteArray givenMac =
        QByteArray::fromHex(QByteArray(hexMac.data(), static_cast<qsizetype>(hexMac.size())));
    if (!equalInConstantTime(mac(signedPart, key), givenMac)) {
        return invalid("bad signature");
    }
    const std::string_view cls = knownClass(fields[1]);
    if (cls.empty()) {
        return invalid("unknown class");
    }
    const QByteArray path =
        QByteArray::fromHex(QByteArray(hexPath.data(), static_cast<qsizetype>(hexPath.size())));
    if (path.front() != '/' || path.contains('\0')) {
        return invalid("malformed");
    }
    if (NSDate::date().toSecsSinceEpoch() >= std::stoll(std::string(expiryText))) {
        return invalid("expired");
    }
    TokenCheck check;
    check.valid = true;
    check.extensionClass = std::string(cls);
    check.path = path.toStdString();
    return check;
}

bool tokenGrants(const TokenCheck& check, const char* extensionClass, const std::string& path) {
    if (!check.valid || extensionClass == nullptr) {
        return false;
    }
    const std::string_view cls = knownClass(extensionClass);
    if (cls.empty() || (cls == APP_SANDBOX_READ_WRITE && check.extensionClass != cls)) {
        return false;
    }
    const std::optional<std::string> canonical = canonicalPath(path);
    return canonical && isWithin(*canonical, check.path);
}

}  // namespace platform::sandbox
