// Manifests written into temporary extension folders, and a synchronous wait for queries.
#pragma once

#include <QJsonObject>
#include <QString>
#include <QVariant>
#include <vector>

#include "platform/extension/NSExtension.h"
#include "platform/extension/NSItemProvider.h"
#include "platform/extension/UTType.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

namespace lumaro::test {

inline const QString kTestPoint = QStringLiteral("com.test.point");

// A valid manifest object; `rule` is left out when invalid.
QJsonObject manifest(const QString& identifier, const QJsonValue& rule = QJsonValue::Undefined,
                     const QString& point = kTestPoint, int platform = 1,
                     const QString& displayName = QStringLiteral("Service"));

// Writes `object` as <folder>/<file> in `dir` and answers the path.
QString writeManifest(const TempDir& dir, const QString& file, const QJsonObject& object);

// Points LUMARO_EXTENSIONS_PATH at `folders` while alive.
struct ScopedSearchPath : ScopedEnv {
    explicit ScopedSearchPath(const QStringList& folders)
        : ScopedEnv("LUMARO_EXTENSIONS_PATH", folders.join(QLatin1Char(':')).toUtf8()) {}
};

// Loads `provider`'s item as `type`, running the main loop until it came (a guard, not a timing
// check); the error, if any, goes to `error`.
QVariant loadItem(const NSItemProviderPtr& provider, NSErrorPtr* error = nullptr,
                  const QString& type = kUTTypeData);

// The identifiers of `extensions`, in order.
QStringList identifiersOf(const std::vector<NSExtensionPtr>& extensions);

struct QueryResult {
    bool answered = false;
    std::vector<NSExtensionPtr> extensions;
    NSErrorPtr error;
    QStringList identifiers() const;
};

// Runs `start` with a completion and waits for that completion (a guard, not a timing check).
using QueryStart =
    std::function<void(std::function<void(std::vector<NSExtensionPtr>, NSErrorPtr)>)>;
QueryResult waitFor(const QueryStart& start);

}  // namespace lumaro::test
