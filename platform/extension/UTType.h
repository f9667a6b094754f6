// Uniform type identifiers: the type names that item providers carry, and whether one type
// conforms to another.
//
// Conformance is a small, fixed table of the types the platform itself uses; a type conforms to
// itself and, transitively, to every type its table entry names. Unknown types conform only to
// themselves.
#pragma once

#include <QString>
#include <QStringList>

inline const QString kUTTypeItem = QStringLiteral("public.item");
inline const QString kUTTypeContent = QStringLiteral("public.content");
inline const QString kUTTypeData = QStringLiteral("public.data");
inline const QString kUTTypeText = QStringLiteral("public.text");
inline const QString kUTTypePlainText = QStringLiteral("public.plain-text");
inline const QString kUTTypeUTF8PlainText = QStringLiteral("public.utf8-plain-text");
inline const QString kUTTypeJSON = QStringLiteral("public.json");
inline const QString kUTTypeImage = QStringLiteral("public.image");
inline const QString kUTTypePNG = QStringLiteral("public.png");
inline const QString kUTTypeTIFF = QStringLiteral("public.tiff");
inline const QString kUTTypeURL = QStringLiteral("public.url");
inline const QString kUTTypeFileURL = QStringLiteral("public.file-url");

// The types `type` directly declares conformance to (empty for roots and unknown types).
QStringList UTTypeParents(const QString& type);

// Whether `type` is `conformsToType` or conforms to it through the table.
bool UTTypeConformsTo(const QString& type, const QString& conformsToType);
