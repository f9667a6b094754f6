#include "platform/extension/UTType.h"

#include <QHash>

namespace {

// Each type with the types it declares conformance to. public.item and public.content are the
// roots: everything physical is an item, everything a user would call a document is content.
const QHash<QString, QStringList>& table() {
    static const QHash<QString, QStringList> types{
        {kUTTypeData, {kUTTypeItem}},      {kUTTypeText, {kUTTypeData, kUTTypeContent}},
        {kUTTypePlainText, {kUTTypeText}}, {kUTTypeUTF8PlainText, {kUTTypePlainText}},
        {kUTTypeJSON, {kUTTypeText}},      {kUTTypeImage, {kUTTypeData, kUTTypeContent}},
        {kUTTypePNG, {kUTTypeImage}},      {kUTTypeTIFF, {kUTTypeImage}},
        {kUTTypeURL, {kUTTypeData}},       {kUTTypeFileURL, {kUTTypeURL}},
    };
    return types;
}

}  // namespace

QStringList UTTypeParents(const QString& type) {
    return table().value(type);
}

bool UTTypeConformsTo(const QString& type, const QString& conformsToType) {
    if (type.isEmpty() || conformsToType.isEmpty()) {
        return false;
    }
    if (type == conformsToType) {
        return true;
    }
    // The table is a small acyclic graph; a plain depth-first walk is enough.
    for (const QString& parent : UTTypeParents(type)) {
        if (UTTypeConformsTo(parent, conformsToType)) {
            return true;
        }
    }
    return false;
}
