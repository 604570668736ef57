#pragma once

#include <QString>
#include <QStringView>

// Number parsing with the forgiving rules tag texts need: leading white space, an optional
// sign, then digits up to the first non-digit; no digits give 0; overflow saturates.
namespace TextValue {
int intValue(QStringView text);
long long longLongValue(QStringView text);
// Case-insensitive comparison in which runs of digits compare by their numeric value.
int compareCaseInsensitiveNumeric(const QString &a, const QString &b);
int compareCaseInsensitive(const QString &a, const QString &b);
} // namespace TextValue
