#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

// The one adapter between property lists (XML or binary) and Qt values: dictionaries become
// QVariantMap, arrays QVariantList, data QByteArray, dates QDateTime (UTC).
namespace PropertyList {
// An invalid QVariant and an error text when the bytes are no property list.
QVariant fromData(const QByteArray &data, QString *error = nullptr);
QByteArray toXml(const QVariant &value);
QByteArray toBinary(const QVariant &value);
} // namespace PropertyList
