// Finding the extension manifests of a build tree (see NSExtensionRequest.h).
#include <QDir>
#include <QFileInfo>
#include <mutex>

#include "platform/extension/NSExtensionRegistry.h"
#include "platform/extension/NSExtensionRequest.h"

namespace platform::extension {

void useBuildTreeExtensions() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Programs of a build tree live in <build>/programs/<name>/.
        const QFileInfo self(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath());
        QDir dir = self.absoluteDir();
        if (!dir.cdUp() || dir.dirName() != QLatin1String("programs") || !dir.cdUp()) {
            return;
        }
        const QString folder = dir.absoluteFilePath(QStringLiteral("share/lumaro/extensions"));
        if (!QFileInfo::exists(folder + QStringLiteral("/.lumaro-build-tree"))) {
            return;
        }
        QStringList paths = NSExtensionRegistry::fallbackSearchPaths();
        paths.removeAll(folder);
        paths.prepend(folder);
        NSExtensionRegistry::setFallbackSearchPaths(paths);
    });
}

}  // namespace platform::extension
