// The ID3v1/1.1 side of MP3InfoTag: the 128-byte tag at the end of the file.
#include "MP3InfoTag.h"

#include "common/FormatError.h"
#include "common/TextValue.h"

namespace {
bool fitsLatin1(const QString &s) {
    for (QChar c : s) {
        if (c.unicode() > 0xFF) return false;
    }
    return true;
}

// ISO Latin-1 with one "?" for each character it lacks (a surrogate pair is one character).
QByteArray latin1Lossy(const QString &s) {
    QByteArray out;
    out.reserve(s.size());
    for (qsizetype i = 0; i < s.size(); ++i) {
        const char16_t c = s[i].unicode();
        if (QChar::isHighSurrogate(c) && i + 1 < s.size() && QChar::isLowSurrogate(s[i + 1].unicode())) ++i;
        out += c <= 0xFF ? char(c) : '?';
    }
    return out;
}

void copyLatin1(QByteArray &tag, qsizetype offset, const QByteArray &bytes, qsizetype maxLength) {
    const qsizetype n = std::min(bytes.size(), maxLength);
    for (qsizetype i = 0; i < n; ++i)
        tag[offset + i] = bytes[i];
}
} // namespace

void MP3InfoTag::getAttributesFromID3v1(const QByteArray &tag) {
    if (tag.size() < 128) throw FormatError("getAttributesFromID3v1");
    const bool v22 = readsVersion22();
    const auto u = [&tag](qsizetype i) { return static_cast<unsigned char>(tag[i]); };
    // A field is taken only when present and when an ID3v2 value is not already there.
    const auto take = [&](qsizetype offset, qsizetype maxLength, const QString &id) -> QString {
        if (u(offset) == 0 || mFrameIDs.contains(id)) return {};
        return id3v1StringIn(tag, offset, maxLength);
    };

    const QString titleID = v22 ? QStringLiteral("TT2") : QStringLiteral("TIT2");
    const QString artistID = v22 ? QStringLiteral("TP1") : QStringLiteral("TPE1");
    const QString albumID = v22 ? QStringLiteral("TAL") : QStringLiteral("TALB");
    const QString yearID = v22 ? QStringLiteral("TYE") : QStringLiteral("TDRC");
    const QString genreID = v22 ? QStringLiteral("TCO") : QStringLiteral("TCON");
    const QString trackID = v22 ? QStringLiteral("TRK") : QStringLiteral("TRCK");

    if (const QString s = take(3, 30, titleID); !s.isNull()) setStringForFrameID(s, titleID);
    if (const QString s = take(33, 30, artistID); !s.isNull()) setStringForFrameID(s, artistID);
    if (const QString s = take(63, 30, albumID); !s.isNull()) setStringForFrameID(s, albumID);
    // Years up to 1000 are refused here, although the ID3v2 reader takes 1000 itself.
    if (const QString s = take(93, 4, yearID); !s.isNull() && TextValue::intValue(s) > 1000)
        setStringForFrameID(s, yearID);
    if (!v22 && !mFrameIDs.contains(QStringLiteral("COMM"))) {
        if (const QString comment = take(97, 28, QStringLiteral("COMM")); !comment.isNull()) {
            // Kept as a raw COMM frame so that a rewrite carries it into the ID3v2 tag.
            QByteArray raw("\0\0\0eng\0", 7); // flags, encoding, language, empty descriptor
            raw += latin1Lossy(comment);
            addObject(raw, QStringLiteral("COMM"));
        }
    }
    const bool hasTrack = u(125) == 0 && u(126) != 0;
    if (u(127) < allGenres().size() && !mFrameIDs.contains(genreID))
        setStringForFrameID(expandedGenres(QStringLiteral("(%1)").arg(u(127))), genreID);
    if (hasTrack && !mFrameIDs.contains(trackID)) setStringForFrameID(QString::number(u(126)), trackID);
    if (mReadVersionString.isNull())
        mReadVersionString = hasTrack ? QStringLiteral("1.1") : QStringLiteral("1.0");
}

bool MP3InfoTag::canWriteID3v11WithoutLoss() const {
    if (numberOfImages() != 0) return false;
    const QString t = title(), a = artist(), b = album(), y = year();
    if (t.size() > 30 || a.size() > 30 || b.size() > 30 || y.size() > 4) return false;
    // Comments are never moved into an ID3v1 tag.
    if (mFrameIDs.contains(QStringLiteral("COMM")) || mFrameIDs.contains(QStringLiteral("COM"))) return false;
    if (!fitsLatin1(t) || !fitsLatin1(a) || !fitsLatin1(b)) return false;
    if (track().contains(QLatin1Char('/'))) return false;
    const QString g = genres();
    if (!g.isEmpty() && indexOfGenre(g) == NSNotFound) return false;
    return true;
}

QByteArray MP3InfoTag::dataForID3v11() const {
    QByteArray tag(128, '\0');
    tag[0] = 'T';
    tag[1] = 'A';
    tag[2] = 'G';
    copyLatin1(tag, 3, latin1Lossy(title()), 30);
    copyLatin1(tag, 33, latin1Lossy(artist()), 30);
    copyLatin1(tag, 63, latin1Lossy(album()), 30);
    const QByteArray yearBytes = latin1Lossy(year());
    copyLatin1(tag, 93, yearBytes, 4);
    // The year, not the track, decides whether a track number is written.
    if (!yearBytes.isEmpty()) {
        const QString t = track();
        qsizetype digits = 0;
        while (digits < t.size() && t[digits] >= u'0' && t[digits] <= u'9')
            ++digits;
        tag[126] = char(static_cast<unsigned char>(TextValue::intValue(QStringView(t).first(digits))));
    }
    unsigned char genre = 255;
    const QString g = genres();
    if (!g.isEmpty()) {
        const int index = indexOfGenre(g.section(QLatin1Char('/'), 0, 0));
        if (index < 255) genre = static_cast<unsigned char>(index);
    }
    tag[127] = char(genre);
    return tag;
}
