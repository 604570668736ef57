// Round trips of our AAC writer, checked by other programs. Every file of the tool-made MP4 set
// (tests/tools/make_mp4_fixtures.py), and copies of a few with items added by mutagen that we never
// touch, is copied, edited through the song API with one edit set, and saved. Then mutagen and
// AtomicParsley (tests/tools/mp4_readback.py) must read back what we set, ffmpeg must decode the same
// audio as before (so the chunk offsets moved with 'mdat'), the items the edits did not touch must
// be there byte for byte, and saving again must change nothing but the time stamps. Files the writer
// cannot take, byte-built or corrupted copies of the set, must be refused and left as they were.
// Where our writer deliberately does something that other programs see their own way, the
// comparison applies that rule instead of looking away: an item list that is empty before a save
// takes only the first item the writer makes (the rest come with the next save), setting a field
// replaces only the first value of its item, and a leaf claiming more than the file holds is cut at
// the end of the file and written with the size that is really there.
#include "common/Log.h"
#include "model/SongFile.h"
#include "mp4/AACInfoTag.h"
#include "mp4/Atom.h"
#include "mp4/Mp4Builder.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <unistd.h>

using namespace TestSupport;
using namespace Qt::StringLiterals;
namespace mb = Mp4Builder;

namespace {

QByteArray sha1Hex(const QByteArray &bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha1).toHex();
}

std::string show(const QString &s) {
    return s.isNull() ? std::string("(absent)") : '"' + s.toStdString() + '"';
}

std::string json(const QJsonValue &v) {
    if (v.isUndefined()) return "(absent)";
    const QByteArray text = QJsonDocument(QJsonArray{v}).toJson(QJsonDocument::Compact);
    return text.mid(1, text.size() - 2).toStdString();
}

// A copy of from at to that this process may write; gives to.
QString copyWritable(const QString &from, const QString &to) {
    QFile::copy(from, to);
    QFile::setPermissions(to, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    return to;
}

// ffmpeg, quiet but for errors and never asking.
int ffmpeg(const QStringList &args, QByteArray *out = nullptr) {
    return run(u"ffmpeg"_s, QStringList{u"-v"_s, u"error"_s, u"-nostdin"_s, u"-y"_s} + args, out);
}

// --- atoms, walked here without our reader ------------------------------------------------------

struct Span {
    QByteArray name;
    qint64 offset = -1, size = 0;
    explicit operator bool() const { return offset >= 0; }
    qint64 end() const { return offset + size; }
};

quint32 be32At(const QByteArray &b, qint64 at) {
    if (at < 0 || at + 4 > b.size()) return 0;
    const auto *p = reinterpret_cast<const uchar *>(b.constData()) + at;
    return quint32(p[0]) << 24 | quint32(p[1]) << 16 | quint32(p[2]) << 8 | p[3];
}

QByteArray be64(quint64 n) {
    return be32(quint32(n >> 32)) + be32(quint32(n));
}

// The atoms in [begin, end), with 32-bit and extended sizes; stops at one that does not fit.
QList<Span> atomsIn(const QByteArray &file, qint64 begin, qint64 end) {
    QList<Span> out;
    for (qint64 at = begin; at + 8 <= end;) {
        quint64 size = be32At(file, at);
        if (size == 1 && at + 16 <= end) size = quint64(be32At(file, at + 8)) << 32 | be32At(file, at + 12);
        if (size == 0) size = quint64(end - at);
        if (size < 8 || size > quint64(end - at)) break;
        out.append({file.mid(at + 4, 4), at, qint64(size)});
        at += qint64(size);
    }
    return out;
}

// The atoms along a path such as "moov/udta/meta", the first of each name; a 'meta' has four
// bytes of version and flags before its children. Shorter than the path when one is missing.
QList<Span> spansAlong(const QByteArray &file, const QByteArray &path) {
    QList<Span> spans;
    qint64 begin = 0, end = file.size();
    for (const QByteArray &name : path.split('/')) {
        const QList<Span> atoms = atomsIn(file, begin, end);
        const auto it =
            std::find_if(atoms.begin(), atoms.end(), [&](const Span &s) { return s.name == name; });
        if (it == atoms.end()) break;
        spans.append(*it);
        const qint64 header = be32At(file, it->offset) == 1 ? 16 : 8;
        begin = it->offset + header + (name == "meta" ? 4 : 0);
        end = it->end();
    }
    return spans;
}

Span findAtom(const QByteArray &file, const QByteArray &path) {
    const QList<Span> spans = spansAlong(file, path);
    return spans.size() == path.count('/') + 1 ? spans.last() : Span();
}

// "name@offset+size ..." of the top-level atoms, for failure messages.
std::string topLevel(const QByteArray &file) {
    std::ostringstream os;
    os << file.size() << " bytes:";
    for (const Span &s : atomsIn(file, 0, file.size()))
        os << ' ' << s.name.toHex().toStdString() << "(" << QString::fromLatin1(s.name).toStdString() << ")@"
           << s.offset << '+' << s.size;
    return os.str();
}

// The modification times our writer stamps: bytes 16 to 19 of the movie header and of the first
// track's track and media headers (version 0).
const char *const kStamped[] = {"moov/mvhd", "moov/trak/tkhd", "moov/trak/mdia/mdhd"};

QByteArray withStampsMasked(QByteArray file) {
    for (const char *path : kStamped) {
        if (const Span s = findAtom(file, path); s && s.size >= 20) file.replace(s.offset + 16, 4, "****");
    }
    return file;
}

QList<quint32> stampsOf(const QByteArray &file) {
    QList<quint32> stamps;
    for (const char *path : kStamped) {
        const Span s = findAtom(file, path);
        stamps.append(s && s.size >= 20 ? be32At(file, s.offset + 16) : 0);
    }
    return stamps;
}

// Seconds since 1904-01-01 UTC, as the movie headers count.
quint32 movieTime(const QDateTime &t) {
    return quint32(QDateTime(QDate(1904, 1, 1), QTime(0, 0), Qt::UTC).secsTo(t));
}

// --- corrupting files ---------------------------------------------------------------------------

QByteArray renamed(QByteArray file, const char *path, const char *name) {
    const Span s = findAtom(file, path);
    return s ? file.replace(s.offset + 4, 4, name) : QByteArray();
}

QByteArray withSizeField(QByteArray file, const char *path, quint32 size) {
    const Span s = findAtom(file, path);
    return s ? file.replace(s.offset, 4, be32(size)) : QByteArray();
}

QByteArray grownBy(const QByteArray &file, const char *path, qint64 by) {
    const Span s = findAtom(file, path);
    return s ? withSizeField(file, path, quint32(s.size + by)) : QByteArray();
}

// The atom's 32-bit header turned into an extended one (size 1, then 64 bits) saying size; the
// atoms around it grow by the 8 bytes.
QByteArray withExtendedHeader(QByteArray file, const char *path, quint64 size) {
    const QList<Span> spans = spansAlong(file, path);
    if (spans.size() != QByteArray(path).count('/') + 1) return {};
    for (qsizetype i = 0; i + 1 < spans.size(); ++i)
        file.replace(spans[i].offset, 4, be32(quint32(spans[i].size + 8)));
    const Span &s = spans.last();
    return file.replace(s.offset, 8, be32(1) + s.name + be64(size));
}

QByteArray withChunkOffsetCount(QByteArray file, quint32 count) {
    const Span s = findAtom(file, "moov/trak/mdia/minf/stbl/stco");
    return s ? file.replace(s.offset + 12, 4, be32(count)) : QByteArray();
}

QByteArray withChunkOffsetsShifted(QByteArray file, qint64 by) {
    const Span s = findAtom(file, "moov/trak/mdia/minf/stbl/stco");
    if (!s) return {};
    for (quint32 i = 0, n = be32At(file, s.offset + 12); i < n; ++i) {
        const qint64 at = s.offset + 16 + 4 * qint64(i);
        file.replace(at, 4, be32(quint32(be32At(file, at) + by)));
    }
    return file;
}

// 'mdat' with an extended header: an 8-byte 'free' right before it becomes the extra header bytes,
// its data staying where it was, unless told to insert them, when the data moves by 8 and the
// chunk offsets with it.
QByteArray withExtendedMdat(const QByteArray &file, bool insert = false) {
    const QList<Span> top = atomsIn(file, 0, file.size());
    for (qsizetype i = 0; i < top.size(); ++i) {
        if (top[i].name != "mdat") continue;
        const Span &mdat = top[i];
        if (!insert && i > 0 && top[i - 1].name == "free" && top[i - 1].size == 8)
            return file.left(top[i - 1].offset) + be32(1) + "mdat" + be64(quint64(mdat.size + 8)) +
                   file.mid(mdat.offset + 8);
        return withChunkOffsetsShifted(withExtendedHeader(file, "mdat", quint64(mdat.size + 8)), 8);
    }
    return {};
}

// The same with the 64-bit size set to size.
QByteArray withExtendedMdatSize(const QByteArray &file, quint64 size) {
    QByteArray extended = withExtendedMdat(file);
    const Span mdat = findAtom(extended, "mdat");
    return mdat ? extended.replace(mdat.offset + 8, 8, be64(size)) : QByteArray();
}

// --- the edit sets ------------------------------------------------------------------------------

enum class Added { Jpeg, Png, Big };

struct EditSet {
    const char *name;
    std::optional<QString> title, artist, album, year, track, genre, bpm, lyrics;
    std::optional<bool> compilation;
    bool removePictures = false;
    QList<Added> addPictures;
};

void PrintTo(const EditSet &e, std::ostream *os) {
    *os << e.name;
}

const EditSet kEditSets[] = {
    {.name = "latin1_accents",
     .title = u"Crème brûlée à la française"_s,
     .artist = u"Zoë Ångström"_s,
     .album = u"Façade ½ «live»"_s,
     .year = u"1999"_s,
     .track = u"5"_s,
     .genre = u"Jazz"_s,
     .bpm = u"128"_s,
     .lyrics = u"Première ligne\nDeuxième ligne, déjà vu\n\nDernière ligne"_s,
     .compilation = true},
    // Greek, Japanese and emoji (outside the BMP); the year a whole date; a JPEG added behind the
    // pictures that were there.
    {.name = "beyond_latin1",
     .title = u"Τα παιδιά του Πειραιά 🎵"_s,
     .artist = u"宮城道雄 🎹"_s,
     .album = u"日本の音楽 · Ελλάδα"_s,
     .year = u"2004-05-01T07:00:00Z"_s,
     .track = u"7/12"_s,
     .genre = u"Música 🎶"_s,
     .lyrics = u"春の海\nひねもすのたり 🌊\nのたりかな\n"_s,
     .addPictures = {Added::Jpeg}},
    {.name = "pictures_replaced", .removePictures = true, .addPictures = {Added::Jpeg, Added::Png}},
    {.name = "pictures_removed", .compilation = false, .removePictures = true},
    // Every field emptied: the items go, but for 'cpil', which is written as 0.
    {.name = "fields_cleared",
     .title = u""_s,
     .artist = u""_s,
     .album = u""_s,
     .year = u""_s,
     .track = u""_s,
     .genre = u""_s,
     .bpm = u""_s,
     .lyrics = u""_s,
     .compilation = false},
    // "5/" is track 5 of none; a tempo of 0 removes 'tmpo'.
    {.name = "track_without_total", .track = u"5/"_s, .bpm = u"0"_s},
    // "/9" gives track 0 of 0, written all the same.
    {.name = "total_without_track", .track = u"/9"_s, .bpm = u"300"_s},
    // Over 200 KB: 'meta' cannot take it in any padding of the set, so 'mdat' moves where it
    // comes after 'moov'.
    {.name = "big_cover", .addPictures = {Added::Big}},
};

const EditSet &editSetNamed(const char *name) {
    for (const EditSet &e : kEditSets) {
        if (qstrcmp(e.name, name) == 0) return e;
    }
    std::abort();
}

// --- values -------------------------------------------------------------------------------------

// The fields of a tag as our reader gives them; a null string is an absent field. The date is the
// whole stored ©day, which is what the writer writes back. A song without ©nam is titled after its
// file, and that title is written like any other.
struct Values {
    QString title, artist, album, date, track, genre, bpm, lyrics;
    bool compilation = false;
    QList<QByteArray> pictures; // sha1 in hex
};

// The text fields: the edit, our reader's value, the setter, and the text item it is written to
// (none for the track and the tempo, written as numbers). The items come in the order the writer
// makes them.
struct Field {
    std::optional<QString> EditSet::*edit;
    QString Values::*value;
    void (AACInfoTag::*set)(const QString &);
    const char16_t *item;
};

const Field kFields[] = {
    {&EditSet::title, &Values::title, &AACInfoTag::setTitle, u"©nam"},
    {&EditSet::artist, &Values::artist, &AACInfoTag::setArtist, u"©ART"},
    {&EditSet::album, &Values::album, &AACInfoTag::setAlbum, u"©alb"},
    {&EditSet::lyrics, &Values::lyrics, &AACInfoTag::setLyrics, u"©lyr"},
    {&EditSet::year, &Values::date, &AACInfoTag::setYear, u"©day"},
    {&EditSet::genre, &Values::genre, &AACInfoTag::setGenres, u"©gen"},
    {&EditSet::track, &Values::track, &AACInfoTag::setTrack, nullptr},
    {&EditSet::bpm, &Values::bpm, &AACInfoTag::setBPM, nullptr},
};

// The items our writer writes, by mutagen's keys, in the order it makes them; after them it removes
// 'gnre' and writes 'covr'. Everything else it leaves alone.
const QStringList kWritten = {u"©nam"_s, u"©ART"_s, u"©alb"_s, u"©lyr"_s, u"©day"_s,
                              u"©gen"_s, u"trkn"_s, u"tmpo"_s, u"cpil"_s};
const QStringList kOurItems = kWritten + QStringList{u"gnre"_s, u"covr"_s};

Values valuesOf(const AACInfoTag &tag) {
    const QVariant year = tag.attributes().value(u"year"_s);
    Values v(tag.title(), tag.artist(), tag.album(), year.isValid() ? year.toString() : QString(),
             tag.track(), tag.genres(), tag.bpm(), tag.lyrics(), tag.isPartOfCompilation());
    for (const ID3Image &image : tag.images())
        v.pictures.append(sha1Hex(image.imageData()));
    return v;
}

long long leadingNumber(const QString &s) {
    qsizetype n = 0;
    while (n < s.size() && s[n].isDigit())
        ++n;
    return n == 0 ? 0 : s.left(std::min<qsizetype>(n, 9)).toLongLong();
}

// trkn from the track text: "n/m" gives (n, m) when there is something on both sides of the
// slash, anything else (n, 0) from its leading number, so "5/" is (5, 0) and "/9" (0, 0).
std::pair<int, int> trackPair(const QString &track) {
    const qsizetype slash = track.indexOf(u'/');
    if (slash > 0 && slash < track.size() - 1)
        return {int(leadingNumber(track.left(slash)) & 0xFFFF),
                int(leadingNumber(track.mid(slash + 1)) & 0xFFFF)};
    return {int(leadingNumber(track) & 0xFFFF), 0};
}

// --- the programs that read the files -----------------------------------------------------------

QList<QJsonObject> readBack(const QStringList &paths, QString *problem) {
    if (paths.isEmpty()) return {};
    QByteArray out, err;
    const QString script = sourceDir() + u"/tests/tools/mp4_readback.py"_s;
    if (run(systemPython(), QStringList{script, u"read"_s} + paths, &out, &err) != 0) {
        *problem = u"mp4_readback.py failed: "_s + QString::fromUtf8(err).trimmed().right(600);
        return {};
    }
    QList<QJsonObject> entries;
    for (const QJsonValue &entry : QJsonDocument::fromJson(out).array())
        entries.append(entry.toObject());
    if (entries.size() != paths.size()) *problem = u"mp4_readback.py gave too few entries"_s;
    return entries;
}

QJsonObject readBackOne(const QString &path) {
    QString problem;
    const QList<QJsonObject> entries = readBack({path}, &problem);
    if (!problem.isEmpty()) ADD_FAILURE() << problem.toStdString();
    return entries.value(0);
}

// The MD5 of each file's decoded audio: `ffmpeg -v error -i F -map 0:a -f md5 -`. One ffmpeg
// decodes the batch, each input to its own output; when that fails each file goes alone.
QList<QByteArray> audioDigests(const QStringList &paths, const QString &scratch) {
    if (paths.isEmpty()) return {};
    QStringList inputs, outputs, maps;
    for (qsizetype i = 0; i < paths.size(); ++i) {
        outputs.append(u"%1/audio-%2.md5"_s.arg(scratch).arg(i));
        inputs << u"-i"_s << paths[i];
        maps << u"-map"_s << u"%1:a"_s.arg(i) << u"-f"_s << u"md5"_s << outputs.last();
    }
    QList<QByteArray> digests;
    if (ffmpeg(inputs + maps) == 0) {
        for (const QString &output : outputs)
            digests.append(readAll(output).trimmed());
        return digests;
    }
    for (const QString &path : paths) {
        QByteArray out;
        const int code = ffmpeg({u"-i"_s, path, u"-map"_s, u"0:a"_s, u"-f"_s, u"md5"_s, u"-"_s}, &out);
        digests.append(code == 0 ? out.trimmed() : QByteArray("ffmpeg failed"));
    }
    return digests;
}

QByteArray audioDigest(const QString &path) {
    const TempDir scratch;
    return audioDigests({path}, scratch.path()).value(0);
}

QJsonObject itemsOf(const QJsonObject &entry) {
    return entry.value(u"items").toObject();
}

QStringList ilstNames(const QJsonObject &entry) {
    QStringList out;
    for (const QJsonValue &a : entry.value(u"ilst").toArray())
        out.append(a.toObject().value(u"name").toString());
    return out;
}

QList<QByteArray> coverSha1s(const QJsonObject &entry) {
    QList<QByteArray> out;
    for (const QJsonValue &c : entry.value(u"covers").toArray())
        out.append(c.toObject().value(u"sha1").toString().toLatin1());
    return out;
}

QList<qint64> chunkOffsets(const QJsonObject &entry) {
    QList<qint64> out;
    for (const QJsonValue &v : entry.value(u"layout").toObject().value(u"stco").toArray())
        out.append(qint64(v.toDouble()));
    return out;
}

qint64 layoutNumber(const QJsonObject &entry, const char *key) {
    const QJsonValue v = entry.value(u"layout").toObject().value(QLatin1String(key));
    return v.isDouble() ? qint64(v.toDouble()) : -1;
}

// The chunk offsets of before, each moved as far as 'mdat' moved from before to after.
QList<qint64> offsetsMovedWithMdat(const QJsonObject &before, const QJsonObject &after) {
    QList<qint64> out;
    for (qint64 offset : chunkOffsets(before))
        out.append(offset + layoutNumber(after, "mdat") - layoutNumber(before, "mdat"));
    return out;
}

QJsonObject metaOf(const QJsonObject &entry) {
    return entry.value(u"layout").toObject().value(u"meta").toObject();
}

// --- the shared set of files --------------------------------------------------------------------

struct Fixture {
    QString file, tool, path;
    QByteArray bytes;   // as made: the shared set is never written
    QJsonObject before; // what mp4_readback.py read from it
    QByteArray audio;   // MD5 of the decoded audio
    bool hasItemList() const { return before.value(u"ilst").isArray(); }
    bool hasEmptyItemList() const { return hasItemList() && before.value(u"ilst").toArray().isEmpty(); }
};

struct Shared {
    QString skip, problem;
    std::unique_ptr<TempDir> dir; // pictures and the copies with added items
    QString set;                  // the tool-made set, only read
    QList<Fixture> fixtures;
    QByteArray jpeg, png, big;
    QString pngPath;
    bool haveAtomicParsley = false;
    const Fixture *fixture(const QString &file) const {
        for (const Fixture &f : fixtures) {
            if (f.file == file) return &f;
        }
        return nullptr;
    }
};

QByteArray makePicture(const QString &path, const QString &source, const char *quality) {
    ffmpeg({u"-f"_s, u"lavfi"_s, u"-i"_s, source, u"-frames:v"_s, u"1"_s, u"-q:v"_s, QLatin1String(quality),
            path});
    return readAll(path);
}

// Copies of these get an album artist, a composer, a disc number, an encoder and a '----' item.
const char *const kWithAddedItems[] = {"ap_padded_greek.m4a", "kid3_taglib.m4a", "ffmpeg_metadata_cover.m4a"};

void setUp(Shared &s) {
    if (!haveTool(u"ffmpeg"_s)) {
        s.skip = u"ffmpeg is not installed"_s;
        return;
    }
    if (run(systemPython(), {u"-c"_s, u"import mutagen.mp4"_s}) != 0) {
        s.skip = systemPython() + u" has no mutagen module"_s;
        return;
    }
    s.haveAtomicParsley = haveTool(u"AtomicParsley"_s);
    s.set = toolFixtureDir(u"mp4"_s, &s.problem);
    if (s.set.isEmpty()) return;
    s.dir = std::make_unique<TempDir>();
    s.pngPath = s.dir->file(u"added.png"_s);
    s.jpeg = makePicture(s.dir->file(u"added.jpg"_s), u"color=c=orange:s=48x32"_s, "3");
    s.png = makePicture(s.pngPath, u"color=c=purple:s=24x20"_s, "3");
    s.big = makePicture(s.dir->file(u"big.jpg"_s),
                        u"nullsrc=s=512x448,geq=random(1)*255:random(2)*255:random(3)*255"_s, "1");
    if (!s.jpeg.startsWith("\xFF\xD8") || !s.png.startsWith("\x89PNG") || !s.big.startsWith("\xFF\xD8") ||
        s.big.size() < 200000) {
        s.problem = u"ffmpeg made no JPEG, PNG or 200 KB JPEG picture"_s;
        return;
    }

    const QJsonObject manifest = QJsonDocument::fromJson(readAll(s.set + u"/manifest.json"_s)).object();
    for (const QJsonValue &f : manifest.value(u"fixtures").toArray()) {
        const QString file = f.toObject().value(u"file").toString();
        const QString path = s.set + u'/' + file;
        s.fixtures.append({file, f.toObject().value(u"tool").toString(), path, readAll(path)});
    }
    if (s.fixtures.isEmpty()) {
        s.problem = u"no fixtures in "_s + s.set + u"/manifest.json"_s;
        return;
    }
    for (const char *source : kWithAddedItems) {
        const QString from = s.set + u'/' + QLatin1String(source);
        const QString file = u"items_"_s + QLatin1String(source);
        const QString to = s.dir->file(file);
        if (!QFile::exists(from)) continue;
        QByteArray err;
        if (run(systemPython(), {sourceDir() + u"/tests/tools/mp4_readback.py"_s, u"add-items"_s, from, to},
                nullptr, &err) != 0) {
            s.problem = u"mp4_readback.py add-items failed: "_s + QString::fromUtf8(err).right(600);
            return;
        }
        s.fixtures.append({file, u"mutagen added items to "_s + QLatin1String(source), to, readAll(to)});
    }
}

// What the other programs read from the files before any change; only the tests that compare
// with it wait for it.
void readBackBefore(Shared &s) {
    QStringList paths;
    for (const Fixture &f : std::as_const(s.fixtures))
        paths.append(f.path);
    const QList<QJsonObject> before = readBack(paths, &s.problem);
    const QList<QByteArray> audio = audioDigests(paths, s.dir->path());
    if (!s.problem.isEmpty()) return;
    for (qsizetype i = 0; i < s.fixtures.size(); ++i) {
        s.fixtures[i].before = before[i];
        s.fixtures[i].audio = audio[i];
        if (before[i].contains(u"error"_s))
            s.problem += s.fixtures[i].file + u": mutagen: "_s + before[i].value(u"error").toString() + u'\n';
        if (!audio[i].startsWith("MD5="))
            s.problem += s.fixtures[i].file + u": ffmpeg cannot decode it before any change\n"_s;
    }
}

Shared &shared(bool withReadBack = true) {
    static Shared s = [] {
        Shared made;
        setUp(made);
        return made;
    }();
    static bool readBackDone = false;
    if (withReadBack && !readBackDone && s.skip.isEmpty() && s.problem.isEmpty()) {
        readBackDone = true;
        readBackBefore(s);
    }
    return s;
}

QByteArray fixtureBytes(const char *file) {
    const Fixture *f = shared(false).fixture(QLatin1String(file));
    return f ? f->bytes : QByteArray();
}

ID3Image pictureFor(Added a) {
    const Shared &s = shared(false);
    return a == Added::Png ? ID3Image(s.png, u"image/png"_s)
                           : ID3Image(a == Added::Jpeg ? s.jpeg : s.big, u"image/jpeg"_s);
}

// --- editing and saving -------------------------------------------------------------------------

Values applied(Values v, const EditSet &e) {
    for (const Field &f : kFields) {
        if (const std::optional<QString> &edit = e.*f.edit) v.*f.value = edit->isEmpty() ? QString() : *edit;
    }
    if (e.compilation) v.compilation = *e.compilation;
    if (e.removePictures) v.pictures.clear();
    for (Added a : e.addPictures)
        v.pictures.append(sha1Hex(pictureFor(a).imageData()));
    return v;
}

// The edits, through the tag's setters as the program makes them.
void applyEdits(AACInfoTag &tag, const EditSet &e) {
    for (const Field &f : kFields) {
        if (const std::optional<QString> &edit = e.*f.edit) (tag.*f.set)(*edit);
    }
    if (e.compilation) tag.setIsPartOfCompilation(*e.compilation);
    if (e.removePictures) tag.removeAllImages();
    for (Added a : e.addPictures)
        tag.addImage(pictureFor(a));
}

struct Opened {
    SongFilePtr song;
    std::shared_ptr<AACInfoTag> tag;
};

Opened open(const QString &path, QString *problem) {
    Opened r;
    r.song = SongFile::songWithPath(path);
    if (r.song) r.tag = std::dynamic_pointer_cast<AACInfoTag>(r.song->infotag());
    if (!r.tag) *problem = u"no AAC tag read"_s;
    return r;
}

// One save and what the other programs read from the file after it.
struct Save {
    QString path;
    QString problem;          // a step of the test that went wrong
    bool written = false;     // what the writer answered
    QString error;            // its error text
    QByteArray bytes;         // the file after the save
    quint32 from = 0, to = 0; // the movie time when the save began and ended
    QJsonObject after;        // mp4_readback.py
    QByteArray audio;         // MD5 of the decoded audio
};

// Opens the song at path afresh, makes the edits, saves it; our reader's values before the edits
// in *before.
Save saveEdited(const QString &path, const EditSet &e, Values *before = nullptr) {
    Save s;
    s.path = path;
    const Opened song = open(path, &s.problem);
    if (!song.tag) return s;
    if (before) *before = valuesOf(*song.tag);
    applyEdits(*song.tag, e);
    s.from = movieTime(QDateTime::currentDateTimeUtc());
    s.written = song.song->writeToOriginalPath(&s.error, false);
    s.to = movieTime(QDateTime::currentDateTimeUtc());
    s.bytes = readAll(path);
    return s;
}

// --- one round: every file, one edit set --------------------------------------------------------

struct Outcome {
    const Fixture *fixture = nullptr;
    Values before, expected; // our reader's values before the edits; those plus the edits
    Save saved;              // the copy saved once
    // Only where the item list was empty: the saved copy read afresh, edited the same way and saved.
    Save completed;
    // The same edits on another copy, saved twice by the same song, then read afresh and saved
    // with no change.
    QByteArray again, againSavedTwice, againAfterReading;
    QString againProblem;

    bool written() const { return saved.written; }
    std::string where(const char *editSet) const {
        return (fixture->file + u" ["_s + fixture->tool + u"] / "_s + QLatin1String(editSet)).toStdString();
    }
};

struct Round {
    QString problem;
    std::unique_ptr<TempDir> dir;
    QList<Outcome> outcomes;
};

void saveTwiceAndAfterReading(Outcome &o, const QString &path, const EditSet &e) {
    const Opened song = open(path, &o.againProblem);
    if (!song.tag) return;
    applyEdits(*song.tag, e);
    QString error;
    const auto save = [&](const SongFilePtr &by, QByteArray &into, const QString &what) {
        if (by && by->infotag() && by->writeToOriginalPath(&error, false)) {
            into = readAll(path);
            return true;
        }
        o.againProblem = what + u" failed: "_s + error;
        return false;
    };
    (void)(save(song.song, o.again, u"save"_s) && save(song.song, o.againSavedTwice, u"second save"_s) &&
           save(SongFile::songWithPath(path), o.againAfterReading, u"the saved file read back and saved"_s));
}

Round makeRound(const EditSet &e) {
    Round r;
    const Shared &s = shared();
    r.dir = std::make_unique<TempDir>();
    for (const char *sub : {"saved", "again", "completed"})
        QDir(r.dir->path()).mkpath(QLatin1String(sub));
    const auto copy = [&](const QString &from, const char *sub, const QString &file) {
        return copyWritable(from, r.dir->file(QLatin1String(sub) + u'/' + file));
    };
    for (const Fixture &f : s.fixtures) {
        Outcome o;
        o.fixture = &f;
        o.saved = saveEdited(copy(f.path, "saved", f.file), e, &o.before);
        o.expected = applied(o.before, e);
        if (o.written()) saveTwiceAndAfterReading(o, copy(f.path, "again", f.file), e);
        // Under the same file name, which a song without ©nam is titled after.
        if (o.written() && f.hasEmptyItemList())
            o.completed = saveEdited(copy(o.saved.path, "completed", f.file), e);
        r.outcomes.append(o);
    }
    QList<Save *> saves;
    QStringList paths;
    for (Outcome &o : r.outcomes) {
        for (Save *save : {&o.saved, &o.completed}) {
            if (!save->written) continue;
            saves.append(save);
            paths.append(save->path);
        }
    }
    const QList<QJsonObject> after = readBack(paths, &r.problem);
    const QList<QByteArray> audio = audioDigests(paths, r.dir->path());
    for (qsizetype i = 0; r.problem.isEmpty() && i < saves.size(); ++i) {
        saves[i]->after = after[i];
        saves[i]->audio = audio[i];
    }
    return r;
}

const Round &roundFor(const EditSet &e) {
    static std::map<std::string, Round> rounds;
    auto it = rounds.find(e.name);
    if (it == rounds.end()) it = rounds.emplace(e.name, makeRound(e)).first;
    return it->second;
}

// --- what the other programs must read ----------------------------------------------------------

// Our items as mutagen gives them, from the values the file must hold and the items it had before
// (was). A text item is its field's value followed by any further values the item had: setting a
// field replaces only the first 'data' atom of its item. '©gen' is the exception, as mutagen adds
// the genre of a 'gnre' atom to it and the writer removes 'gnre'. 'cpil' is always there. A
// tempo of 0 is no 'tmpo'.
QJsonObject expectedItems(const Values &x, const QJsonObject &was) {
    QJsonObject out;
    for (const Field &f : kFields) {
        if (!f.item || (x.*f.value).isNull()) continue;
        const QString key = QString::fromUtf16(f.item);
        QJsonArray list{x.*f.value};
        const QJsonArray old = was.value(key).toArray();
        for (qsizetype i = 1; key != u"©gen"_s && i < old.size(); ++i)
            list.append(old[i]);
        out.insert(key, list);
    }
    if (!x.track.isNull()) {
        const auto [number, total] = trackPair(x.track);
        out.insert(u"trkn"_s, QJsonArray{QJsonArray{number, total}});
    }
    if (const long long bpm = leadingNumber(x.bpm); bpm != 0)
        out.insert(u"tmpo"_s, QJsonArray{int(bpm & 0xFFFF)});
    out.insert(u"cpil"_s, QJsonArray{x.compilation});
    return out;
}

// An item list that is empty before the save takes only the first item the writer makes: the
// lookup that makes it appends it to the list without linking it to the list, so that every
// further item the save must make finds nothing to attach to and is left out. The next save reads
// the list afresh, with its links, and writes the rest.
QJsonObject firstMade(const QJsonObject &items) {
    for (const QString &key : kWritten) {
        if (items.contains(key)) return {{key, items.value(key)}};
    }
    return {};
}

// The same as AtomicParsley prints them: texts as they are, "n of m" (or "n" without a total),
// numbers, true or false, and how many pictures.
QJsonObject atomicParsleyForm(const QJsonObject &items, qsizetype pictures) {
    QJsonObject out;
    for (auto it = items.begin(); it != items.end(); ++it) {
        const QJsonArray values = it.value().toArray();
        if (it.key() == u"trkn"_s) {
            const int number = values[0].toArray()[0].toInt(), total = values[0].toArray()[1].toInt();
            out.insert(it.key(), QJsonArray{total == 0 ? QString::number(number)
                                                       : u"%1 of %2"_s.arg(number).arg(total)});
        } else if (it.key() == u"tmpo"_s) {
            out.insert(it.key(), QJsonArray{QString::number(values[0].toInt())});
        } else if (it.key() == u"cpil"_s) {
            out.insert(it.key(), QJsonArray{values[0].toBool() ? u"true"_s : u"false"_s});
        } else {
            out.insert(it.key(), values);
        }
    }
    if (pictures > 0)
        out.insert(u"covr"_s, QJsonArray{pictures == 1 ? u"1 piece of artwork"_s
                                                       : u"%1 pieces of artwork"_s.arg(pictures)});
    return out;
}

// The keys of an object that are (or are not) among our items; AtomicParsley's '----' keys carry
// their mean and name in brackets.
QJsonObject itemsWhere(const QJsonObject &items, bool ours) {
    QJsonObject out;
    for (auto it = items.begin(); it != items.end(); ++it) {
        if (kOurItems.contains(it.key()) == ours) out.insert(it.key(), it.value());
    }
    return out;
}

// The raw 'ilst' children that are not ours: "name sha1" in file order.
QStringList untouchedAtoms(const QJsonObject &entry) {
    QStringList out;
    for (const QJsonValue &a : entry.value(u"ilst").toArray()) {
        const QString name = a.toObject().value(u"name").toString();
        if (!kOurItems.contains(name)) out.append(name + u' ' + a.toObject().value(u"sha1").toString());
    }
    return out;
}

class Checker {
public:
    explicit Checker(std::string where)
        : mWhere(std::move(where)) {}
    template <typename... Parts> void fail(const Parts &...parts) {
        std::ostringstream os;
        (os << ... << parts);
        ADD_FAILURE() << mWhere << ": " << os.str();
    }
    // Each key of expected against got, and nothing more in got among keys.
    void same(const char *who, const QJsonObject &got, const QJsonObject &expected, const QStringList &keys) {
        for (const QString &key : keys) {
            if (json(got.value(key)) != json(expected.value(key)))
                fail(who, " ", key.toStdString(), ": expected ", json(expected.value(key)), ", reads ",
                     json(got.value(key)));
        }
    }

private:
    std::string mWhere;
};

// --- the tests ----------------------------------------------------------------------------------

class AACWriterRoundTripBase : public ::testing::Test {
protected:
    virtual bool comparesWithOtherPrograms() const { return true; }
    void SetUp() override {
        const Shared &s = shared(comparesWithOtherPrograms());
        if (!s.skip.isEmpty()) GTEST_SKIP() << s.skip.toStdString();
        ASSERT_TRUE(s.problem.isEmpty()) << s.problem.toStdString();
    }
    // A raised error leaves the size balancing switched on (as that path always has): not into
    // the next test.
    void TearDown() override { Atom::setAutoSizing(false); }
};

// A save the other programs read, and the items they must find in it.
struct Reading {
    const Outcome *outcome;
    const Save *save;
    QJsonObject items;
    std::string where;
};

class AACWriterRoundTripEdits : public AACWriterRoundTripBase, public ::testing::WithParamInterface<EditSet> {
protected:
    void SetUp() override {
        AACWriterRoundTripBase::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        mRound = &roundFor(GetParam());
        ASSERT_TRUE(mRound->problem.isEmpty()) << mRound->problem.toStdString();
    }
    const char *name() const { return GetParam().name; }
    // The outcomes of files that were written.
    QList<const Outcome *> written() const {
        QList<const Outcome *> out;
        for (const Outcome &o : mRound->outcomes) {
            if (o.written()) out.append(&o);
        }
        return out;
    }
    // Every save that was written: a list that was empty holds its first item after the first save,
    // everything after the second.
    QList<Reading> readings() const {
        QList<Reading> out;
        for (const Outcome *o : written()) {
            const QJsonObject all = expectedItems(o->expected, itemsOf(o->fixture->before));
            out.append(
                {o, &o->saved, o->fixture->hasEmptyItemList() ? firstMade(all) : all, o->where(name())});
            if (o->completed.written)
                out.append({o, &o->completed, all, o->where(name()) + " (read afresh and saved again)"});
        }
        return out;
    }
    const Round *mRound = nullptr;
};

// A file with an item list is written. One without (no udta or meta) is refused without an error
// text and left as it was, and so is one whose list is empty while the edits add a picture: 'covr'
// would be a further item in that save, with nothing to attach it to. Where an empty list took
// its first item, the next save takes the rest.
TEST_P(AACWriterRoundTripEdits, EveryFileWithAnItemListIsWritten) {
    const bool addsPictures = !GetParam().addPictures.isEmpty();
    for (const Outcome &o : mRound->outcomes) {
        Checker check(o.where(name()));
        for (const Save *save : {&o.saved, &o.completed}) {
            if (!save->problem.isEmpty()) check.fail(save->problem.toStdString());
        }
        if (!o.fixture->hasItemList() || (o.fixture->hasEmptyItemList() && addsPictures)) {
            if (o.written() || !o.saved.error.isEmpty())
                check.fail("expected a refusal without text, got ", o.written(), " ", show(o.saved.error));
            if (o.saved.bytes != o.fixture->bytes) check.fail("the refused file was changed");
        } else {
            if (!o.written()) check.fail("refused, error text ", show(o.saved.error));
            if (o.written() && o.fixture->hasEmptyItemList() && !o.completed.written)
                check.fail("read afresh and saved again, refused, error text ", show(o.completed.error));
        }
        if (readAll(o.fixture->path) != o.fixture->bytes)
            check.fail("the file the copy came from was changed");
    }
    for (const Reading &r : readings()) {
        if (r.save->after.contains(u"error"_s))
            ADD_FAILURE() << r.where
                          << ": mutagen: " << r.save->after.value(u"error").toString().toStdString();
    }
}

TEST_P(AACWriterRoundTripEdits, MutagenReadsBackWhatWeSet) {
    for (const Reading &r : readings()) {
        Checker check(r.where);
        check.same("mutagen", itemsOf(r.save->after), r.items, kWritten);
        if (ilstNames(r.save->after).contains(u"gnre"_s)) check.fail("a 'gnre' atom was written");

        // The pictures, in order, every one labelled JPEG whatever it is.
        for (const QJsonValue &c : r.save->after.value(u"covers").toArray()) {
            if (c.toObject().value(u"imageformat").toInt() != 13)
                check.fail("a picture with format ", c.toObject().value(u"imageformat").toInt(), ", not 13");
        }
        const QList<QByteArray> covers = coverSha1s(r.save->after), &expected = r.outcome->expected.pictures;
        if (covers != expected)
            check.fail("pictures: expected ", expected.size(), " ", expected.join(' ').toStdString(),
                       ", mutagen reads ", covers.size(), " ", covers.join(' ').toStdString());
    }
}

TEST_P(AACWriterRoundTripEdits, AtomicParsleyShowsTheSame) {
    if (!shared().haveAtomicParsley) GTEST_SKIP() << "AtomicParsley is not installed";
    for (const Reading &r : readings()) {
        Checker check(r.where);
        const QJsonObject ap = r.save->after.value(u"atomicparsley").toObject();
        if (ap.contains(u"error"_s)) {
            check.fail("AtomicParsley: ", ap.value(u"error").toString().toStdString());
            continue;
        }
        const QList<QByteArray> &pictures = r.outcome->expected.pictures;
        check.same("AtomicParsley", ap.value(u"values").toObject(),
                   atomicParsleyForm(r.items, pictures.size()), kOurItems);
        QList<QByteArray> artwork;
        for (const QJsonValue &a : ap.value(u"artwork").toArray())
            artwork.append(a.toString().toLatin1());
        if (artwork != pictures)
            check.fail("AtomicParsley extracts ", artwork.size(), " pictures ",
                       artwork.join(' ').toStdString(), ", expected ", pictures.join(' ').toStdString());
    }
}

TEST_P(AACWriterRoundTripEdits, TheAudioIsTheSame) {
    for (const Reading &r : readings()) {
        EXPECT_EQ(r.save->audio.toStdString(), r.outcome->fixture->audio.toStdString())
            << r.where << ": decoded audio differs after the save";
    }
}

// Every chunk offset moved as far as 'mdat' did. Where 'meta' kept its place and size, everything
// behind it is what it was.
TEST_P(AACWriterRoundTripEdits, ChunkOffsetsFollowMdat) {
    for (const Reading &r : readings()) {
        Checker check(r.where);
        const Fixture &f = *r.outcome->fixture;
        const QList<qint64> expected = offsetsMovedWithMdat(f.before, r.save->after);
        if (chunkOffsets(r.save->after) != expected || expected.isEmpty())
            check.fail("'mdat' moved from ", layoutNumber(f.before, "mdat"), " to ",
                       layoutNumber(r.save->after, "mdat"), ", the first chunk offset from ",
                       chunkOffsets(f.before).value(0), " to ", chunkOffsets(r.save->after).value(0), " (",
                       expected.size(), " offsets)");
        const QJsonObject meta = metaOf(f.before);
        if (meta == metaOf(r.save->after)) {
            const qint64 end = qint64(meta.value(u"offset").toDouble() + meta.value(u"size").toDouble());
            if (r.save->bytes.size() != f.bytes.size() || r.save->bytes.mid(end) != f.bytes.mid(end))
                check.fail("'meta' kept its place and size, but the bytes behind it changed");
        }
    }
}

// Items outside ours are there byte for byte and in their order, and both programs read them as
// before: encoders, album artists, composers, disc numbers, '----' items.
TEST_P(AACWriterRoundTripEdits, WhatTheEditsDidNotTouchSurvives) {
    qsizetype seen = 0;
    const auto apOthers = [](const QJsonObject &entry) {
        return itemsWhere(entry.value(u"atomicparsley").toObject().value(u"values").toObject(), false);
    };
    for (const Reading &r : readings()) {
        Checker check(r.where);
        const QJsonObject &was = r.outcome->fixture->before, &after = r.save->after;
        seen += untouchedAtoms(was).size();
        if (untouchedAtoms(after) != untouchedAtoms(was))
            check.fail("other items before: ", untouchedAtoms(was).join(u", ").toStdString(),
                       "; after: ", untouchedAtoms(after).join(u", ").toStdString());
        if (itemsWhere(itemsOf(was), false) != itemsWhere(itemsOf(after), false))
            check.fail("mutagen's other items: before ", json(itemsWhere(itemsOf(was), false)), ", after ",
                       json(itemsWhere(itemsOf(after), false)));
        if (shared().haveAtomicParsley && apOthers(was) != apOthers(after))
            check.fail("AtomicParsley's other items: before ", json(apOthers(was)), ", after ",
                       json(apOthers(after)));
    }
    EXPECT_GE(seen, 15) << "too few items of other kinds to look at";
}

// Whether our reader gives back what was written, so that saving a fresh read changes nothing. Not
// so for an emptied title, where the file's name stands in and is then written, nor for track 0
// ("/9" writes trkn 0 of 0), which reads as no track and then removes 'trkn'.
bool readsAsWritten(const Values &x) {
    return !x.title.isNull() && (x.track.isNull() || trackPair(x.track).first != 0);
}

// Saving again, by the same song or after reading the saved file afresh, gives the same bytes but
// for the modification times, which are the time of the save. Where the item list was empty, the
// first save wrote only its first item: saving again, by the same song or after a fresh read with
// the same edits, writes the rest, and both give the same file.
TEST_P(AACWriterRoundTripEdits, SavingAgainChangesOnlyTheTimeStamps) {
    for (const Outcome *o : written()) {
        Checker check(o->where(name()));
        if (!o->againProblem.isEmpty()) {
            check.fail(o->againProblem.toStdString());
            continue;
        }
        const QByteArray saved = withStampsMasked(o->saved.bytes);
        const QByteArray whole = o->completed.written ? withStampsMasked(o->completed.bytes) : saved;
        if (withStampsMasked(o->again) != saved)
            check.fail("the same edits on another copy give other bytes");
        if (withStampsMasked(o->againSavedTwice) != whole)
            check.fail(o->completed.written
                           ? "the same song saved twice differs from a fresh read saved again"
                           : "the same song saved twice differs");
        if (readsAsWritten(o->expected) && withStampsMasked(o->againAfterReading) != whole)
            check.fail("read back and saved with no change, the file differs (", whole.size(), " -> ",
                       o->againAfterReading.size(), " bytes)");
        for (const Save *save : {&o->saved, &o->completed}) {
            for (quint32 stamp : save->written ? stampsOf(save->bytes) : QList<quint32>()) {
                if (stamp < save->from || stamp > save->to)
                    check.fail("a modification time of ", stamp, ", the save ran from ", save->from, " to ",
                               save->to);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AACWriterRoundTrip, AACWriterRoundTripEdits, ::testing::ValuesIn(kEditSets),
                         [](const ::testing::TestParamInfo<EditSet> &info) {
                             return std::string(info.param.name);
                         });

// --- where 'mdat' goes --------------------------------------------------------------------------

class AACWriterRoundTripLayout : public AACWriterRoundTripBase {};

// The 200 KB picture in files whose 'mdat' comes after 'moov' with less padding than that: 'mdat'
// moves, its bytes as they were, and decodes to the same audio.
TEST_F(AACWriterRoundTripLayout, ABigCoverMovesMdatBehindMoov) {
    const Round &round = roundFor(editSetNamed("big_cover"));
    ASSERT_TRUE(round.problem.isEmpty()) << round.problem.toStdString();
    int moved = 0;
    const auto top = [](const QByteArray &file, const char *name) {
        const QList<Span> atoms = atomsIn(file, 0, file.size());
        const auto it =
            std::find_if(atoms.begin(), atoms.end(), [&](const Span &s) { return s.name == name; });
        return it == atoms.end() ? Span() : *it;
    };
    for (const Outcome &o : round.outcomes) {
        const Fixture &f = *o.fixture;
        if (!o.written() || layoutNumber(f.before, "mdat") < metaOf(f.before).value(u"offset").toDouble())
            continue;
        ++moved;
        const std::string where = o.where("big_cover");
        // Space given back by items the writer rewrote may go to a 'free' between 'moov' and
        // 'mdat', so 'mdat' moves by what 'moov' grew give or take that.
        EXPECT_GE(top(o.saved.bytes, "moov").size - top(f.bytes, "moov").size, shared().big.size()) << where;
        EXPECT_GE(top(o.saved.bytes, "mdat").offset - top(f.bytes, "mdat").offset, shared().big.size())
            << where;
        EXPECT_EQ(o.saved.bytes.mid(top(o.saved.bytes, "mdat").offset),
                  f.bytes.mid(top(f.bytes, "mdat").offset))
            << where << ": the media data is not what it was";
        EXPECT_EQ(o.saved.audio, f.audio) << where;
    }
    EXPECT_GE(moved, 3) << "too few files with 'mdat' behind 'moov'";
}

// A title changed in a file with room in the padding behind the item list: 'meta' keeps its place
// and size, so the rest of the file, 'mdat' and the chunk offsets included, is not touched.
TEST_F(AACWriterRoundTripLayout, ATitleChangeWithRoomKeepsMdatInPlace) {
    const TempDir dir;
    const EditSet titleOnly{.name = "title_only", .title = u"Ein ganz anderer, längerer Titel ✓"_s};
    int seen = 0;
    for (const char *file :
         {"mutagen_unicode_two_covers.m4a", "items_ffmpeg_metadata_cover.m4a", "kid3_taglib.m4a"}) {
        const Fixture *f = shared().fixture(QLatin1String(file));
        if (!f) continue; // kid3-cli may be missing
        ++seen;
        const Save s = saveEdited(copyWritable(f->path, dir.file(f->file)), titleOnly);
        ASSERT_TRUE(s.written) << file << ": " << s.error.toStdString() << s.problem.toStdString();
        const Span meta = findAtom(f->bytes, "moov/udta/meta");
        ASSERT_TRUE(meta) << file;
        EXPECT_EQ(s.bytes.size(), f->bytes.size()) << file;
        EXPECT_EQ(findAtom(s.bytes, "moov/udta/meta").offset, meta.offset) << file;
        EXPECT_EQ(findAtom(s.bytes, "moov/udta/meta").size, meta.size) << file;
        EXPECT_TRUE(s.bytes.mid(meta.end()) == f->bytes.mid(meta.end()))
            << file << ": bytes behind 'meta' changed";
        const QJsonObject after = readBackOne(s.path);
        EXPECT_EQ(layoutNumber(after, "mdat"), layoutNumber(f->before, "mdat")) << file;
        EXPECT_EQ(chunkOffsets(after), chunkOffsets(f->before)) << file;
        EXPECT_EQ(json(itemsOf(after).value(u"©nam"_s)), json(QJsonArray{*titleOnly.title})) << file;
    }
    EXPECT_GE(seen, 2);
}

// 'mdat' with a 64-bit size, in front of 'moov' and behind it: written back with a 32-bit header,
// its data where it was or moved with the chunk offsets.
TEST_F(AACWriterRoundTripLayout, AnExtendedSizeMdatKeepsItsAudio) {
    const TempDir dir;
    const EditSet e{.name = "extended", .title = u"Extended"_s, .addPictures = {Added::Big}};
    for (const char *file : {"ffmpeg_title_only.m4a", "ffmpeg_96k.m4a"}) {
        const Fixture *f = shared().fixture(QLatin1String(file));
        ASSERT_TRUE(f) << file;
        const QByteArray extended = withExtendedMdat(f->bytes, true);
        ASSERT_FALSE(extended.isEmpty()) << file;
        const QString path = dir.write(f->file, extended);
        ASSERT_EQ(audioDigest(path), f->audio) << file << ": the extended-size copy does not decode the same";
        const QJsonObject before = readBackOne(path);
        const Save s = saveEdited(path, e);
        ASSERT_TRUE(s.written) << file << ": " << s.error.toStdString() << s.problem.toStdString();
        EXPECT_EQ(audioDigest(path), f->audio) << file;
        const QJsonObject after = readBackOne(path);
        EXPECT_EQ(chunkOffsets(after), offsetsMovedWithMdat(before, after)) << file;
        EXPECT_EQ(json(itemsOf(after).value(u"©nam"_s)), json(QJsonArray{u"Extended"_s})) << file;
        EXPECT_EQ(coverSha1s(after).value(coverSha1s(after).size() - 1), sha1Hex(shared().big)) << file;
    }
}

// An item list that was empty (as ffmpeg leaves it) takes only the first item the writer makes in
// one save, and refuses a picture, which would be a further item; read afresh and saved again, it
// takes the rest, the picture too.
TEST_F(AACWriterRoundTripLayout, AnEmptyItemListTakesItsFirstItemThenTheRestOnTheNextSave) {
    const Fixture *f = shared().fixture(u"ffmpeg_bare.m4a"_s);
    ASSERT_TRUE(f);
    ASSERT_TRUE(f->hasEmptyItemList()) << "the item list is not empty";
    const TempDir dir;
    const QString path = dir.write(f->file, f->bytes);
    EditSet e{.name = "empty_list",
              .title = u"First"_s,
              .artist = u"Second"_s,
              .track = u"2/3"_s,
              .compilation = true,
              .addPictures = {Added::Png}};

    Save s = saveEdited(path, e);
    EXPECT_FALSE(s.written) << "a picture in an empty item list was written";
    EXPECT_TRUE(s.error.isEmpty()) << show(s.error);
    EXPECT_TRUE(s.bytes == f->bytes) << "the refused file was changed";

    e.addPictures.clear();
    s = saveEdited(path, e);
    ASSERT_TRUE(s.written) << "refused, error text " << show(s.error) << s.problem.toStdString();
    QJsonObject after = readBackOne(path);
    EXPECT_EQ(json(itemsOf(after)), json(QJsonObject{{u"©nam"_s, QJsonArray{u"First"_s}}}));
    EXPECT_EQ(ilstNames(after), QStringList{u"©nam"_s});
    EXPECT_EQ(audioDigest(path), f->audio);

    e.addPictures = {Added::Png};
    s = saveEdited(path, e);
    ASSERT_TRUE(s.written) << "saved again, refused, error text " << show(s.error) << s.problem.toStdString();
    after = readBackOne(path);
    const QJsonObject expected{{u"©nam"_s, QJsonArray{u"First"_s}},
                               {u"©ART"_s, QJsonArray{u"Second"_s}},
                               {u"trkn"_s, QJsonArray{QJsonArray{2, 3}}},
                               {u"cpil"_s, QJsonArray{true}}};
    EXPECT_EQ(json(itemsOf(after)), json(expected))
        << "item atoms: " << ilstNames(after).join(' ').toStdString();
    EXPECT_EQ(coverSha1s(after), QList<QByteArray>{sha1Hex(shared().png)});
    EXPECT_EQ(audioDigest(path), f->audio);
}

// --- files the writer must refuse ---------------------------------------------------------------

const char kRaised[] = "can't modify (an error occurred): ";
const char kNoDate[] = "cannot set modification date";
const char kNoOffsets[] = "cannot update chunk offsets";

QByteArray built(bool mdatFirst = false) {
    mb::Song s;
    s.items = {mb::textItem(u"©nam"_s, u"Built"_s), mb::binaryItem("cpil", QByteArray(1, 0))};
    s.mdatFirst = mdatFirst;
    return mb::song(s);
}

struct BadInput {
    const char *name;
    QByteArray (*make)();
    bool growMeta; // a 200 KB picture is added, so that 'meta' must grow and 'mdat' move
    const char *error;
};

void PrintTo(const BadInput &b, std::ostream *os) {
    *os << b.name;
}

const BadInput kBadInputs[] = {
    // Atom sizes that cannot be.
    {"size_2_in_the_item_list",
     [] {
         mb::Song s;
         s.items = {mb::textItem(u"©nam"_s, u"T"_s), be32(2) + "junk" + QByteArray(8, 0)};
         return mb::song(s);
     },
     false, kRaised},
    {"size_7_at_the_top", [] { return built() + be32(7) + "skip"; }, false, kRaised},
    {"size_5_in_the_sample_table", [] { return withSizeField(built(), "moov/trak/mdia/minf/stbl/stco", 5); },
     false, kRaised},
    {"item_size_3",
     [] {
         QByteArray file = fixtureBytes("mutagen_unicode_two_covers.m4a");
         const Span ilst = findAtom(file, "moov/udta/meta/ilst");
         return ilst ? file.replace(ilst.offset + 8, 4, be32(3)) : QByteArray();
     },
     false, kRaised},
    {"extended_size_of_moov_past_the_end",
     [] {
         const QByteArray file = built();
         return withExtendedHeader(file, "moov", quint64(findAtom(file, "moov").size + 8 + 1000000));
     },
     false, kRaised},
    {"extended_size_of_moov_below_its_header", [] { return withExtendedHeader(built(), "moov", 4); }, false,
     kRaised},
    {"extended_size_of_udta_past_moov",
     [] {
         const QByteArray file = built(true);
         return withExtendedHeader(file, "moov/udta", quint64(findAtom(file, "moov/udta").size + 8 + 64));
     },
     false, kRaised},
    // An extended size below the 16 bytes of its own header, of a leaf as of a container: 'mdat' in
    // front of 'moov' and behind it.
    {"mdat_extended_size_12_over_moov",
     [] { return withExtendedMdatSize(fixtureBytes("ffmpeg_title_only.m4a"), 12); }, false, kRaised},
    {"mdat_extended_size_4_behind_moov",
     [] { return withExtendedMdatSize(fixtureBytes("ffmpeg_96k.m4a"), 4); }, false, kRaised},
    {"moov_past_the_end", [] { return grownBy(built(true), "moov", 1000); }, false, kRaised},
    {"moov_past_the_end_96k", [] { return grownBy(fixtureBytes("ffmpeg_96k.m4a"), "moov", 100000); }, false,
     kRaised},
    {"udta_overruns_moov", [] { return grownBy(built(true), "moov/udta", 16); }, false, kRaised},
    {"udta_overruns_moov_96k", [] { return grownBy(fixtureBytes("ffmpeg_96k.m4a"), "moov/udta", 64); }, false,
     kRaised},
    {"cut_short_in_moov",
     [] {
         const QByteArray file = fixtureBytes("ffmpeg_title_only.m4a");
         const Span moov = findAtom(file, "moov");
         return moov ? file.left(moov.offset + moov.size / 2) : QByteArray();
     },
     false, kRaised},
    // 'mdat' in front of 'moov' claiming more than there is: cut at the end of the file like any
    // leaf (ALeafPastTheEndIsCutThereAndWritten), it has swallowed 'moov', so there is no item list.
    {"mdat_over_moov", [] { return grownBy(fixtureBytes("ffmpeg_title_only.m4a"), "mdat", 1000); }, false,
     ""},
    // Nothing to hold the items.
    {"no_moov", [] { return renamed(built(), "moov", "moox"); }, false, ""},
    {"no_udta",
     [] {
         mb::Song s;
         s.withUdta = false;
         return mb::song(s);
     },
     false, ""},
    {"no_udta_fixture", [] { return fixtureBytes("no_udta.m4a"); }, false, ""},
    {"no_meta", [] { return renamed(built(), "moov/udta/meta", "metx"); }, false, ""},
    {"no_ilst", [] { return renamed(built(), "moov/udta/meta/ilst", "ilsx"); }, false, ""},
    {"no_ilst_padded",
     [] { return renamed(fixtureBytes("mutagen_gnre_zero_reference.m4a"), "moov/udta/meta/ilst", "ilsx"); },
     true, ""},
    // Nothing to stamp.
    {"no_mvhd", [] { return renamed(built(), "moov/mvhd", "mvhx"); }, false, kNoDate},
    {"no_tkhd", [] { return renamed(built(), "moov/trak/tkhd", "tkhx"); }, false, kNoDate},
    {"no_mdhd", [] { return renamed(built(), "moov/trak/mdia/mdhd", "mdhx"); }, false, kNoDate},
    {"no_mdhd_above_320",
     [] { return renamed(fixtureBytes("mutagen_above_320.m4a"), "moov/trak/mdia/mdhd", "mdhx"); }, true,
     kNoDate},
    // 'meta' grows and 'mdat' must move, but its chunk offsets cannot follow.
    {"no_mdat", [] { return renamed(built(), "mdat", "mdax"); }, true, kNoOffsets},
    {"no_mdat_faststart", [] { return renamed(fixtureBytes("ffmpeg_metadata_cover.m4a"), "mdat", "mdax"); },
     true, kNoOffsets},
    {"no_stco", [] { return renamed(built(), "moov/trak/mdia/minf/stbl/stco", "stcx"); }, true, kNoOffsets},
    {"stco_count_too_big", [] { return withChunkOffsetCount(built(), 1000); }, true, kNoOffsets},
    {"stco_count_too_big_two_covers",
     [] { return withChunkOffsetCount(fixtureBytes("mutagen_unicode_two_covers.m4a"), 100000); }, true,
     kNoOffsets},
};

class AACWriterRoundTripRefusal : public AACWriterRoundTripBase,
                                  public ::testing::WithParamInterface<BadInput> {
protected:
    bool comparesWithOtherPrograms() const override { return false; }
};

// Refused with the writer's own answer, and the file byte for byte as it was, with no file left
// beside it.
TEST_P(AACWriterRoundTripRefusal, IsRefusedAndLeavesTheFileAlone) {
    const BadInput &bad = GetParam();
    const QByteArray bytes = bad.make();
    ASSERT_FALSE(bytes.isEmpty()) << "the bad file could not be made";
    const TempDir dir;
    const QString path = dir.write(u"bad.m4a"_s, bytes);
    AACInfoTag tag;
    (void)tag.initWithPath(path); // whatever it reads, the writer decides
    tag.setTitle(u"Refused"_s);
    tag.setIsPartOfCompilation(true);
    if (bad.growMeta) tag.addImage(pictureFor(Added::Big));
    QString error;
    EXPECT_FALSE(tag.modifySongFileAtPath(path, &error));
    EXPECT_EQ(error.toStdString(), std::string(bad.error));
    const QByteArray after = readAll(path);
    EXPECT_TRUE(after == bytes) << "the file changed: " << topLevel(bytes) << " -> " << topLevel(after);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{u"bad.m4a"_s});
}

INSTANTIATE_TEST_SUITE_P(AACWriterRoundTrip, AACWriterRoundTripRefusal, ::testing::ValuesIn(kBadInputs),
                         [](const ::testing::TestParamInfo<BadInput> &info) {
                             return std::string(info.param.name);
                         });

// A file the process may not write: refused with no text, unchanged.
TEST_F(AACWriterRoundTripLayout, AnUnwritableFileIsRefused) {
    if (geteuid() == 0) GTEST_SKIP() << "running as root, a read-only file can be written";
    const TempDir dir;
    const QString path = dir.write(u"locked.m4a"_s, fixtureBytes("mutagen_unicode_two_covers.m4a"));
    ASSERT_TRUE(QFile::setPermissions(path, QFileDevice::ReadOwner));
    AACInfoTag tag;
    ASSERT_TRUE(tag.initWithPath(path));
    tag.setTitle(u"Not written"_s);
    QString error;
    EXPECT_FALSE(tag.modifySongFileAtPath(path, &error));
    EXPECT_TRUE(error.isEmpty()) << error.toStdString();
    EXPECT_TRUE(readAll(path) == fixtureBytes("mutagen_unicode_two_covers.m4a"));
}

// --- a leaf running past the end of the file ----------------------------------------------------

// The console lines logged while it lives, switched on for that time; other messages go on as before.
class ConsoleLines {
public:
    ConsoleLines() {
        sLines.clear();
        Log::setConsoleEnabled(true);
        sPrevious = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext &context, const QString &line) {
                if (qstrcmp(context.category, "quillwave.console") == 0)
                    sLines.append(line);
                else if (sPrevious)
                    sPrevious(type, context, line);
            });
    }
    ~ConsoleLines() {
        qInstallMessageHandler(sPrevious);
        Log::setConsoleEnabled(mWasEnabled);
    }
    QString text() const { return sLines.join(u'\n'); }

private:
    static inline QStringList sLines;
    static inline QtMessageHandler sPrevious = nullptr;
    const bool mWasEnabled = lcConsole().isInfoEnabled();
};

// 'mdat' behind 'moov' claiming more than the file holds, by its 32-bit size or its extended one,
// or the file cut short inside it: the leaf is cut at the end of the file, with a console line,
// and taken. The save succeeds and writes it with a 32-bit size saying what is really there, its
// bytes as they were up to the end, the chunk offsets moved with it and the items set.
TEST_F(AACWriterRoundTripLayout, ALeafPastTheEndIsCutThereAndWritten) {
    const QByteArray bytes = fixtureBytes("ffmpeg_96k.m4a");
    const Span mdat = findAtom(bytes, "mdat");
    ASSERT_TRUE(mdat && mdat.end() == bytes.size()) << "'mdat' is not last: " << topLevel(bytes);
    const struct {
        const char *name;
        QByteArray bad;
    } cases[] = {
        {"mdat_past_the_end_behind_moov", grownBy(bytes, "mdat", 5000)},
        {"cut_short_in_mdat", bytes.left(bytes.size() - 5000)},
        {"mdat_extended_size_past_the_end", withExtendedMdatSize(bytes, quint64(mdat.size + 8 + 5000))},
    };
    const TempDir dir;
    const EditSet e{
        .name = "cut", .title = u"Cut at the end"_s, .compilation = true, .addPictures = {Added::Jpeg}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_FALSE(c.bad.isEmpty());
        const QString path = dir.write(QLatin1String(c.name) + u".m4a"_s, c.bad);
        const QJsonObject before = readBackOne(path);
        const QByteArray audio = audioDigest(path);
        const ConsoleLines console;
        const Save s = saveEdited(path, e);
        ASSERT_TRUE(s.written) << "refused, error text " << show(s.error) << s.problem.toStdString();
        EXPECT_TRUE(s.error.isEmpty()) << show(s.error);
        EXPECT_TRUE(console.text().contains(u"Atom (mdat) will trunc"_s)) << console.text().toStdString();

        const QList<Span> top = atomsIn(s.bytes, 0, s.bytes.size());
        ASSERT_FALSE(top.isEmpty());
        const Span &last = top.last();
        EXPECT_EQ(last.name, "mdat") << topLevel(s.bytes);
        EXPECT_EQ(be32At(s.bytes, last.offset), quint32(s.bytes.size() - last.offset)) << topLevel(s.bytes);
        EXPECT_TRUE(s.bytes.mid(last.offset + 8) == c.bad.mid(layoutNumber(before, "mdat") + 8))
            << "the media data is not what was there";

        const QJsonObject after = readBackOne(path);
        QJsonObject items = itemsOf(before);
        items.insert(u"©nam"_s, QJsonArray{*e.title});
        items.insert(u"cpil"_s, QJsonArray{true});
        EXPECT_EQ(json(itemsOf(after)), json(items));
        EXPECT_EQ(coverSha1s(after), QList<QByteArray>{sha1Hex(shared().jpeg)});
        EXPECT_EQ(chunkOffsets(after), offsetsMovedWithMdat(before, after));
        EXPECT_EQ(audioDigest(path), audio);
    }
}

// --- the command line ---------------------------------------------------------------------------

struct CliResult {
    int exitCode = -1;
    QString out, err;
};

CliResult cli(const QStringList &args) {
    CliResult r;
    QByteArray out, err;
    r.exitCode = run(cliPath(), args, &out, &err);
    r.out = QString::fromUtf8(out);
    r.err = QString::fromUtf8(err);
    return r;
}

class AACWriterRoundTripCli : public AACWriterRoundTripBase {
protected:
    QString copy(const char *file) {
        const Fixture *f = shared().fixture(QLatin1String(file));
        return f ? mDir.write(f->file, f->bytes) : QString();
    }
    TempDir mDir;
};

TEST_F(AACWriterRoundTripCli, SetWritesWhatMutagenReadsBack) {
    const QStringList files = {copy("ffmpeg_metadata_cover.m4a"), copy("mutagen_above_320.m4a"),
                               copy("items_ffmpeg_metadata_cover.m4a")};
    ASSERT_FALSE(files.contains(QString()));
    const QString lyrics = u"Γραμμή ένα\nLine two, ünïcödé\n日本語 🎼 three\n"_s;
    const QString lyricsFile = mDir.write(u"lyrics.txt"_s, lyrics.toUtf8());
    const QString title = u"Νέος τίτλος 🎺"_s, date = u"2004-05-01T07:00:00Z"_s;
    CliResult r = cli(QStringList{u"set"_s} + files +
                      QStringList{u"--title"_s, title, u"--album"_s, QString(), u"--year"_s, date,
                                  u"--track"_s, u"7/12"_s, u"--bpm"_s, u"99"_s, u"--lyrics-file"_s,
                                  lyricsFile, u"--remove-pictures"_s, u"--add-picture"_s, shared().pngPath,
                                  u"--compilation"_s, u"yes"_s, u"--quiet"_s});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    for (const QString &file : files)
        EXPECT_TRUE(r.out.contains(file + u"\tAAC"_s)) << r.out.toStdString();

    QString problem;
    const QList<QJsonObject> after = readBack(files, &problem);
    ASSERT_TRUE(problem.isEmpty()) << problem.toStdString();
    const QList<QByteArray> audio = audioDigests(files, mDir.path());
    // An empty album removes ©alb.
    const QJsonObject expected{{u"©nam"_s, QJsonArray{title}},
                               {u"©day"_s, QJsonArray{date}},
                               {u"trkn"_s, QJsonArray{QJsonArray{7, 12}}},
                               {u"tmpo"_s, QJsonArray{99}},
                               {u"cpil"_s, QJsonArray{true}},
                               {u"©lyr"_s, QJsonArray{lyrics}}};
    for (qsizetype i = 0; i < files.size(); ++i) {
        const QString file = QFileInfo(files[i]).fileName();
        Checker check(file.toStdString());
        check.same("mutagen", itemsOf(after[i]), expected, expected.keys() + QStringList{u"©alb"_s});
        const QJsonArray covers = after[i].value(u"covers").toArray();
        if (coverSha1s(after[i]) != QList<QByteArray>{sha1Hex(shared().png)})
            check.fail("pictures: ", coverSha1s(after[i]).join(' ').toStdString(),
                       ", expected the PNG alone");
        if (covers.size() == 1 && covers[0].toObject().value(u"imageformat").toInt() != 13)
            check.fail("the PNG is not labelled JPEG");
        if (audio[i] != shared().fixture(file)->audio) check.fail("decoded audio differs");
    }
    // What mutagen added to the third file is still there.
    EXPECT_EQ(json(itemsOf(after[2]).value(u"aART"_s)), json(QJsonArray{u"Album Ärtist"_s}));
    EXPECT_EQ(json(itemsOf(after[2]).value(u"disk"_s)), json(QJsonArray{QJsonArray{1, 2}}));

    // Again: the pictures go, an empty title removes ©nam, a tempo of 0 removes tmpo, and
    // --compilation no leaves cpil at 0.
    r = cli({u"set"_s, files[0], u"--remove-pictures"_s, u"--title"_s, QString(), u"--bpm"_s, u"0"_s,
             u"--compilation"_s, u"no"_s, u"--quiet"_s});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QJsonObject again = readBackOne(files[0]);
    EXPECT_TRUE(again.value(u"covers").toArray().isEmpty());
    Checker("saved again")
        .same("mutagen", itemsOf(again), {{u"cpil"_s, QJsonArray{false}}, {u"©day"_s, QJsonArray{date}}},
              {u"©nam"_s, u"tmpo"_s, u"cpil"_s, u"©day"_s});
    EXPECT_EQ(audioDigest(files[0]), shared().fixture(u"ffmpeg_metadata_cover.m4a"_s)->audio);
}

TEST_F(AACWriterRoundTripCli, ShowListsTheAtoms) {
    const QString file = copy("ffmpeg_metadata_cover.m4a");
    ASSERT_FALSE(file.isEmpty());
    const CliResult r = cli({u"show"_s, file, u"--quiet"_s});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains(u"FF Title"_s)) << r.out.toStdString();
    const qsizetype atoms = r.out.indexOf(u"atoms:"_s);
    ASSERT_GE(atoms, 0) << r.out.toStdString();
    for (const QString &name : {u"'moov'"_s, u"'mdat'"_s, u"'ilst'"_s, u"'©nam'"_s, u"'covr'"_s})
        EXPECT_TRUE(r.out.indexOf(name, atoms) > atoms) << name.toStdString() << " not in:\n"
                                                        << r.out.toStdString();
}

// Files the command line cannot write are named on standard error, the exit code is 1, they are
// as they were, and the others are written all the same.
TEST_F(AACWriterRoundTripCli, FilesThatCannotBeWrittenAreNamedAndLeftAlone) {
    const QString good = copy("mutagen_unicode_two_covers.m4a");
    const QString noItems = copy("no_udta.m4a");
    ASSERT_FALSE(good.isEmpty() || noItems.isEmpty());
    QStringList refused{noItems};
    QString locked;
    if (geteuid() != 0) {
        locked = copy("mutagen_above_320.m4a");
        ASSERT_TRUE(QFile::setPermissions(locked, QFileDevice::ReadOwner | QFileDevice::ReadGroup));
        refused.append(locked);
    }
    QMap<QString, QByteArray> bytes;
    for (const QString &path : refused)
        bytes.insert(path, readAll(path));
    const CliResult r =
        cli(QStringList{u"set"_s, good} + refused + QStringList{u"--artist"_s, u"Nobody"_s, u"--quiet"_s});
    EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains(good + u"\tAAC"_s)) << r.out.toStdString() << r.err.toStdString();
    for (const QString &path : refused) {
        EXPECT_TRUE(r.err.contains(u"quillwave-cli: "_s + path + u": not written: "_s))
            << path.toStdString() << " not named in:\n"
            << r.err.toStdString();
        EXPECT_TRUE(readAll(path) == bytes.value(path)) << path.toStdString() << " was changed";
    }
    EXPECT_TRUE(r.err.contains(u"no item list to hold tags"_s)) << r.err.toStdString();
    if (!locked.isEmpty()) EXPECT_TRUE(r.err.contains(u"read-only"_s)) << r.err.toStdString();
    EXPECT_EQ(json(itemsOf(readBackOne(good)).value(u"©ART"_s)), json(QJsonArray{u"Nobody"_s}));
}

} // namespace
