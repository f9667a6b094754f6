// Reading the loosely typed values of a host request: single-precision numbers as the platform's
// float conversion gives them, strings, and the picker's title format.
#pragma once

#include <QString>
#include <QVariant>

namespace LMBroadcastValues {

enum class FloatReading {
    Absent,     // no value: 0
    Number,     // a number, or a string that begins with one
    NotANumber  // a value of another type, a string without a leading number, NaN or infinity: 0
};

// The platform's floatValue: a number, or a string that begins (after blanks) with a decimal
// number, gives its value narrowed to single precision; an absent value gives 0. Anything else
// gives 0 too, and says so through `reading`.
float floatValue(const QVariant& value, FloatReading* reading = nullptr);

// A string as found: a null string for an absent value; `wrongType` is set (and a null string
// answered) for a value that is present but not a string.
QString stringValue(const QVariant& value, bool* wrongType = nullptr);

// `format` with its object placeholder filled with `argument` ("(null)" for a null string) and
// "%%" made "%". The first "%@" and every "%1$@" give the argument; a further "%@" or any other
// positional object ("%2$@") gives an empty text, since there is only one argument; any other
// conversion is copied as it stands. Nothing beyond the one argument is ever read.
QString formatWithObject(const QString& format, const QString& argument);

}  // namespace LMBroadcastValues
