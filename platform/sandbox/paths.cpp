#include "platform/sandbox/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <vector>

namespace platform::sandbox {
namespace {

constexpr int kMaxSymlinkHops = 40;  // as the kernel allows

// Pushes the components of `path` so that the first one is popped first.
void pushComponents(std::vector<std::string>& pending, std::string_view path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        if (end > start) {
            parts.emplace_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    pending.insert(pending.end(), parts.rbegin(), parts.rend());
}

std::optional<std::string> fail(int* error, int code) {
    if (error != nullptr) {
        *error = code;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> canonicalPath(std::string_view path, int* error) {
    if (path.empty() || path.front() != '/') {
        return fail(error, EINVAL);
    }
    if (path.size() >= PATH_MAX) {
        return fail(error, ENAMETOOLONG);
    }
    std::vector<std::string> pending;
    pushComponents(pending, path);
    std::string resolved;  // canonical so far; empty stands for "/"
    bool atNonDirectory = false;
    int hops = 0;
    while (!pending.empty()) {
        const std::string component = std::move(pending.back());
        pending.pop_back();
        if (component == ".") {
            continue;
        }
        if (atNonDirectory) {
            return fail(error, ENOTDIR);
        }
        if (component == "..") {
            // `resolved` holds no symlink, so its lexical parent is its real parent.
            resolved.erase(resolved.empty() ? 0 : resolved.rfind('/'));
            continue;
        }
        if (component.size() > NAME_MAX) {
            return fail(error, ENAMETOOLONG);
        }
        std::string candidate = resolved + '/' + component;
        if (candidate.size() >= PATH_MAX) {
            return fail(error, ENAMETOOLONG);
        }
        struct stat st {};
        if (::lstat(candidate.c_str(), &st) != 0) {
            if (errno != ENOENT) {
                return fail(error, errno);
            }
            resolved = std::move(candidate);  // does not exist: nothing below it can be a link
            continue;
        }
        if (S_ISLNK(st.st_mode)) {
            if (++hops > kMaxSymlinkHops) {
                return fail(error, ELOOP);
            }
            char target[PATH_MAX];
            const ssize_t length = ::readlink(candidate.c_str(), target, sizeof target);
            if (length <= 0 || length >= static_cast<ssize_t>(sizeof target)) {
                return fail(error, length < 0 ? errno : ENAMETOOLONG);
            }
            const std::string_view link(target, static_cast<size_t>(length));
            if (link.front() == '/') {
                resolved.clear();
            }
            pushComponents(pending, link);
            continue;
        }
        resolved = std::move(candidate);
        atNonDirectory = !S_ISDIR(st.st_mode);
    }
    return resolved.empty() ? std::string("/") : resolved;
}

bool isWithin(std::string_view path, std::string_view root) {
    if (root == "/") {
        return !path.empty() && path.front() == '/';
    }
    if (path.size() < root.size() || path.substr(0, root.size()) != root) {
        return false;
    }
    return path.size() == root.size() || path[root.size()] == '/';
}

}  // namespace platform::sandbox
