#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>

// The shared text toolkit: comparison keys for names from different sources.
namespace FHUtility {
const QStringList &minorWords();
// Installs the resources' "simplifiers" (text to replacement), applied longest key first.
void setSimplifiersDictionary(const QVariantMap &simplifiers);
// The comparison key of a name: minor words dropped, plain ASCII, simplifiers applied, then
// only lowered letters and digits kept.
QString simplifyString(const QString &text);
// Whether both are present and their simplified forms are equal.
bool isString(const QString &a, const QString &b);
// Whether both are present and the part occurs in the text, ignoring case.
bool doesString(const QString &text, const QString &part);
} // namespace FHUtility
