// The per-user key that signs sandbox tokens: 32 random bytes in a file of mode 0600 in the
// user's runtime folder, "$XDG_RUNTIME_DIR/lumaro/", or "/tmp/lumaro-<uid>/" when there is no
// runtime directory. The folder is made with mode 0700 and must be a real folder (not a symlink)
// owned by the user and writable by no one else; otherwise no key is used.
#pragma once

#include <QByteArray>
#include <QString>

namespace platform::sandbox {

inline constexpr int kTokenKeySize = 32;

// The folder and the file, as they are named now (the environment is read on every call).
QString tokenKeyDirectory();
QString tokenKeyPath();

// The key, created first when `create` and there is none yet. Creation is atomic: the bytes are
// written to a private file (O_CREAT|O_EXCL) that is then linked into place, so a reader never
// sees a partial key and, when two processes race, both end with the one that was linked first.
// A key file of the wrong size or mode is not used (it is replaced when `create`). Empty when no
// key can be had; `*errorText` then says why.
QByteArray loadTokenKey(bool create, QString* errorText = nullptr);

}  // namespace platform::sandbox
