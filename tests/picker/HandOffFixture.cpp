#include "tests/picker/HandOffFixture.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include "tests/platform/xpc/TestBus.h"

namespace lumaro::test {

InstalledService::InstalledService(const QString& identifier, int platform,
                                   const QString& containingClass, const QString& executable)
    : previousPath_(qgetenv("LUMARO_EXTENSIONS_PATH")) {
    const QJsonObject manifest{
        {"identifier", identifier},
        {"NSExtension",
         QJsonObject{{"NSExtensionPointIdentifier", "com.vantor.broadcast-services-setupui"},
                     {"NSExtensionActivationRule", "TRUEPREDICATE"},
                     {"NSExtensionContainingViewControllerClass", containingClass},
                     {"NSExtensionPrincipalClass", "ExampleSetupViewController"}}},
        {"infoDictionary", QJsonObject{{"CFBundleDisplayName", "Example Live"}}},
        {"platform", platform},
        {"containingApplication", sourcePath("share/lumaro/apps/northwind-live")},
        {"executable", executable.isEmpty()
                           ? buildPath("programs/example-setup-ui/example-setup-ui")
                           : executable},
    };
    QFile file(dir_.file(identifier + ".json"));
    if (file.open(QIODevice::WriteOnly)) {
        file.write(QJsonDocument(manifest).toJson());
    }
    file.close();
    qputenv("LUMARO_EXTENSIONS_PATH", dir_.path().toLocal8Bit());
    NSErrorPtr error;
    extension_ = NSExtension::extensionWithIdentifier(identifier, &error);
}

InstalledService::~InstalledService() {
    qputenv("LUMARO_EXTENSIONS_PATH", previousPath_);
}

}  // namespace lumaro::test
