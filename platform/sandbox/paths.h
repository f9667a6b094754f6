// Canonical paths and containment by path components, the two checks every grant rests on.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform::sandbox {

// `path` with every symlink, ".", ".." and repeated or trailing slash resolved, walking it one
// component at a time from the root. Components that do not exist are kept as written (a ".."
// after one goes back up lexically, which is exact there since nothing below it exists). Empty,
// with `*error` set to an errno value, when the path is empty or relative (EINVAL), too long
// (ENAMETOOLONG), runs through a non-directory (ENOTDIR), loops (ELOOP) or cannot be looked at
// (EACCES and the like).
std::optional<std::string> canonicalPath(std::string_view path, int* error = nullptr);

// True when `path` is `root` or inside it, compared by whole components ("/a/bc" is not inside
// "/a/b"). Both must be canonical.
bool isWithin(std::string_view path, std::string_view root);

}  // namespace platform::sandbox
