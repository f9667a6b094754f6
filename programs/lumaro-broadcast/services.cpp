// lumaro-broadcast services: the broadcast setup-UI services, found by the same query the picker
// makes (every extension of the setup-UI point, native and built for Prism, in registry order).
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <future>

#include "discovery/LMExtensions.h"
#include "programs/lumaro-broadcast/Command.h"

namespace {

const QString kSetupUIPoint = QStringLiteral("com.vantor.broadcast-services-setupui");

QString platformName(int64_t platform) {
    switch (platform) {
        case kExtensionPlatformNative:
            return QStringLiteral("native");
        case kExtensionPlatformPrism:
            return QStringLiteral("prism");
        default:
            return QString::number(platform);
    }
}

int runServices(const QStringList& args, QTextStream& out, QTextStream& err) {
    bool json = false;
    for (const QString& arg : args) {
        if (arg == QLatin1String("--json")) {
            json = true;
        } else {
            err << "lumaro-broadcast services: unknown argument \"" << arg << "\"\n";
            return kExitUsage;
        }
    }
    std::promise<std::pair<std::vector<NSExtensionPtr>, NSErrorPtr>> answer;
    LMExtensions::extensionsWithMatchingPointName(
        kSetupUIPoint, [&answer](std::vector<NSExtensionPtr> extensions, NSErrorPtr error) {
            answer.set_value({std::move(extensions), std::move(error)});
        });
    auto [extensions, error] = answer.get_future().get();

    if (json) {
        QJsonArray list;
        for (const NSExtensionPtr& extension : extensions) {
            const auto& plugIn = extension->_plugIn();
            list.append(QJsonObject{
                {"identifier", extension->identifier()},
                {"displayName", QJsonValue::fromVariant(
                                    extension->infoDictionary().value(kCFBundleDisplayNameKey))},
                {"platform", static_cast<qint64>(plugIn->platform())},
                {"containingApplication", plugIn->containingUrl().toLocalFile()},
                {"executable", plugIn->executableUrl().toLocalFile()},
                {"manifest", plugIn->manifestPath()},
            });
        }
        out << QJsonDocument(list).toJson(QJsonDocument::Indented);
    } else if (extensions.empty()) {
        out << "No broadcast services are installed.\n";
    } else {
        for (const NSExtensionPtr& extension : extensions) {
            const auto& plugIn = extension->_plugIn();
            const QVariant name = extension->infoDictionary().value(kCFBundleDisplayNameKey);
            out << extension->identifier() << "\t"
                << (name.isValid() ? name.toString() : QStringLiteral("(no display name)")) << "\t"
                << platformName(plugIn->platform()) << " (" << plugIn->platform() << ")\t"
                << plugIn->containingUrl().toLocalFile() << "\n";
        }
    }
    out.flush();
    if (error) {
        err << "lumaro-broadcast services: " << error->localizedDescription() << "\n";
        return kExitFailure;
    }
    return kExitOK;
}

const Command kServices{
    "services", "list the installed broadcast services as the picker offers them",
    "Usage: lumaro-broadcast services [--json]\n\n"
    "Lists the broadcast setup-UI services the picker would offer, in its order: identifier,\n"
    "display name, platform (native 1 or prism 6) and containing application, tab-separated.\n"
    "Manifests that cannot be used are reported on standard error and left out.\n\n"
    "  --json   print a JSON array of {identifier, displayName, platform,\n"
    "           containingApplication, executable, manifest} instead\n",
    runServices};

}  // namespace
