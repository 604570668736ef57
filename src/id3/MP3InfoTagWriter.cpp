// The writing side of MP3InfoTag: the frame list back into ID3v2.2/2.3/2.4 or ID3v1.1 bytes,
// and the file rewritten around them.
#include "MP3InfoTag.h"

#include "common/Localization.h"
#include "common/Log.h"
#include "common/SafeSave.h"
#include "itunes/iTunesInterface.h"

#include <QFileInfo>

#include <atomic>

namespace {

std::atomic<bool> sWriteSynchSafeSizesInV24{false};

bool fitsLatin1(const QString &s) {
    for (QChar c : s) {
        if (c.unicode() > 0xFF) return false;
    }
    return true;
}

// UTF-16 big-endian with a leading byte-order mark.
QByteArray bigEndianUnicodeData(const QString &s) {
    QByteArray b;
    b.reserve(2 + s.size() * 2);
    b += char(0xFE);
    b += char(0xFF);
    for (QChar c : s) {
        b += char(c.unicode() >> 8);
        b += char(c.unicode() & 0xFF);
    }
    return b;
}

void appendSize(QByteArray &out, quint32 size, bool synchSafe) {
    if (synchSafe) {
        out += char((size >> 21) & 0x7F);
        out += char((size >> 14) & 0x7F);
        out += char((size >> 7) & 0x7F);
        out += char(size & 0x7F);
    } else {
        out += char(size >> 24);
        out += char(size >> 16);
        out += char(size >> 8);
        out += char(size);
    }
}

void putSize(QByteArray &out, qsizetype at, quint32 size, bool synchSafe) {
    QByteArray bytes;
    appendSize(bytes, size, synchSafe);
    out.replace(at, 4, bytes);
}

void appendSize24(QByteArray &out, quint32 size) {
    out += char(size >> 16);
    out += char(size >> 8);
    out += char(size);
}

void appendLanguage(QByteArray &out, const QString &lang) {
    out += lang.size() == 3 ? lang.toLatin1() : QByteArray(3, '\0');
}

// A lyrics frame's content: encoding, language, descriptor, its terminator, then the text. Latin-1
// when both texts fit, else UTF-16 big-endian with byte-order marks under unicodeEncoding.
QByteArray textBlockBody(const TextBlock &block, char unicodeEncoding) {
    const QString desc = block.desc.isNull() ? QString() : block.desc;
    const bool latin1 = fitsLatin1(desc) && fitsLatin1(block.text);
    QByteArray body;
    body += latin1 ? char(0) : unicodeEncoding;
    appendLanguage(body, block.lang.isNull() ? QStringLiteral("eng") : block.lang);
    body += latin1 ? desc.toLatin1() : bigEndianUnicodeData(desc);
    body += QByteArray(latin1 ? 1 : 2, '\0');
    body += latin1 ? block.text.toLatin1() : bigEndianUnicodeData(block.text);
    return body;
}

QByteArray header(int version, qsizetype totalLength) {
    QByteArray h("ID3");
    h += char(version);
    h += char(0);
    h += char(0);
    appendSize(h, quint32(totalLength - 10), true);
    return h;
}

const char *className(const FrameObject &object) {
    static const char *const names[] = {"QStringList", "TextBlock", "ID3Image", "QByteArray"};
    return names[object.index()];
}

// Pauses iTunes around the rewrite when it plays exactly this file, and resumes it whatever happens.
class PlaybackPause {
public:
    explicit PlaybackPause(const QString &path) {
        const QString playing = iTunesInterface::pathOfCurrentlyPlayingTrack();
        mPaused = !playing.isEmpty() && playing == path;
        if (mPaused) iTunesInterface::pausePlaying();
    }
    ~PlaybackPause() {
        if (mPaused) iTunesInterface::resumePlaying();
    }

private:
    bool mPaused = false;
};

} // namespace

void MP3InfoTag::setWriteSynchSafeSizesInV24(bool on) {
    sWriteSynchSafeSizesInV24.store(on);
}
bool MP3InfoTag::writeSynchSafeSizesInV24() {
    return sWriteSynchSafeSizesInV24.load();
}

QString MP3InfoTag::writeVersion() const {
    const QString read = readVersion();
    if (read.startsWith(QLatin1String("2.2"))) return QStringLiteral("2.2.0");
    if (read.startsWith(QLatin1String("2.4"))) return QStringLiteral("2.4.0");
    if (read.startsWith(QLatin1String("1")))
        return canWriteID3v11WithoutLoss() ? QStringLiteral("1.1") : QStringLiteral("2.3.0");
    return QStringLiteral("2.3.0");
}

QByteArray MP3InfoTag::dataForID3V23orV24(bool isV24) const {
    const bool synchSafe = isV24 && writeSynchSafeSizesInV24();
    QByteArray out(10, '\0');
    for (qsizetype i = 0; i < mFrameIDs.size(); ++i) {
        const QString &id = mFrameIDs[i];
        if (id.size() != 4) continue; // version 2.2 frames and pictures
        const FrameObject &object = mFrameObjects[i];
        out += (!isV24 && id == QLatin1String("TDRC")) ? QByteArray("TYER") : id.toLatin1();
        if (const auto *block = std::get_if<TextBlock>(&object)) {
            // Encoding 2 with a byte-order mark is what this writer has always produced.
            const QByteArray body = textBlockBody(*block, 2);
            appendSize(out, quint32(body.size()), synchSafe);
            out += QByteArray(2, '\0');
            out += body;
        } else if (const auto *strings = std::get_if<QStringList>(&object)) {
            const qsizetype sizeAt = out.size();
            out += QByteArray(6, '\0');
            bool latin1 = true;
            for (const QString &s : *strings)
                latin1 = latin1 && fitsLatin1(s);
            out += char(latin1 ? 0 : 2);
            for (const QString &s : *strings) {
                out += latin1 ? s.toLatin1() : bigEndianUnicodeData(s);
                out += QByteArray(latin1 ? 1 : 2, '\0');
            }
            putSize(out, sizeAt, quint32(out.size() - sizeAt - 6), synchSafe);
        } else if (const auto *raw = std::get_if<QByteArray>(&object)) {
            appendSize(out, quint32(std::max<qsizetype>(raw->size() - 2, 0)), synchSafe);
            out += *raw;
        } else {
            Log::console(
                QStringLiteral("id3v24 frame '%1' of class %2!").arg(id, QLatin1String(className(object))));
        }
    }
    for (const ID3Image &picture : images()) {
        // Every picture goes out as type 0 without a description.
        const QByteArray mime = picture.mimeFormat().toLatin1();
        out += "APIC";
        appendSize(out, quint32(picture.imageData().size() + mime.size() + 4), synchSafe);
        out += QByteArray(3, '\0');
        out += mime;
        out += QByteArray(3, '\0');
        out += picture.imageData();
    }
    out.replace(0, 10, header(isV24 ? 4 : 3, out.size()));
    return out;
}

QByteArray MP3InfoTag::dataForID3v22() const {
    QByteArray out(10, '\0');
    for (qsizetype i = 0; i < mFrameIDs.size(); ++i) {
        const QString &id = mFrameIDs[i];
        if (id.size() != 3) continue; // version 2.3/2.4 frames and pictures
        const FrameObject &object = mFrameObjects[i];
        out += id.toLatin1();
        if (const auto *block = std::get_if<TextBlock>(&object)) {
            const QByteArray body = textBlockBody(*block, 1);
            appendSize24(out, quint32(body.size()));
            out += body;
        } else if (const auto *strings = std::get_if<QStringList>(&object)) {
            const QString s = strings->isEmpty() ? QString() : strings->first();
            const bool latin1 = fitsLatin1(s);
            const QByteArray bytes = latin1 ? s.toLatin1() : bigEndianUnicodeData(s);
            appendSize24(out, quint32(bytes.size() + 1));
            out += char(latin1 ? 0 : 1);
            out += bytes;
        } else if (const auto *raw = std::get_if<QByteArray>(&object)) {
            appendSize24(out, quint32(raw->size()));
            out += *raw;
        } else {
            Log::console(
                QStringLiteral("id3v22 frame '%1' of class %2!").arg(id, QLatin1String(className(object))));
        }
    }
    for (const ID3Image &picture : images()) {
        const QString suffix = picture.filenameSuffix();
        if (picture.imageData().isEmpty() || suffix.isEmpty()) {
            Log::console(QStringLiteral("%1/%2 dataForID3v22 cannot include %3")
                             .arg(artist().isNull() ? QStringLiteral("(null)") : artist(),
                                  title().isNull() ? QStringLiteral("(null)") : title(),
                                  picture.description()));
            continue;
        }
        out += "PIC";
        appendSize24(out, quint32(picture.imageData().size() + 6));
        out += char(0);
        out += suffix.left(3).toLatin1().leftJustified(3, '\0', true);
        out += QByteArray(2, '\0');
        out += picture.imageData();
    }
    out.replace(0, 10, header(2, out.size()));
    return out;
}

bool MP3InfoTag::modifySongFileAtPath(const QString &path, QString *error) {
    PlaybackPause pause(path);
    MP3InfoTag current;
    if (!QFileInfo(path).isFile() || !current.initWithPath(path)) {
        if (error) *error = Localization::text("ErrorCannotOpenForWrite");
        return false;
    }
    const QString version = writeVersion();
    const bool writingV1 = version.startsWith(QLatin1String("1"));
    QByteArray tag;
    if (writingV1)
        tag = dataForID3v11();
    else if (version.startsWith(QLatin1String("2.2")))
        tag = dataForID3v22();
    else
        tag = dataForID3V23orV24(version.startsWith(QLatin1String("2.4")));
    if (tag.isEmpty()) {
        if (error) *error = Localization::text("ErrorCannotMakeID3");
        return false;
    }

    const std::int64_t fileSize = QFileInfo(path).size();
    const std::int64_t audioStart = current.id3v2Range().length;
    const std::int64_t audioLength = fileSize - audioStart - current.id3v1Range().length;
    QByteArray head, tail;
    if (writingV1) {
        tail = tag; // any ID3v2 tag goes
    } else {
        head = tag;
        // An ID3v1 tag that was there is kept up to date; none is added.
        if (current.id3v1Range().length > 0) tail = dataForID3v11();
    }
    QString saveError;
    if (audioLength < 0 || !SafeSave::replace(path, head, audioStart, audioLength, tail, &saveError)) {
        Log::console(QStringLiteral("cannot save %1: %2").arg(path, saveError));
        if (error) *error = Localization::text("ErrorCannotOpenForWrite");
        return false;
    }
    tagModified = false;
    return true;
}
