// Manifests written into temporary extension folders.
#pragma once

#include <QJsonObject>
#include <QString>
#include <vector>

#include "platform/extension/NSExtension.h"
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

// The identifiers of `extensions`, in order.
QStringList identifiersOf(const std::vector<NSExtensionPtr>& extensions);

}  // namespace lumaro::test
