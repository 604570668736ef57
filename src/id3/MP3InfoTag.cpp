#include "MP3InfoTag.h"

#include "common/FileReader.h"
#include "common/FormatError.h"
#include "common/Log.h"
#include "common/TextValue.h"

#include <QStringDecoder>

#include <cstring>

const QString MP3InfoTag::ImageFrameID = QStringLiteral("[image]");

namespace {

inline unsigned byteAt(const QByteArray &data, qsizetype i) {
    return (i >= 0 && i < data.size()) ? static_cast<unsigned char>(data[i]) : 0u;
}

inline quint32 bigEndian32(const QByteArray &data, qsizetype i) {
    return byteAt(data, i) << 24 | byteAt(data, i + 1) << 16 | byteAt(data, i + 2) << 8 | byteAt(data, i + 3);
}

// Console texts print an absent value the way the log always has.
inline QString orNull(const QString &s) {
    return s.isNull() ? QStringLiteral("(null)") : s;
}

bool isAscii(const char *p, qsizetype n) {
    for (qsizetype i = 0; i < n; ++i) {
        if (static_cast<unsigned char>(p[i]) >= 0x80) return false;
    }
    return true;
}

// Strict UTF-8: a null string when the bytes are not valid UTF-8.
QString decodeUtf8(const char *p, qsizetype n) {
    if (isAscii(p, n)) return QString::fromLatin1(p, n);
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString s = decoder.decode(QByteArrayView(p, n));
    if (decoder.hasError()) return {};
    return s;
}

// UTF-16 with byte-order-mark detection; big-endian without a mark. An odd last byte is ignored.
QString decodeUtf16(const unsigned char *p, qsizetype n) {
    n &= ~qsizetype(1);
    bool littleEndian = false;
    if (n >= 2 && p[0] == 0xFF && p[1] == 0xFE) {
        littleEndian = true;
        p += 2;
        n -= 2;
    } else if (n >= 2 && p[0] == 0xFE && p[1] == 0xFF) {
        p += 2;
        n -= 2;
    }
    QString s(n / 2, Qt::Uninitialized);
    QChar *out = s.data();
    for (qsizetype i = 0; i < n; i += 2)
        *out++ = QChar(char16_t(littleEndian ? (p[i] | p[i + 1] << 8) : (p[i] << 8 | p[i + 1])));
    return s;
}

// The number before any "/" of a track text.
int trackNumberPart(const QString &track) {
    const qsizetype slash = track.indexOf(QLatin1Char('/'));
    return TextValue::intValue(slash < 0 ? QStringView(track) : QStringView(track).first(slash));
}

bool isFrameIDByte(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z');
}

} // namespace

MP3InfoTag::MP3InfoTag() = default;
MP3InfoTag::~MP3InfoTag() = default;

const QSet<QString> &MP3InfoTag::internalRecognizedFrameIDs() {
    static const QSet<QString> ids = {QStringLiteral("PIC"),  QStringLiteral("TCP"),  QStringLiteral("TT2"),
                                      QStringLiteral("TP1"),  QStringLiteral("TAL"),  QStringLiteral("TCO"),
                                      QStringLiteral("TRK"),  QStringLiteral("TBP"),  QStringLiteral("ULT"),
                                      QStringLiteral("TYE"),  QStringLiteral("APIC"), QStringLiteral("TCMP"),
                                      QStringLiteral("TIT2"), QStringLiteral("TPE1"), QStringLiteral("TALB"),
                                      QStringLiteral("TCON"), QStringLiteral("TRCK"), QStringLiteral("TBPM"),
                                      QStringLiteral("USLT"), QStringLiteral("TYER"), QStringLiteral("TDRC")};
    return ids;
}

const QSet<QString> &MP3InfoTag::iTunesRecognizedFrameIDs() {
    static const QSet<QString> ids = [] {
        QSet<QString> s = internalRecognizedFrameIDs();
        for (const char *id :
             {"TCM", "TT1", "TPA", "RVA", "TBP", "CM1", "TCOM", "TIT1", "TPOS", "RVAD", "TBPM", "COMM"})
            s.insert(QString::fromLatin1(id));
        return s;
    }();
    return ids;
}

const QSet<QString> &MP3InfoTag::dangerousFrameIDs() {
    // None at present; the walk still asks, so that one can be listed without code changes.
    static const QSet<QString> ids;
    return ids;
}

bool MP3InfoTag::initWithPath(const QString &path) {
    AudioInfoTag::initWithPath(path);
    try {
        readFile(path);
    } catch (const FormatError &) {
        return false;
    } catch (const std::bad_alloc &) {
        setEncounteredProblemDecoding();
        return false;
    }
    return true;
}

void MP3InfoTag::readFile(const QString &path) {
    FileReader file(path);
    if (!file.isOpen()) {
        Log::console(QStringLiteral("MP3 nil filehandle for %1").arg(path));
        setEncounteredProblemDecoding();
        throw FormatError("nil filehandle");
    }
    const std::int64_t fileSize = file.size();
    if (fileSize < 128) {
        Log::console(QStringLiteral("MP3 only %1 bytes in %2").arg(fileSize).arg(path));
        setEncounteredProblemDecoding();
        throw FormatError("file too small");
    }
    // Most tags without pictures fit in the first read.
    constexpr std::int64_t firstRead = 4096;
    QByteArray head = file.readAt(0, std::min(firstRead, fileSize));
    bool hasID3v2 = head.size() >= 10 && head.startsWith("ID3") && byteAt(head, 3) < 0xFF &&
                    byteAt(head, 4) < 0xFF &&
                    !((byteAt(head, 6) | byteAt(head, 7) | byteAt(head, 8) | byteAt(head, 9)) & 0x80);
    if (hasID3v2) {
        const std::int64_t size = getSynchSafeIntIn(head, 6);
        if (size > 6 && fileSize >= size + 10) {
            _id3v2Range = {0, size + 10};
            QByteArray tag;
            if (size + 10 <= head.size()) {
                tag = head.left(qsizetype(size + 10));
            } else {
                // Only what the first read did not bring.
                tag = std::move(head);
                tag.append(file.readAt(tag.size(), size + 10 - tag.size()));
            }
            head.clear();
            getAttributesFromID3v2(tag);
        } else {
            Log::console(QStringLiteral("MP3 tag length > file length: %1").arg(path));
            setEncounteredProblemDecoding();
            throw FormatError("bad size tag");
        }
    }
    const QByteArray tail = file.readAt(fileSize - 128, 128);
    if (tail.size() == 128 && tail.startsWith("TAG")) {
        _id3v1Range = {fileSize - 128, 128};
        if (!hasID3v2) getAttributesFromID3v1(tail);
    }
}

void MP3InfoTag::getAttributesFromID3v2(const QByteArray &tag) {
    if (tag.isEmpty()) return;
    const unsigned version = byteAt(tag, 3);
    mReadVersionString = QStringLiteral("2.%1.%2").arg(version).arg(byteAt(tag, 4));
    switch (version) {
    case 2:
        getAttributesFromID3v22(tag);
        break;
    case 3:
    case 4:
        // Version 2.4 prefers plain frame sizes too: many writers put plain sizes in 2.4 tags.
        getAttributesFromID3v2x(tag, false);
        break;
    default:
        setEncounteredProblemDecoding();
        throw FormatError(QStringLiteral("cannot read ID3v%1").arg(mReadVersionString).toStdString());
    }
}

void MP3InfoTag::getAttributesFromID3v2x(const QByteArray &tag, bool assumeSynchSafeSizes) {
    const qsizetype length = tag.size();
    const unsigned flags = byteAt(tag, 5);
    if (flags & 0x80) Log::console(QStringLiteral("*** ID3V2.4 UNSYNCHRONIZED ***"));
    qsizetype off = 10;
    if (flags & 0x40) {
        const quint32 extended = bigEndian32(tag, 10);
        if (qint64(extended) >= qint64(length) + 24) {
            setEncounteredProblemDecoding();
            Log::console(QStringLiteral("*** EXTENDER HEADER %1 bytes ( >%2, IGNORED ) ***")
                             .arg(extended)
                             .arg(length));
        } else {
            off = qsizetype(extended) + 14;
        }
    }

    const bool discardMalformed = shouldDiscardMalformedInfo();
    const bool discardUnrecognized = shouldDiscardUnrecognizedInfo();
    const auto *bytes = reinterpret_cast<const unsigned char *>(tag.constData());

    // A size is plausible when the frame ends exactly at the buffer's end, or when the next
    // frame's ID (or padding) stands right behind it.
    auto plausible = [&](qint64 frameOff, qint64 n) {
        if (n == qint64(length) - frameOff - 10) return true;
        if (frameOff + n < qint64(length) - 14) {
            const unsigned char *next = bytes + frameOff + n + 10;
            if (isFrameIDByte(next[0]) && isFrameIDByte(next[1]) && isFrameIDByte(next[2]) &&
                isFrameIDByte(next[3]))
                return true;
            if (!next[0] && !next[1] && !next[2] && !next[3]) return true;
        }
        return false;
    };

    while (off <= length - 10) {
        const QString id = id3v1StringIn(tag, off, 4);
        if (id.isNull()) break; // padding
        const quint32 plainSize = bigEndian32(tag, off + 4);
        const unsigned frameFlags = byteAt(tag, off + 9);
        qint64 size = plainSize;
        if (plainSize > 127) {
            const qint64 synchSafe = getSynchSafeIntIn(tag, off + 4);
            const bool s = plausible(off, synchSafe);
            const bool p = plausible(off, plainSize);
            if (s && p)
                size = assumeSynchSafeSizes ? synchSafe : qint64(plainSize);
            else if (s)
                size = synchSafe;
            else if (p)
                size = plainSize;
            else {
                setEncounteredProblemDecoding();
                Log::console(QStringLiteral("*** id3v23 '%1' invalid size (%2)").arg(id, orNull(title())));
                size = qint64(length) - off - 10;
                if (discardMalformed) return;
            }
        }

        qsizetype contentStart = off + 10;
        if ((frameFlags & 0x01) && off + 14 <= length && getSynchSafeIntIn(tag, off + 10) == size &&
            size != 0) {
            Log::console(
                QStringLiteral("*** id3v23 '%1' length indicator used OK (%2)").arg(id, orNull(title())));
            contentStart = off + 14;
        }
        const qint64 next = qint64(contentStart) + size;
        if (next > length) {
            Log::console(QStringLiteral("*** id3v23 '%1' overrun (%2)").arg(id, orNull(title())));
            setEncounteredProblemDecoding();
            break;
        }
        if (dangerousFrameIDs().contains(id)) {
            Log::console(QStringLiteral("*** id3v23 '%1' dangerous (%2)").arg(id, orNull(title())));
            setEncounteredProblemDecoding();
        }

        if (internalRecognizedFrameIDs().contains(id)) {
            if (id.startsWith(QLatin1Char('T'))) {
                QStringList strings = id3v23StringsIn(tag, contentStart, qsizetype(size));
                const QString storeID = (id == QLatin1String("TYER")) ? QStringLiteral("TDRC") : id;
                bool keep = !strings.isEmpty();
                if (keep && storeID == QLatin1String("TDRC") && TextValue::intValue(strings.first()) <= 999)
                    keep = false;
                if (keep && storeID == QLatin1String("TRCK") && trackNumberPart(strings.first()) < 1)
                    keep = false;
                if (keep) {
                    if (storeID == QLatin1String("TCON") && strings.size() == 1)
                        strings[0] = expandedGenres(strings[0]);
                    addObject(strings, storeID);
                }
            } else if (id == QLatin1String("USLT")) {
                if (std::optional<TextBlock> block = textBlockIn(tag, contentStart, qsizetype(size)))
                    addObject(*block, id);
            } else if (id == QLatin1String("APIC")) {
                if (size >= 5) {
                    std::optional<ID3Image> picture =
                        ID3Image::imageWithID3v23Frame(tag.mid(contentStart, qsizetype(size)));
                    if (picture) {
                        addObject(*picture, ImageFrameID);
                    } else {
                        setEncounteredProblemDecoding();
                        Log::console(QStringLiteral("*** ID3v23 APIC thePicture nil!"));
                        if (!discardMalformed) throw FormatError("getAttributesFromID3v23");
                    }
                }
            } else {
                setEncounteredProblemDecoding();
                Log::console(QStringLiteral("*** ID3v23 '%1' recognized but no handler").arg(id));
                throw FormatError("getAttributesFromID3v23");
            }
        } else if (!(discardUnrecognized && !iTunesRecognizedFrameIDs().contains(id))) {
            addObject(tag.mid(contentStart - 2, qsizetype(size) + 2), id);
        }
        off = qsizetype(next);
    }
}

void MP3InfoTag::getAttributesFromID3v22(const QByteArray &tag) {
    const qsizetype length = tag.size();
    const bool discardMalformed = shouldDiscardMalformedInfo();
    const bool discardUnrecognized = shouldDiscardUnrecognizedInfo();
    qsizetype off = 10;
    while (off <= length - 6) {
        const QString id = id3v1StringIn(tag, off, 3);
        qsizetype size =
            qsizetype(byteAt(tag, off + 3) << 16 | byteAt(tag, off + 4) << 8 | byteAt(tag, off + 5));
        if (size == 0 || id.isNull()) break;
        if (off + 6 + size > length) {
            setEncounteredProblemDecoding();
            size = length - off - 6;
            if (discardMalformed) break;
        }
        const qsizetype contentStart = off + 6;
        if (id == QLatin1String("PIC")) {
            std::optional<ID3Image> picture = ID3Image::imageWithID3v22Frame(tag.mid(contentStart, size));
            if (picture) {
                addObject(*picture, ImageFrameID);
            } else {
                Log::console(QStringLiteral("ID3v22 PIC nil (%1/%2)").arg(orNull(artist()), orNull(title())));
                setEncounteredProblemDecoding();
                if (!discardMalformed) throw FormatError("getAttributesFromID3v22");
            }
        } else if (id == QLatin1String("ULT")) {
            if (std::optional<TextBlock> block = textBlockIn(tag, contentStart, size)) addObject(*block, id);
        } else if (internalRecognizedFrameIDs().contains(id)) {
            QString text = id3v22StringIn(tag, contentStart + 1, int(byteAt(tag, contentStart)), size - 1);
            bool keep = !text.isNull();
            if (keep && id == QLatin1String("TYE") && TextValue::intValue(text) <= 999) keep = false;
            if (keep && id == QLatin1String("TRK") && trackNumberPart(text) < 1) keep = false;
            if (keep) {
                if (id == QLatin1String("TCO")) text = expandedGenres(text);
                setStringForFrameID(text, id);
            }
        } else if (!(discardUnrecognized && !iTunesRecognizedFrameIDs().contains(id))) {
            addObject(tag.mid(contentStart, size), id);
        }
        off += 6 + size;
    }
}

quint32 MP3InfoTag::getSynchSafeIntIn(const QByteArray &data, qsizetype offset) {
    return (byteAt(data, offset) & 0x7F) << 21 | (byteAt(data, offset + 1) & 0x7F) << 14 |
           (byteAt(data, offset + 2) & 0x7F) << 7 | (byteAt(data, offset + 3) & 0x7F);
}

QString MP3InfoTag::id3v1StringIn(const QByteArray &data, qsizetype offset, qsizetype maxLength) {
    if (offset < 0 || offset >= data.size() || maxLength <= 0) return {};
    maxLength = std::min(maxLength, data.size() - offset);
    const char *p = data.constData() + offset;
    const void *zero = std::memchr(p, 0, size_t(maxLength));
    qsizetype n = zero ? static_cast<const char *>(zero) - p : maxLength;
    while (n > 0 && static_cast<unsigned char>(p[n - 1]) < 33)
        --n;
    if (n == 0) return {};
    QString s = decodeUtf8(p, n);
    return s.isNull() ? QString::fromLatin1(p, n) : s;
}

QString MP3InfoTag::id3v22StringIn(const QByteArray &data, qsizetype offset, int encoding,
                                   qsizetype maxLength) {
    if (offset < 0 || offset >= data.size() || maxLength <= 0) return {};
    maxLength = std::min(maxLength, data.size() - offset);
    const char *p = data.constData() + offset;
    if (encoding != 0) return decodeUtf16(reinterpret_cast<const unsigned char *>(p), maxLength);
    const void *zero = std::memchr(p, 0, size_t(maxLength));
    const qsizetype n = zero ? static_cast<const char *>(zero) - p : maxLength;
    return n == 0 ? QString() : QString::fromLatin1(p, n);
}

QString MP3InfoTag::id3v23StringIn(const QByteArray &data, qsizetype offset, int encoding,
                                   qsizetype *maxLength) {
    const qsizetype available = *maxLength;
    *maxLength = 0;
    if (data.isNull() || offset < 0 || offset >= data.size() || encoding < 0 || encoding > 3) return {};
    const auto *p = reinterpret_cast<const unsigned char *>(data.constData()) + offset;
    const qsizetype rest = data.size() - offset;
    if (encoding == 1 || encoding == 2) {
        qsizetype n = 0;
        while (n + 2 <= rest && n + 2 <= available && (p[n] || p[n + 1]))
            n += 2;
        *maxLength = n + 2;
        if (n == 0) return {};
        return decodeUtf16(p, n);
    }
    const qsizetype limit = std::min(rest, available);
    const void *zero = limit > 0 ? std::memchr(p, 0, size_t(limit)) : nullptr;
    const qsizetype n = zero ? static_cast<const unsigned char *>(zero) - p : std::max<qsizetype>(limit, 0);
    *maxLength = n + (n < available ? 1 : 0);
    if (n == 0) return {};
    const char *c = reinterpret_cast<const char *>(p);
    return encoding == 3 ? decodeUtf8(c, n) : QString::fromLatin1(c, n);
}

QStringList MP3InfoTag::id3v23StringsIn(const QByteArray &data, qsizetype location, qsizetype length) {
    if (location < 0 || length < 0 || location + length > data.size()) {
        Log::console(QStringLiteral("id3v23StringsIn <QByteArray %1: %2 bytes> @ {%3, %4}")
                         .arg(QStringLiteral("0x%1").arg(quintptr(data.constData()), 0, 16))
                         .arg(data.size())
                         .arg(location)
                         .arg(length));
        return {};
    }
    if (length == 0) return {};
    int encoding = int(byteAt(data, location));
    qsizetype pos = location + 1;
    if (encoding > 3 && encoding < 32) {
        Log::console(QStringLiteral("id3v23StringsIn encoding %1 treated as encoding 0").arg(encoding));
        encoding = 0;
    } else if (encoding >= 32) {
        // A frame written without an encoding byte: the text starts right away.
        Log::console(QStringLiteral("id3v23StringsIn encoding %1 (no encoding byte)").arg(encoding));
        encoding = 0;
        pos = location;
    }
    QStringList strings;
    const qsizetype end = location + length;
    while (pos < end) {
        qsizetype consumed = end - pos;
        const QString s = id3v23StringIn(data, pos, encoding, &consumed);
        if (!s.isNull()) strings.append(s);
        pos += std::max<qsizetype>(consumed, 1);
    }
    return strings;
}

std::optional<TextBlock> MP3InfoTag::textBlockIn(const QByteArray &data, qsizetype location,
                                                 qsizetype length) {
    if (length <= 6 || location < 0 || location + length > data.size()) return std::nullopt;
    const int encoding = int(byteAt(data, location));
    if (encoding >= 4) {
        Log::console(QStringLiteral("textBlockIn encoding %1").arg(encoding));
        return std::nullopt;
    }
    TextBlock block;
    if (byteAt(data, location + 1) && byteAt(data, location + 2) && byteAt(data, location + 3))
        block.lang = QString::fromLatin1(data.constData() + location + 1, 3);
    const qsizetype end = location + length;
    qsizetype consumed = length - 4;
    const QString desc = id3v23StringIn(data, location + 4, encoding, &consumed);
    if (!desc.isEmpty() && desc[0] != QChar(0)) block.desc = desc;
    qsizetype pos = location + 4 + consumed;
    while (pos < end && byteAt(data, pos) == 0)
        ++pos;
    if (pos >= end) return std::nullopt;
    qsizetype rest = end - pos;
    const QString text = id3v23StringIn(data, pos, encoding, &rest);
    if (text.isEmpty() || text[0] == QChar(0)) return std::nullopt;
    block.text = text;
    return block;
}

const FrameObject *MP3InfoTag::firstObjectForFrameID(QStringView id, QStringView orID) const {
    for (qsizetype i = 0; i < mFrameIDs.size(); ++i) {
        if (mFrameIDs[i] == id) return &mFrameObjects[i];
    }
    if (orID.isEmpty()) return nullptr;
    for (qsizetype i = 0; i < mFrameIDs.size(); ++i) {
        if (mFrameIDs[i] == orID) return &mFrameObjects[i];
    }
    return nullptr;
}

QString MP3InfoTag::firstStringForFrameID(QStringView id, QStringView orID) const {
    const FrameObject *object = firstObjectForFrameID(id, orID);
    if (!object) return {};
    const QStringList *strings = std::get_if<QStringList>(object);
    return (strings && !strings->isEmpty()) ? strings->first() : QString();
}

void MP3InfoTag::addObject(const FrameObject &object, const QString &frameID) {
    if (frameID.isEmpty()) {
        Log::console(QStringLiteral("addObject with nil param!"));
        return;
    }
    mFrameIDs.append(frameID);
    mFrameObjects.append(object);
}

void MP3InfoTag::setObject(const FrameObject &object, const QString &frameID) {
    const qsizetype i = mFrameIDs.indexOf(frameID);
    if (i < 0)
        addObject(object, frameID);
    else
        mFrameObjects[i] = object;
}

void MP3InfoTag::setStringForFrameID(const QString &string, const QString &frameID) {
    setObject(QStringList{string}, frameID);
}

void MP3InfoTag::removeAllObjectsForFrameID(QStringView frameID) {
    for (qsizetype i = mFrameIDs.size() - 1; i >= 0; --i) {
        if (mFrameIDs[i] == frameID) {
            mFrameIDs.removeAt(i);
            mFrameObjects.removeAt(i);
        }
    }
}

QString MP3InfoTag::lyrics() const {
    const FrameObject *object = firstObjectForFrameID(u"USLT", u"ULT");
    if (!object) return {};
    const TextBlock *block = std::get_if<TextBlock>(object);
    return block ? block->text : QString();
}

bool MP3InfoTag::isPartOfCompilation() const {
    return TextValue::intValue(firstStringForFrameID(u"TCMP", u"TCP")) >= 1;
}

void MP3InfoTag::setString(const QString &value, QStringView v22ID, QStringView v24ID) {
    tagModified = true;
    const QString id = (readsVersion22() ? v22ID : v24ID).toString();
    if (value.isEmpty())
        removeAllObjectsForFrameID(id);
    else
        setStringForFrameID(value, id);
}

void MP3InfoTag::setLyrics(const QString &lyrics) {
    tagModified = true;
    const QString id = readsVersion22() ? QStringLiteral("ULT") : QStringLiteral("USLT");
    removeAllObjectsForFrameID(id);
    if (!lyrics.isEmpty()) setObject(TextBlock{QStringLiteral("eng"), QString(), lyrics}, id);
}

void MP3InfoTag::setIsPartOfCompilation(bool compilation) {
    tagModified = true;
    const QString id = readsVersion22() ? QStringLiteral("TCP") : QStringLiteral("TCMP");
    if (compilation)
        setStringForFrameID(QStringLiteral("1"), id);
    else
        removeAllObjectsForFrameID(id);
}

QList<ID3Image> MP3InfoTag::images() const {
    QList<ID3Image> pictures;
    for (qsizetype i = 0; i < mFrameIDs.size(); ++i) {
        if (mFrameIDs[i] == ImageFrameID) {
            if (const ID3Image *image = std::get_if<ID3Image>(&mFrameObjects[i])) pictures.append(*image);
        }
    }
    return pictures;
}

int MP3InfoTag::numberOfImages() const {
    const int base = lazyOriTunesImageCount();
    if (base != 0) return base;
    return int(mFrameIDs.count(ImageFrameID));
}

bool MP3InfoTag::addImage(const ID3Image &image) {
    for (const ID3Image &fromiTunes : takeiTunesArtworks())
        addObject(fromiTunes, ImageFrameID);
    addObject(image, ImageFrameID);
    dropCachedIcon();
    tagModified = true;
    return true;
}

bool MP3InfoTag::removeImageAtIndex(int index) {
    if (AudioInfoTag::removeImageAtIndex(index)) return true;
    int seen = 0;
    for (qsizetype i = 0; i < mFrameIDs.size(); ++i) {
        if (mFrameIDs[i] != ImageFrameID) continue;
        if (seen++ == index) {
            mFrameIDs.removeAt(i);
            mFrameObjects.removeAt(i);
            tagModified = true;
            return true;
        }
    }
    return false;
}
