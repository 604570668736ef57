#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// Byte-built MP4 atoms for tests.
namespace Mp4Builder {

inline QByteArray be32(quint32 n) {
    QByteArray b(4, '\0');
    b[0] = char(n >> 24);
    b[1] = char(n >> 16);
    b[2] = char(n >> 8);
    b[3] = char(n);
    return b;
}

inline QByteArray be16(quint16 n) {
    return QByteArray(1, char(n >> 8)) + char(n);
}

// A four-character name; "©" is written as the byte A9.
inline QByteArray code(const QString &name) {
    QByteArray c;
    for (QChar ch : name)
        c += ch.unicode() == 0xA9 ? char(0xA9) : char(ch.unicode());
    return c;
}

inline QByteArray atom(const QString &name, const QByteArray &payload) {
    return be32(quint32(payload.size() + 8)) + code(name) + payload;
}

inline QByteArray container(const QString &name, const QList<QByteArray> &children) {
    QByteArray body = name == QLatin1String("meta") ? QByteArray(4, '\0') : QByteArray();
    for (const QByteArray &c : children)
        body += c;
    return atom(name, body);
}

inline QByteArray textItem(const QString &name, const QString &text) {
    return container(name,
                     {atom(QStringLiteral("data"), QByteArray("\0\0\0\x01\0\0\0\0", 8) + text.toUtf8())});
}

inline QByteArray binaryItem(const QString &name, const QByteArray &value, char type = 0x15) {
    return container(
        name, {atom(QStringLiteral("data"), QByteArray("\0\0\0", 3) + type + QByteArray(4, '\0') + value)});
}

// A movie header: version 0, times, time scale, duration.
inline QByteArray mvhd(quint32 timeScale, quint32 duration) {
    return atom(QStringLiteral("mvhd"), QByteArray(4, '\0') + be32(1) + be32(2) + be32(timeScale) +
                                            be32(duration) + QByteArray(80, '\0'));
}

// One AAC sample entry with its esds declaring maxBitrate, at the positions the reader probes.
inline QByteArray stsd(quint16 sampleRate, quint32 maxBitrate, const char *format = "mp4a") {
    QByteArray esds = QByteArray(4, '\0') +
                      QByteArray("\x03\x80\x80\x80\x22\x00\x01\x00\x04\x80\x80\x80\x14\x40\x15", 15) +
                      QByteArray(3, '\0') + be32(maxBitrate) + be32(maxBitrate) + QByteArray(10, '\0');
    QByteArray entry = QByteArray(6, '\0') + be16(1) + QByteArray(8, '\0') + be16(2) + be16(16) + be16(0) +
                       be16(0) + be16(sampleRate) + be16(0) + atom(QStringLiteral("esds"), esds);
    return atom(QStringLiteral("stsd"),
                QByteArray(4, '\0') + be32(1) + atom(QString::fromLatin1(format), entry));
}

// A small song: ftyp, then moov (or mdat first), with the chunk offsets pointing into mdat.
struct Song {
    QList<QByteArray> items; // ilst children
    int freeInMeta = 0;      // payload bytes of a 'free' after ilst
    bool mdatFirst = false;
    bool withUdta = true;
    QByteArray mdatPayload = QByteArray(4000, 'a');
};

inline QByteArray stco(const QList<quint32> &offsets) {
    QByteArray p = QByteArray(4, '\0') + be32(quint32(offsets.size()));
    for (quint32 o : offsets)
        p += be32(o);
    return atom(QStringLiteral("stco"), p);
}

inline QByteArray song(const Song &s, quint32 *mdatPayloadOffset = nullptr) {
    const QByteArray ftyp = atom(QStringLiteral("ftyp"), QByteArray("M4A \0\0\0\0M4A mp42", 16));
    auto moovWith = [&](quint32 dataAt) {
        QList<QByteArray> metaChildren{
            atom(QStringLiteral("hdlr"), QByteArray(8, '\0') + "mdirappl" + QByteArray(9, '\0')),
            container(QStringLiteral("ilst"), s.items)};
        if (s.freeInMeta > 0)
            metaChildren.append(atom(QStringLiteral("free"), QByteArray(s.freeInMeta, '\0')));
        QList<QByteArray> moovChildren{
            mvhd(44100, 44100 * 3),
            container(QStringLiteral("trak"),
                      {atom(QStringLiteral("tkhd"), QByteArray(84, '\0')),
                       container(QStringLiteral("mdia"),
                                 {atom(QStringLiteral("mdhd"), QByteArray(24, '\0')),
                                  container(QStringLiteral("minf"),
                                            {container(QStringLiteral("stbl"),
                                                       {stsd(44100, 128000),
                                                        stco({dataAt, dataAt + 1000, dataAt + 2000})})})})})};
        if (s.withUdta)
            moovChildren.append(
                container(QStringLiteral("udta"), {container(QStringLiteral("meta"), metaChildren)}));
        return container(QStringLiteral("moov"), moovChildren);
    };
    const QByteArray mdat = atom(QStringLiteral("mdat"), s.mdatPayload);
    if (s.mdatFirst) {
        const quint32 at = quint32(ftyp.size() + 8);
        if (mdatPayloadOffset) *mdatPayloadOffset = at;
        return ftyp + mdat + moovWith(at);
    }
    const quint32 at = quint32(ftyp.size() + moovWith(0).size() + 8);
    if (mdatPayloadOffset) *mdatPayloadOffset = at;
    return ftyp + moovWith(at) + mdat;
}

} // namespace Mp4Builder
