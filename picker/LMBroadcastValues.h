// Reading the loosely typed values of a host request: single-precision numbers as the platform's
// float conversion gives them, strings, and the picker's title format.
#pragma once

#include <QString>
#include <QVariant>

namespace LMBroadcastValues {

// The platform's floatValue: a number, or a string that begins (after blanks) with a decimal
// number, gives its value narrowed to single precision. An absent value gives 0, and so does
// anything else (another type, no leading number, a value that is not finite in single
// precision), so that no view or anchor is ever made from it.
float floatValue(const QVariant& value);

// A text stored as it was found: a string as it is, a null string for an absent value. A value of
// another type is kept as the text a reader of it gets: a number as it prints ("320.5", a boolean
// as "1" or "0"), anything else as Qt converts it to a string (empty when it cannot).
QString textValue(const QVariant& value);

// `format` with its object placeholder filled with `argument` ("(null)" for a null string) and
// "%%" made "%". The first "%@" and every "%1$@" give the argument; a further "%@" or any other
// positional object ("%2$@") gives an empty text, since there is only one argument; any other
// conversion is copied as it stands. Nothing beyond the one argument is ever read.
QString formatWithObject(const QString& format, const QString& argument);

}  // namespace LMBroadcastValues
