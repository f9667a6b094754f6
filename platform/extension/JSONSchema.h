// A small JSON Schema validator: the subset of the vocabulary that the manifest schema uses.
//
// Understood keywords: type (a name or an array of names: object, array, string, integer,
// number, boolean, null), required, properties, additionalProperties (false or a schema), items,
// enum, minLength, maxLength, minimum, maximum. Annotations ($schema, $id, title, description,
// examples, default) are ignored; any other keyword is reported as unsupported so that a schema
// can never silently ask for more than is checked.
#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>
#include <memory>

namespace platform::extension {

// A schema read once into a tree that checks instances without looking keywords up again.
class JSONSchema {
public:
    explicit JSONSchema(const QJsonObject& schema);
    ~JSONSchema();
    JSONSchema(const JSONSchema&) = delete;
    JSONSchema& operator=(const JSONSchema&) = delete;

    // As validateAgainstSchema below.
    QStringList validate(const QJsonValue& instance) const;

    struct Node;

private:
    std::unique_ptr<Node> root_;
};

// Checks `instance` against `schema` and answers one line per problem, each starting with the
// JSON pointer of the offending value ("/" for the document itself), e.g.
// "/NSExtension: expected object, found string". An empty list means valid.
QStringList validateAgainstSchema(const QJsonValue& instance, const QJsonObject& schema);

}  // namespace platform::extension
