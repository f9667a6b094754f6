#include "tests/picker/HandOffFixture.h"

#include "tests/support/TestBus.h"

namespace lumaro::test {

InstalledService::InstalledService(const QString& identifier, int platform,
                                   const QString& containingClass, const QString& executable) {
    QJsonObject object = manifest(identifier, QStringLiteral("TRUEPREDICATE"),
                                  QStringLiteral("com.vantor.broadcast-services-setupui"), platform,
                                  QStringLiteral("Example Live"));
    QJsonObject attributes = object.value("NSExtension").toObject();
    attributes.insert("NSExtensionContainingViewControllerClass", containingClass);
    attributes.insert("NSExtensionPrincipalClass", "ExampleSetupViewController");
    object.insert("NSExtension", attributes);
    object.insert("containingApplication", sourcePath("share/lumaro/apps/northwind-live"));
    object.insert("executable", executable.isEmpty()
                                    ? buildPath("programs/example-setup-ui/example-setup-ui")
                                    : executable);
    writeManifest(dir_, identifier + ".json", object);
    NSErrorPtr error;
    extension_ = NSExtension::extensionWithIdentifier(identifier, &error);
}

}  // namespace lumaro::test
