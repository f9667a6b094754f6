// Extension manifests as the registry reads them from a search folder: one file's bytes are
// checked against the manifest schema and, when valid, made into an extension record. The two
// readers must agree on what is valid. The same document is then taken as a schema of its own,
// so that the validator's reading of schemas is exercised too.
#include <QJsonDocument>
#include <cstddef>
#include <cstdint>

#include "fuzz/FuzzSupport.h"
#include "platform/extension/JSONSchema.h"
#include "platform/extension/NSExtensionManifest.h"

using namespace platform::extension;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    lumaro::fuzz::setUpProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > static_cast<size_t>(kMaxManifestSize)) {
        return 0;  // refused unread
    }
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const QStringList problems = validateManifestData(bytes);
    QString problem;
    const NSExtensionPtr extension =
        extensionFromManifestData(bytes, QStringLiteral("/fuzz/extensions/fuzz.json"), &problem);
    if (problems.isEmpty() != (extension != nullptr) ||
        (extension == nullptr && problem != problems.first())) {
        abort();  // the validator and the reader disagree
    }
    if (extension != nullptr) {
        (void)extension->description();
        (void)extension->infoDictionary().value(kCFBundleDisplayNameKey).toString();
    }
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (document.isObject()) {
        (void)validateAgainstSchema(document.object(), document.object());
        (void)validateAgainstSchema(manifestSchema(), document.object());
    }
    return 0;
}
