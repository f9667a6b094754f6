#include "picker/LMBroadcastValues.h"

#include <QRegularExpression>
#include <cmath>

namespace LMBroadcastValues {

float floatValue(const QVariant& value) {
    bool isNumber = false;
    double number = 0.0;
    if (value.isValid() && !value.isNull()) {
        switch (value.typeId()) {
            case QMetaType::Bool:
            case QMetaType::Int:
            case QMetaType::UInt:
            case QMetaType::Long:
            case QMetaType::ULong:
            case QMetaType::LongLong:
            case QMetaType::ULongLong:
            case QMetaType::Short:
            case QMetaType::UShort:
            case QMetaType::Float:
            case QMetaType::Double:
                number = value.toDouble();
                isNumber = true;
                break;
            case QMetaType::QString: {
                // The leading decimal number after any blanks; the rest of the text is ignored.
                static const QRegularExpression leading(
                    QStringLiteral("^\\s*([+-]?(?:\\d+\\.?\\d*|\\.\\d+)(?:[eE][+-]?\\d+)?)"));
                const QRegularExpressionMatch match = leading.match(value.toString());
                if (match.hasMatch()) {
                    bool ok = false;
                    number = match.captured(1).toDouble(&ok);
                    if (!ok) {  // out of range: as large as a double gets, with its sign
                        number =
                            match.captured(1).startsWith(QLatin1Char('-')) ? -HUGE_VAL : HUGE_VAL;
                    }
                    isNumber = true;
                }
                break;
            }
            default:
                break;
        }
    }
    const float narrowed = static_cast<float>(number);
    return isNumber && std::isfinite(narrowed) ? narrowed : 0.0f;
}

QString textValue(const QVariant& value) {
    if (value.typeId() == QMetaType::QString) {
        return value.toString();
    }
    if (!value.isValid() || value.isNull()) {
        return {};
    }
    if (value.typeId() == QMetaType::Bool) {
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    }
    return value.toString();
}

QString formatWithObject(const QString& format, const QString& argument) {
    const QString filled = argument.isNull() ? QStringLiteral("(null)") : argument;
    QString out;
    out.reserve(format.size() + filled.size());
    bool sequentialUsed = false;
    const qsizetype n = format.size();
    for (qsizetype i = 0; i < n; ++i) {
        const QChar c = format.at(i);
        if (c != QLatin1Char('%') || i + 1 >= n) {
            out.append(c);
            continue;
        }
        const QChar next = format.at(i + 1);
        if (next == QLatin1Char('%')) {
            out.append(QLatin1Char('%'));
            ++i;
        } else if (next == QLatin1Char('@')) {
            if (!sequentialUsed) {
                out.append(filled);
                sequentialUsed = true;
            }
            ++i;
        } else if (next.isDigit()) {
            // A positional placeholder "%N$@": only the first argument exists.
            qsizetype j = i + 1;
            while (j < n && format.at(j).isDigit()) {
                ++j;
            }
            if (j + 1 < n && format.at(j) == QLatin1Char('$') &&
                format.at(j + 1) == QLatin1Char('@')) {
                if (format.mid(i + 1, j - i - 1).toLongLong() == 1) {
                    out.append(filled);
                }
                i = j + 1;
            } else {
                out.append(c);  // not an object placeholder: copied as it stands
            }
        } else {
            out.append(c);
        }
    }
    return out;
}

}  // namespace LMBroadcastValues
