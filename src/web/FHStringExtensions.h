#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>
#include <QStringList>

// Text and byte-buffer extensions of the text toolkit.

// The text without the listed whole words (case-insensitive); of two adjacent listed words
// only the first goes.
QString stringWithoutWords(const QString &text, const QStringList &words);
// Lossy ASCII: letters lose their diacritics, other scripts are transliterated.
QString plainASCIIString(const QString &text);

// A list thumbnail of the encoded picture: scaled to fit, even sizes, framed in black.
QImage imageIconNoLargerThan(const QByteArray &imageData, double maxWidth, double maxHeight);
