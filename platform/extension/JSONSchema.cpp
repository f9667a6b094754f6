#include "platform/extension/JSONSchema.h"

#include <QHash>
#include <QJsonArray>
#include <QSet>
#include <cmath>
#include <map>

namespace platform::extension {
namespace {

QString typeName(const QJsonValue& value) {
    switch (value.type()) {
        case QJsonValue::Object:
            return QStringLiteral("object");
        case QJsonValue::Array:
            return QStringLiteral("array");
        case QJsonValue::String:
            return QStringLiteral("string");
        case QJsonValue::Bool:
            return QStringLiteral("boolean");
        case QJsonValue::Null:
            return QStringLiteral("null");
        case QJsonValue::Double: {
            const double d = value.toDouble();
            return std::trunc(d) == d && std::fabs(d) < 9.0e15 ? QStringLiteral("integer")
                                                               : QStringLiteral("number");
        }
        case QJsonValue::Undefined:
            break;
    }
    return QStringLiteral("undefined");
}

bool hasType(const QJsonValue& value, const QString& wanted) {
    const QString actual = typeName(value);
    return actual == wanted || (wanted == QLatin1String("number") && actual == "integer");
}

QString pointer(const QString& base, const QString& token) {
    QString escaped = token;
    escaped.replace(QLatin1Char('~'), QLatin1String("~0")).replace(QLatin1Char('/'), "~1");
    return (base == QLatin1String("/") ? QString() : base) + QLatin1Char('/') + escaped;
}

QString shown(const QJsonValue& value) {
    if (value.isString()) {
        return QLatin1Char('"') + value.toString() + QLatin1Char('"');
    }
    if (value.isDouble()) {
        return QString::number(value.toDouble());
    }
    return typeName(value);
}

const QSet<QString>& knownKeywords() {
    static const QSet<QString> keywords{
        "$schema",  "$id",      "title",      "description",
        "examples", "default",  // annotations
        "type",     "required", "properties", "additionalProperties",
        "items",    "enum",     "minLength",  "maxLength",
        "minimum",  "maximum"};
    return keywords;
}

// Where a value sits, built only when a problem is reported.
struct Path {
    const Path* parent;
    QString token;
    QString render() const {
        return parent == nullptr ? QStringLiteral("/") : pointer(parent->render(), token);
    }
};

}  // namespace

struct JSONSchema::Node {
    QStringList types;  // empty: any type
    QStringList unsupported;
    QStringList required;
    std::map<QString, std::unique_ptr<Node>> properties;
    bool additionalAllowed = true;
    std::unique_ptr<Node> additional;
    std::unique_ptr<Node> items;
    bool hasEnum = false;
    QJsonArray enumValues;
    qint64 minLength = -1;
    qint64 maxLength = -1;
    QJsonValue minimum;
    QJsonValue maximum;

    explicit Node(const QJsonObject& schema) {
        for (auto it = schema.begin(); it != schema.end(); ++it) {
            if (!knownKeywords().contains(it.key())) {
                unsupported << it.key();
            }
        }
        const QJsonValue type = schema.value("type");
        if (type.isArray()) {
            for (const QJsonValue& t : type.toArray()) {
                types << t.toString();
            }
        } else if (type.isString()) {
            types << type.toString();
        }
        for (const QJsonValue& name : schema.value("required").toArray()) {
            required << name.toString();
        }
        const QJsonObject props = schema.value("properties").toObject();
        for (auto it = props.begin(); it != props.end(); ++it) {
            properties.emplace(it.key(), std::make_unique<Node>(it.value().toObject()));
        }
        const QJsonValue extra = schema.value("additionalProperties");
        additionalAllowed = !(extra.isBool() && !extra.toBool());
        if (extra.isObject()) {
            additional = std::make_unique<Node>(extra.toObject());
        }
        if (schema.value("items").isObject()) {
            items = std::make_unique<Node>(schema.value("items").toObject());
        }
        hasEnum = schema.contains("enum");
        enumValues = schema.value("enum").toArray();
        minLength = schema.contains("minLength") ? schema.value("minLength").toInteger() : -1;
        maxLength = schema.contains("maxLength") ? schema.value("maxLength").toInteger() : -1;
        minimum = schema.value("minimum");
        maximum = schema.value("maximum");
    }

    void check(const QJsonValue& value, const Path& path, QStringList& problems) const {
        for (const QString& keyword : unsupported) {
            problems << QStringLiteral("%1: the schema uses the unsupported keyword \"%2\"")
                            .arg(path.render(), keyword);
        }
        if (!types.isEmpty()) {
            bool matched = false;
            for (const QString& wanted : types) {
                matched = matched || hasType(value, wanted);
            }
            if (!matched) {
                problems << QStringLiteral("%1: expected %2, found %3")
                                .arg(path.render(), types.join(QStringLiteral(" or ")),
                                     typeName(value));
                return;  // the other keywords would only repeat the same fault
            }
        }
        if (hasEnum && !enumValues.contains(value)) {
            QStringList allowed;
            for (const QJsonValue& v : enumValues) {
                allowed << shown(v);
            }
            problems << QStringLiteral("%1: %2 is not one of %3")
                            .arg(path.render(), shown(value), allowed.join(QStringLiteral(", ")));
        }
        if (value.isString()) {
            const qsizetype length = value.toString().size();
            if (minLength >= 0 && length < minLength) {
                problems << (length == 0
                                 ? QStringLiteral("%1: must not be empty").arg(path.render())
                                 : QStringLiteral("%1: shorter than %2 characters")
                                       .arg(path.render())
                                       .arg(minLength));
            }
            if (maxLength >= 0 && length > maxLength) {
                problems << QStringLiteral("%1: longer than %2 characters")
                                .arg(path.render())
                                .arg(maxLength);
            }
        }
        if (value.isDouble()) {
            const double d = value.toDouble();
            if (minimum.isDouble() && d < minimum.toDouble()) {
                problems << QStringLiteral("%1: %2 is below the minimum %3")
                                .arg(path.render(), shown(value), shown(minimum));
            }
            if (maximum.isDouble() && d > maximum.toDouble()) {
                problems << QStringLiteral("%1: %2 is above the maximum %3")
                                .arg(path.render(), shown(value), shown(maximum));
            }
        }
        if (value.isObject()) {
            const QJsonObject object = value.toObject();
            for (const QString& name : required) {
                if (!object.contains(name)) {
                    problems << QStringLiteral("%1: the required field \"%2\" is missing")
                                    .arg(path.render(), name);
                }
            }
            for (auto it = object.begin(); it != object.end(); ++it) {
                const auto property = properties.find(it.key());
                if (property != properties.end()) {
                    property->second->check(it.value(), Path{&path, it.key()}, problems);
                } else if (!additionalAllowed) {
                    problems
                        << QStringLiteral("%1: unknown field").arg(Path{&path, it.key()}.render());
                } else if (additional) {
                    additional->check(it.value(), Path{&path, it.key()}, problems);
                }
            }
        }
        if (value.isArray() && items) {
            const QJsonArray array = value.toArray();
            for (qsizetype i = 0; i < array.size(); ++i) {
                items->check(array.at(i), Path{&path, QString::number(i)}, problems);
            }
        }
    }
};

JSONSchema::JSONSchema(const QJsonObject& schema) : root_(std::make_unique<Node>(schema)) {}
JSONSchema::~JSONSchema() = default;

QStringList JSONSchema::validate(const QJsonValue& instance) const {
    QStringList problems;
    root_->check(instance, Path{nullptr, {}}, problems);
    return problems;
}

namespace {}  // namespace

QStringList validateAgainstSchema(const QJsonValue& instance, const QJsonObject& schema) {
    return JSONSchema(schema).validate(instance);
}

}  // namespace platform::extension
