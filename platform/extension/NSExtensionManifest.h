// Reading one extension manifest: a JSON file checked against the manifest schema
// (manifest.schema.json) and turned into an NSExtension record.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include "platform/extension/NSExtension.h"

namespace platform::extension {

// Whether a file of a search folder is a manifest: "*.json", not hidden.
bool isManifestFileName(const char* name);

// Manifests larger than this are refused unread.
constexpr qint64 kMaxManifestSize = 1 << 20;

const char* manifestSchemaText();
const QJsonObject& manifestSchema();

// Checks a manifest's bytes: one line per problem (not JSON, schema violations); empty when
// the manifest is valid.
QStringList validateManifestData(const QByteArray& bytes);

// Reads and checks the manifest at `path`: anything but a regular file of at most
// kMaxManifestSize bytes is refused without blocking (a FIFO, a folder, a device).
QStringList validateManifestFile(const QString& path);

// The extension a valid manifest describes; an empty pointer and the first problem otherwise.
// Relative paths in the manifest are resolved against the folder of `manifestPath`.
NSExtensionPtr extensionFromManifestData(const QByteArray& bytes, const QString& manifestPath,
                                         QString* problem);

// The record of an extension from its parts, as extensionFromManifestData makes it: `info` is the
// manifest's information dictionary without its "NSExtension" entry, the paths are resolved.
NSExtensionPtr extensionRecord(const QString& identifier, const QVariantMap& attributes,
                               QVariantMap info, const QString& containingPath,
                               const QString& executablePath, int64_t platform,
                               const QString& manifestPath);

// Reads a manifest file with the same refusals as validateManifestFile. Answers false and a
// reason when the file cannot be read.
bool readManifestFile(const QString& path, QByteArray* bytes, QString* problem);

}  // namespace platform::extension
