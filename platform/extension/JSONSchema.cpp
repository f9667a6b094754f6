#include "platform/extension/JSONSchema.h"

#include <QJsonArray>
#include <QSet>
#include <cmath>

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

void check(const QJsonValue& value, const QJsonObject& schema, const QString& at,
           QStringList& problems) {
    for (auto it = schema.begin(); it != schema.end(); ++it) {
        if (!knownKeywords().contains(it.key())) {
            problems << QStringLiteral("%1: the schema uses the unsupported keyword \"%2\"")
                            .arg(at, it.key());
        }
    }
    if (schema.contains("type")) {
        const QJsonValue type = schema.value("type");
        QStringList wanted;
        if (type.isArray()) {
            for (const QJsonValue& t : type.toArray()) {
                wanted << t.toString();
            }
        } else {
            wanted << type.toString();
        }
        bool matched = false;
        for (const QString& w : wanted) {
            matched = matched || hasType(value, w);
        }
        if (!matched) {
            problems << QStringLiteral("%1: expected %2, found %3")
                            .arg(at, wanted.join(QStringLiteral(" or ")), typeName(value));
            return;  // the other keywords would only repeat the same fault
        }
    }
    if (schema.contains("enum") && !schema.value("enum").toArray().contains(value)) {
        QStringList allowed;
        for (const QJsonValue& v : schema.value("enum").toArray()) {
            allowed << shown(v);
        }
        problems << QStringLiteral("%1: %2 is not one of %3")
                        .arg(at, shown(value), allowed.join(QStringLiteral(", ")));
    }
    if (value.isString()) {
        const qsizetype length = value.toString().size();
        if (schema.contains("minLength") && length < schema.value("minLength").toInteger()) {
            problems << (length == 0 ? QStringLiteral("%1: must not be empty").arg(at)
                                     : QStringLiteral("%1: shorter than %2 characters")
                                           .arg(at)
                                           .arg(schema.value("minLength").toInteger()));
        }
        if (schema.contains("maxLength") && length > schema.value("maxLength").toInteger()) {
            problems << QStringLiteral("%1: longer than %2 characters")
                            .arg(at)
                            .arg(schema.value("maxLength").toInteger());
        }
    }
    if (value.isDouble()) {
        const double d = value.toDouble();
        if (schema.contains("minimum") && d < schema.value("minimum").toDouble()) {
            problems << QStringLiteral("%1: %2 is below the minimum %3")
                            .arg(at, shown(value), shown(schema.value("minimum")));
        }
        if (schema.contains("maximum") && d > schema.value("maximum").toDouble()) {
            problems << QStringLiteral("%1: %2 is above the maximum %3")
                            .arg(at, shown(value), shown(schema.value("maximum")));
        }
    }
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (const QJsonValue& name : schema.value("required").toArray()) {
            if (!object.contains(name.toString())) {
                problems << QStringLiteral("%1: the required field \"%2\" is missing")
                                .arg(at, name.toString());
            }
        }
        const QJsonObject properties = schema.value("properties").toObject();
        const QJsonValue additional = schema.value("additionalProperties");
        for (auto it = object.begin(); it != object.end(); ++it) {
            const QString where = pointer(at, it.key());
            if (properties.contains(it.key())) {
                check(it.value(), properties.value(it.key()).toObject(), where, problems);
            } else if (additional.isBool() && !additional.toBool()) {
                problems << QStringLiteral("%1: unknown field").arg(where);
            } else if (additional.isObject()) {
                check(it.value(), additional.toObject(), where, problems);
            }
        }
    }
    if (value.isArray() && schema.value("items").isObject()) {
        const QJsonArray array = value.toArray();
        for (qsizetype i = 0; i < array.size(); ++i) {
            check(array.at(i), schema.value("items").toObject(), pointer(at, QString::number(i)),
                  problems);
        }
    }
}

}  // namespace

QStringList validateAgainstSchema(const QJsonValue& instance, const QJsonObject& schema) {
    QStringList problems;
    check(instance, schema, QStringLiteral("/"), problems);
    return problems;
}

}  // namespace platform::extension
