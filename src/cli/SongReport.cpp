#include "SongReport.h"

#include "id3/MP3InfoTag.h"
#include "mp4/AACInfoTag.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QImageReader>
#include <QRegularExpression>

namespace SongReport {

namespace {
QJsonValue text(const QString &s) {
    return s.isNull() ? QJsonValue() : QJsonValue(s);
}

QSize pixelSize(const QByteArray &bytes) {
    QByteArray copy = bytes;
    QBuffer buffer(&copy);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    return reader.size();
}

QString oneLine(QString s, qsizetype max = 60) {
    s.replace(QLatin1Char('\r'), QLatin1Char(' ')).replace(QLatin1Char('\n'), QLatin1Char(' '));
    s.replace(QLatin1Char('\t'), QLatin1Char(' '));
    if (s.size() > max) s = s.left(max - 3) + QStringLiteral("...");
    return s;
}

// A short form of a frame's content for the frame list.
QString frameSummary(const FrameObject &object) {
    if (const auto *strings = std::get_if<QStringList>(&object))
        return oneLine(strings->join(QStringLiteral(" | ")));
    if (const auto *block = std::get_if<TextBlock>(&object))
        return QStringLiteral("[%1] %2").arg(block->lang, oneLine(block->text));
    if (const auto *image = std::get_if<ID3Image>(&object))
        return QStringLiteral("%1, %2 bytes").arg(image->mimeFormat()).arg(image->imageData().size());
    const auto &raw = std::get<QByteArray>(object);
    return QStringLiteral("%1 bytes: %2").arg(raw.size()).arg(QString::fromLatin1(raw.left(16).toHex(' ')));
}

// The tag the collector loaded. Asking the song again would retry an unreadable file and
// reset its status, which the collector has set to the problem status.
std::shared_ptr<AudioInfoTag> loadedTag(SongFile &song) {
    return song.hasInfotagCached() ? song.infotag() : nullptr;
}

QString field(const QString &s) {
    return s.isNull() ? QString() : oneLine(s, 1 << 20);
}
} // namespace

QJsonObject listRow(SongFile &song) {
    const std::shared_ptr<AudioInfoTag> tag = loadedTag(song);
    QJsonObject row;
    row.insert(QStringLiteral("active"), song.activityStatus());
    row.insert(QStringLiteral("path"), song.path());
    if (!tag) {
        for (const char *key : {"index", "artist", "title", "album", "year", "genre", "track", "version",
                                "bpm", "formattedDuration"})
            row.insert(QLatin1String(key), QJsonValue());
        row.insert(QStringLiteral("compilation"), false);
        row.insert(QStringLiteral("lyrics"), false);
        row.insert(QStringLiteral("art"), 0);
        return row;
    }
    const int index = tag->playlistIndex();
    row.insert(QStringLiteral("index"), index == AudioInfoTag::NSNotFound ? QJsonValue() : QJsonValue(index));
    row.insert(QStringLiteral("compilation"), tag->isPartOfCompilation());
    row.insert(QStringLiteral("artist"), text(tag->artist()));
    row.insert(QStringLiteral("title"), text(tag->title()));
    row.insert(QStringLiteral("album"), text(tag->album()));
    row.insert(QStringLiteral("year"), text(tag->year()));
    row.insert(QStringLiteral("genre"), text(tag->genres()));
    row.insert(QStringLiteral("track"), text(tag->track()));
    row.insert(QStringLiteral("version"), text(tag->readVersion()));
    row.insert(QStringLiteral("bpm"), text(tag->bpm()));
    row.insert(QStringLiteral("lyrics"), !tag->lyrics().isEmpty());
    row.insert(QStringLiteral("art"), tag->numberOfImages());
    row.insert(QStringLiteral("formattedDuration"), text(tag->formattedDuration()));
    return row;
}

void writeListTsv(QTextStream &out, const QList<SongFilePtr> &songs) {
    out << "status\ttitle\tartist\talbum\tyear\tgenres\ttrack\tbpm\tcompilation\tlyrics\tart\tversion\tdurati"
           "on\tfile\n";
    for (const SongFilePtr &song : songs) {
        const QJsonObject r = listRow(*song);
        const auto s = [&r](const char *key) { return field(r.value(QLatin1String(key)).toString()); };
        out << r.value(QStringLiteral("active")).toInt() << '\t' << s("title") << '\t' << s("artist") << '\t'
            << s("album") << '\t' << s("year") << '\t' << s("genre") << '\t' << s("track") << '\t' << s("bpm")
            << '\t' << (r.value(QStringLiteral("compilation")).toBool() ? "yes" : "no") << '\t'
            << (r.value(QStringLiteral("lyrics")).toBool() ? "yes" : "no") << '\t'
            << r.value(QStringLiteral("art")).toInt() << '\t' << s("version") << '\t'
            << s("formattedDuration") << '\t' << song->path() << '\n';
    }
}

QJsonArray listJson(const QList<SongFilePtr> &songs) {
    QJsonArray rows;
    for (const SongFilePtr &song : songs)
        rows.append(listRow(*song));
    return rows;
}

QJsonObject showObject(SongFile &song) {
    const std::shared_ptr<AudioInfoTag> tag = loadedTag(song);
    QJsonObject o;
    o.insert(QStringLiteral("path"), song.path());
    o.insert(QStringLiteral("activityStatus"), song.activityStatus());
    const auto put = [&o](const char *key, const QString &value) {
        o.insert(QLatin1String(key), text(value));
    };
    put("readVersion", tag ? tag->readVersion() : QString());
    put("title", tag ? tag->title() : QString());
    put("artist", tag ? tag->artist() : QString());
    put("album", tag ? tag->album() : QString());
    put("year", tag ? tag->year() : QString());
    put("genres", tag ? tag->genres() : QString());
    put("track", tag ? tag->track() : QString());
    put("bpm", tag ? tag->bpm() : QString());
    put("lyrics", tag ? tag->lyrics() : QString());
    o.insert(QStringLiteral("isPartOfCompilation"), tag ? tag->isPartOfCompilation() : false);
    const auto number = [](double v) { return v < 0 ? QJsonValue() : QJsonValue(v); };
    o.insert(QStringLiteral("duration"), tag ? number(tag->duration()) : QJsonValue());
    o.insert(QStringLiteral("bitrate"), tag ? number(tag->bitrate()) : QJsonValue());
    o.insert(QStringLiteral("samplerate"), tag ? number(tag->samplerate()) : QJsonValue());
    QJsonArray images;
    if (tag) {
        for (const ID3Image &image : tag->images()) {
            const QSize size = pixelSize(image.imageData());
            QJsonObject i;
            i.insert(QStringLiteral("pictureType"), image.pictureType());
            i.insert(QStringLiteral("mimeFormat"), text(image.mimeFormat()));
            i.insert(QStringLiteral("description"), text(image.pictureDescription()));
            i.insert(QStringLiteral("bytes"), image.imageData().size());
            i.insert(QStringLiteral("width"), size.isValid() ? QJsonValue(size.width()) : QJsonValue());
            i.insert(QStringLiteral("height"), size.isValid() ? QJsonValue(size.height()) : QJsonValue());
            i.insert(QStringLiteral("sha1"),
                     QString::fromLatin1(
                         QCryptographicHash::hash(image.imageData(), QCryptographicHash::Sha1).toHex()));
            images.append(i);
        }
    }
    o.insert(QStringLiteral("images"), images);
    return o;
}

void writeShowText(QTextStream &out, SongFile &song) {
    const QJsonObject o = showObject(song);
    const std::shared_ptr<AudioInfoTag> tag = loadedTag(song);
    out << song.path() << '\n';
    const auto line = [&out](const char *label, const QString &value) {
        out << "  " << QString::fromLatin1(label).leftJustified(14)
            << (value.isNull() ? QStringLiteral("-") : value) << '\n';
    };
    line("status", QString::number(song.activityStatus()));
    line("version", tag ? tag->readVersion() : QString());
    line("title", tag ? tag->title() : QString());
    line("artist", tag ? tag->artist() : QString());
    line("album", tag ? tag->album() : QString());
    line("year", tag ? tag->year() : QString());
    line("genres", tag ? tag->genres() : QString());
    line("track", tag ? tag->track() : QString());
    line("bpm", tag ? tag->bpm() : QString());
    line("compilation", tag && tag->isPartOfCompilation() ? QStringLiteral("yes") : QStringLiteral("no"));
    line("duration", tag ? tag->formattedDuration() : QString());
    line("bitrate", tag && tag->bitrate() >= 0 ? QString::number(tag->bitrate()) : QString());
    line("samplerate", tag && tag->samplerate() >= 0 ? QString::number(tag->samplerate()) : QString());
    if (const auto *mp3 = dynamic_cast<const MP3InfoTag *>(tag.get()))
        line("encoding", mp3->encodingString());
    if (const auto *mp3 = dynamic_cast<const MP3InfoTag *>(tag.get())) {
        out << "  frames:\n";
        for (qsizetype i = 0; i < mp3->frameIDs().size(); ++i)
            out << "    " << mp3->frameIDs()[i].leftJustified(8) << frameSummary(mp3->frameObjects()[i])
                << '\n';
    }
    const QJsonArray images = o.value(QStringLiteral("images")).toArray();
    out << "  pictures:" << (images.isEmpty() ? " none" : "") << '\n';
    const QList<ID3Image> pictures = tag ? tag->images() : QList<ID3Image>();
    for (qsizetype i = 0; i < images.size(); ++i) {
        const QJsonObject p = images[i].toObject();
        out << "    #" << i << " type " << p.value(QStringLiteral("pictureType")).toInt() << ", "
            << (pictures[i].mimeFormat().isNull() ? QStringLiteral("unknown format")
                                                  : pictures[i].mimeFormat())
            << ", suffix "
            << (pictures[i].filenameSuffix().isNull() ? QStringLiteral("-") : pictures[i].filenameSuffix())
            << ", " << p.value(QStringLiteral("bytes")).toInt() << " bytes";
        if (p.value(QStringLiteral("width")).isDouble())
            out << ", " << p.value(QStringLiteral("width")).toInt() << "x"
                << p.value(QStringLiteral("height")).toInt();
        if (!pictures[i].pictureDescription().isEmpty())
            out << ", \"" << pictures[i].pictureDescription() << '"';
        out << '\n';
    }
    if (dynamic_cast<const AACInfoTag *>(tag.get())) {
        out << "  atoms:\n";
        for (const QString &l : AACInfoTag::atomTreeDescription(song.path()).split(QLatin1Char('\n')))
            out << "    " << l << '\n';
    }
    const QString lyrics = tag ? tag->lyrics() : QString();
    if (!lyrics.isEmpty()) {
        out << "  lyrics:\n";
        for (const QString &l : lyrics.split(QRegularExpression(QStringLiteral("\r\n|\r|\n"))))
            out << "    " << l << '\n';
    }
}

} // namespace SongReport
