// Sandbox extensions: tokens that grant another process (the recording daemon) a class of access
// to one path on behalf of the process that issues them.
//
// A token is issued only for a path that the issuing process's entitlements cover (see
// entitlements.h) and is signed with a per-user key, so its holder can neither forge one nor widen
// one: the class, the canonical path and the expiry are all inside the signature. Its text is
// "v1;<class>;<hex of the canonical path>;<expiry, seconds since the epoch>;<hex HMAC-SHA256>".
// Tokens expire 24 hours after they are issued (by NSDate's clock).
//
// Paths are canonicalised before anything is decided: symlinks, ".", "..", repeated and trailing
// slashes are resolved (components that do not exist yet are taken as they are written), so none
// of them can widen a grant. Only absolute paths are accepted: a relative path is refused rather
// than resolved against the working directory, because a token must name one place for both the
// issuing and the consuming process.
#pragma once
#include <cstdint>
#include <string>

// Extension classes and flags.
extern const char* const APP_SANDBOX_READ;        // value "com.vantor.app-sandbox.read"
extern const char* const APP_SANDBOX_READ_WRITE;  // value "com.vantor.app-sandbox.read-write"
inline constexpr uint32_t SANDBOX_EXTENSION_DEFAULT = 0;

// A token granting `extension_class` on `path` (canonicalised first), or NULL when the calling
// process's entitlements do not cover that path for that class. The caller releases it with free().
// NULL also answers bad arguments (NULL, unknown class, unknown flags, empty, relative or overlong
// path) and an unusable key; errno then tells why (EINVAL, ENAMETOOLONG, EPERM for "not covered",
// ELOOP, ENOTDIR, EACCES, EIO). A refusal is not logged (the caller decides what to say); an
// unusable key (EIO) gives one error line, as it is a fault of the machine, not of the request.
char* sandbox_extension_issue_file(const char* extension_class, const char* path, uint32_t flags);

namespace platform::sandbox {

struct TokenCheck {
    bool valid = false;
    std::string extensionClass;  // when valid
    std::string path;            // canonical path the token grants, when valid
    std::string reason;  // why not, when invalid: "malformed", "bad signature", "expired", ...
};

// Verifies a token with the same per-user key (what the daemon does on consumption).
// Reasons: "malformed" (not the token format, or cut short), "unknown version", "no key" (this
// user has no key yet, so no token can be valid), "bad signature" (altered, or signed with another
// key), "unknown class", "expired". Verifying never creates the key.
TokenCheck verifyToken(const std::string& token);

// True when a valid token lets its holder use `path` for `extensionClass`: the path, canonicalised
// now, is the token's path or inside it, and the class is the token's, or read under a read-write
// token. This is how a consumer checks the path it is about to open against the token.
bool tokenGrants(const TokenCheck& check, const char* extensionClass, const std::string& path);

}  // namespace platform::sandbox
