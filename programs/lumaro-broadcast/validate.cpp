// lumaro-broadcast validate: checks extension manifests against the manifest schema.
#include <QFileInfo>
#include <QHash>

#include "platform/extension/NSExtensionManifest.h"
#include "programs/lumaro-broadcast/Command.h"

namespace {

int runValidate(const QStringList& args, QTextStream& out, QTextStream& err) {
    if (args.isEmpty()) {
        err << "lumaro-broadcast validate: no manifest given (see lumaro-broadcast validate "
               "--help)\n";
        return kExitUsage;
    }
    int invalid = 0;
    QHash<QString, QString> identifiers;  // identifier -> first manifest that declared it
    for (const QString& path : args) {
        QByteArray bytes;
        QString problem;
        QStringList problems;
        if (!platform::extension::readManifestFile(path, &bytes, &problem)) {
            problems << problem;
        } else {
            problems = platform::extension::validateManifestData(bytes);
        }
        if (problems.isEmpty()) {
            const NSExtensionPtr extension =
                platform::extension::extensionFromManifestData(bytes, path, &problem);
            const QString identifier = extension ? extension->identifier() : QString();
            if (identifiers.contains(identifier)) {
                problems << QStringLiteral("duplicate identifier %1 (also declared by %2)")
                                .arg(identifier, identifiers.value(identifier));
            } else {
                identifiers.insert(identifier, path);
            }
        }
        for (const QString& line : problems) {
            out << path << ": " << line << "\n";
        }
        if (problems.isEmpty()) {
            out << path << ": valid\n";
        } else {
            ++invalid;
        }
    }
    out.flush();
    if (invalid > 0) {
        err << "lumaro-broadcast validate: " << invalid << " of " << args.size()
            << " manifests are invalid\n";
        return kExitFailure;
    }
    return kExitOK;
}

const Command kValidate{
    "validate", "check extension manifests against the manifest schema",
    "Usage: lumaro-broadcast validate FILE...\n\n"
    "Checks each manifest against the extension manifest schema (manifest.schema.json) and\n"
    "prints \"FILE: valid\" or one line per problem, \"FILE: /pointer: problem\". Exits with\n"
    "status 1 when any manifest is invalid, 2 on a usage error.\n",
    runValidate};

}  // namespace
