// Round trips of our ID3 writer. Every file of the tool-made set (tests/tools/make_mp3_fixtures.py)
// and a few made here is copied, edited through the song API with one edit set and saved; mutagen
// (tests/tools/mutagen_dump.py) must read back what we set, under our writer's own rules where it
// deliberately differs, ffmpeg must decode the same audio, and what the edits did not touch stays.
#include "id3/MP3InfoTag.h"
#include "model/SongFile.h"
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
#include <QStringDecoder>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <unistd.h>

using namespace TestSupport;
using namespace Qt::StringLiterals;

namespace {

const QChar kMark(0xFEFF);

enum class Added { Jpeg, Png };

struct EditSet {
    const char *name;
    std::optional<QString> title, artist, album, year, track, genre, bpm, lyrics;
    std::optional<bool> compilation;
    bool removePictures = false;
    QList<Added> addPictures;
    // Whether a file with an ID3v1 tag alone and no comment stays so, said outright.
    std::optional<bool> id3v1AloneStays;
};

void PrintTo(const EditSet &e, std::ostream *os) {
    *os << e.name;
}

// clang-format off
const EditSet kEditSets[] = {
    // Fits an ID3v1.1 tag: the tempo, the lyrics and the compilation flag do not count (and are lost).
    {.name = "latin1_accents", .title = u"Crème brûlée à la française"_s,
     .artist = u"Zoë Ångström"_s, .album = u"Façade ½ «live»"_s,
     .year = u"1984"_s, .track = u"5"_s, .genre = u"Jazz"_s,
     .bpm = u"128"_s, .lyrics = u"Première ligne\nDeuxième ligne, déjà vu\n\nDernière"_s,
     .compilation = true, .id3v1AloneStays = true},
    {.name = "beyond_latin1", .title = u"Τα παιδιά του Πειραιά 🎵"_s,
     .artist = u"宮城道雄 🎹"_s, .album = u"日本の音楽 · Ελλάδα"_s,
     .year = u"2021"_s, .track = u"3/12"_s, .genre = u"Música 🎶"_s,
     .lyrics = u"春の海\nひねもすのたり 🌊\nのたりかな\n"_s, .addPictures = {Added::Jpeg},
     .id3v1AloneStays = false},
    {.name = "pictures_replaced", .removePictures = true, .addPictures = {Added::Jpeg, Added::Png},
     .id3v1AloneStays = false},
    {.name = "pictures_removed", .compilation = false, .removePictures = true},
    {.name = "fields_cleared", .artist = QString(""), .album = QString(""), .year = QString(""),
     .track = QString(""), .genre = QString(""), .bpm = QString(""), .lyrics = QString(""), .compilation = false},
    {.name = "long_title", .title = u"A title of forty characters, no less!!!!"_s, // too long for ID3v1
     .id3v1AloneStays = false},
};
// clang-format on

struct Picture {
    QByteArray sha1; // hex
    QString mime;
    bool operator==(const Picture &) const = default;
};

// The fields of a tag; a null string is an absent field.
struct Values {
    QString title, artist, album, year, track, genre, bpm, lyrics;
    bool compilation = false;
    QList<Picture> pictures;
};

QByteArray sha1Hex(const QByteArray &b) {
    return QCryptographicHash::hash(b, QCryptographicHash::Sha1).toHex();
}

Values valuesOf(const AudioInfoTag &tag) {
    Values v{tag.title(), tag.artist(), tag.album(),
             tag.year(),  tag.track(),  tag.genres(),
             tag.bpm(),   tag.lyrics(), tag.isPartOfCompilation()};
    for (const ID3Image &image : tag.images())
        v.pictures.append({sha1Hex(image.imageData()), image.mimeFormat()});
    return v;
}

std::string show(const QString &s) {
    return s.isNull() ? "(absent)" : '"' + s.toStdString() + '"';
}

std::string show(const QList<Picture> &pictures) {
    QStringList parts;
    for (const Picture &p : pictures)
        parts.append(p.mime + u' ' + QString::fromLatin1(p.sha1.left(12)));
    return '[' + parts.join(u", "_s).toStdString() + ']';
}

struct Field {
    const char *name;
    std::optional<QString> EditSet::*edit;
    QString Values::*value;
    void (AudioInfoTag::*set)(const QString &);
};
const Field kFields[] = {{"title", &EditSet::title, &Values::title, &AudioInfoTag::setTitle},
                         {"artist", &EditSet::artist, &Values::artist, &AudioInfoTag::setArtist},
                         {"album", &EditSet::album, &Values::album, &AudioInfoTag::setAlbum},
                         {"year", &EditSet::year, &Values::year, &AudioInfoTag::setYear},
                         {"track", &EditSet::track, &Values::track, &AudioInfoTag::setTrack},
                         {"genre", &EditSet::genre, &Values::genre, &AudioInfoTag::setGenres},
                         {"bpm", &EditSet::bpm, &Values::bpm, &AudioInfoTag::setBPM},
                         {"lyrics", &EditSet::lyrics, &Values::lyrics, &AudioInfoTag::setLyrics}};

// The one comparison of two sets of values: every field that differs, or nothing.
std::string diff(const Values &got, const Values &want) {
    std::ostringstream os;
    for (const Field &f : kFields)
        if (got.*f.value != want.*f.value || (got.*f.value).isNull() != (want.*f.value).isNull())
            os << f.name << ": got " << show(got.*f.value) << ", expected " << show(want.*f.value) << "; ";
    if (got.compilation != want.compilation) os << "compilation: got " << got.compilation << "; ";
    if (got.pictures != want.pictures)
        os << "pictures: got " << show(got.pictures) << ", expected " << show(want.pictures);
    return os.str();
}

bool fitsLatin1(const QString &s) {
    return std::all_of(s.begin(), s.end(), [](QChar c) { return c.unicode() <= 0xFF; });
}

long long leadingNumber(const QString &s) {
    qsizetype n = 0;
    while (n < s.size() && s[n].isDigit())
        ++n;
    return n == 0 ? -1 : s.left(std::min<qsizetype>(n, 9)).toLongLong();
}

// Text as our writer puts it into an ID3v1 tag: one '?' per character outside Latin-1 (an emoji too).
QString id3v1Text(const QString &s) {
    QString out;
    for (char32_t c : s.toUcs4())
        out += c <= 0xFF ? QChar(char16_t(c)) : QChar(u'?');
    return out;
}

// Our writer puts text outside Latin-1 into encoding 2 behind a byte-order mark (in 2.3 too), which
// mutagen keeps as U+FEFF; in 2.2 it is encoding 1, whose mark mutagen takes as the byte order. So
// a string of encoding 2 must start with U+FEFF, taken off here; nowhere else may one be.
QString withoutOurMark(const QString &s, int encoding, const QString &version, std::string *complaint) {
    if (version != "2.2.0"_L1 && encoding == 2) {
        if (s.startsWith(kMark)) return s.mid(1);
        *complaint += "no leading U+FEFF in encoding 2; ";
    } else if (s.startsWith(kMark)) {
        *complaint += "a leading U+FEFF outside encoding 2; ";
    }
    return s;
}

// The encoding our writer must use: 0 for Latin-1, else 2 (1 in version 2.2).
int expectedEncoding(const QStringList &strings, const QString &version) {
    return std::all_of(strings.begin(), strings.end(), fitsLatin1) ? 0 : version == "2.2.0"_L1 ? 1 : 2;
}

// What mutagen reads from a tag we wrote, with our writer's rules taken off; what breaks them goes
// to *complaint: the mark, the text encodings, the year frame of the version (TYER, TDRC in 2.4).
Values fromMutagen(const QJsonObject &v2, std::string *complaint) {
    const QString version = v2.value(u"version").toString();
    const bool v24 = version == "2.4.0"_L1;
    const QJsonObject frames = v2.value(u"text").toObject();
    const auto text = [&](const char *id) -> QString {
        if (!frames.contains(QLatin1String(id))) return {};
        const int encoding = v2[u"encodings"][QLatin1String(id)].toInt(-1);
        QStringList plain;
        for (const QJsonValue &s : frames.value(QLatin1String(id)).toArray())
            plain.append(withoutOurMark(s.toString(), encoding, version, complaint));
        if (encoding != expectedEncoding(plain, version))
            *complaint += std::string(id) + ": encoding " + std::to_string(encoding) + "; ";
        return plain.value(0, u""_s);
    };
    Values v{text("TIT2"), text("TPE1"), text("TALB"), text(v24 ? "TDRC" : "TYER"),
             text("TRCK"), text("TCON"), text("TBPM")};
    if (!text(v24 ? "TYER" : "TDRC").isNull()) *complaint += "the year frame of the other version; ";
    v.compilation = leadingNumber(frames.value(u"TCMP").toArray().at(0).toString()) >= 1;
    const QJsonArray lyrics = v2.value(u"lyrics").toArray();
    if (!lyrics.isEmpty())
        v.lyrics =
            withoutOurMark(lyrics[0][u"text"].toString(), lyrics[0][u"encoding"].toInt(), version, complaint);
    for (const QJsonValue &p : v2.value(u"pictures").toArray())
        v.pictures.append({p[u"sha1"].toString().toLatin1(), p[u"mime"].toString()});
    return v;
}

struct Fixture {
    QString file, tool, path;
    QByteArray sha1;    // of the file as made: the shared set is never written
    QJsonObject before; // what mutagen read from the untouched file
    QByteArray audio;   // MD5 of the decoded audio
    QString version() const {
        if (before[u"v2"].isObject()) return before[u"v2"][u"version"].toString();
        return hadID3v1() ? u"1"_s : QString();
    }
    bool hadID3v1() const { return before[u"v1"].isObject(); }
    // The ID3v1 comment our reader takes: 28 bytes from offset 97 (in ID3v1.0 too), up to a zero,
    // less trailing bytes below 33; UTF-8 when valid, else Latin-1. Null when nothing is left.
    QString id3v1Comment() const {
        QByteArray comment = QByteArray::fromHex(before[u"v1"][u"bytes"].toString().toLatin1()).mid(97, 28);
        if (const qsizetype zero = comment.indexOf('\0'); zero >= 0) comment.truncate(zero);
        while (!comment.isEmpty() && quint8(comment.back()) < 33)
            comment.chop(1);
        if (comment.isEmpty()) return {};
        QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString decoded = utf8.decode(comment);
        return utf8.hasError() ? QString::fromLatin1(comment) : decoded;
    }
};

QList<QJsonObject> mutagenDump(const QStringList &paths, QString *problem) {
    QByteArray out, err;
    QList<QJsonObject> entries;
    if (run(systemPython(), QStringList{sourceDir() + u"/tests/tools/mutagen_dump.py"_s} + paths, &out,
            &err) == 0)
        for (const QJsonValue &entry : QJsonDocument::fromJson(out).array())
            entries.append(entry.toObject());
    if (entries.size() != paths.size())
        *problem = u"mutagen_dump.py failed: "_s + QString::fromUtf8(err).right(600);
    return entries;
}

// The MD5 of each file's decoded audio (pictures left out), one ffmpeg for the batch.
QList<QByteArray> audioDigests(const QStringList &paths, const QString &scratch) {
    QStringList args = {u"-v"_s, u"error"_s, u"-nostdin"_s, u"-y"_s};
    for (const QString &path : paths)
        args << u"-i"_s << path;
    const auto md5 = [&](qsizetype i) { return u"%1/audio-%2.md5"_s.arg(scratch).arg(i); };
    for (qsizetype i = 0; i < paths.size(); ++i)
        args << u"-map"_s << u"%1:a"_s.arg(i) << u"-f"_s << u"md5"_s << md5(i);
    const bool ok = run(u"ffmpeg"_s, args) == 0;
    QList<QByteArray> digests;
    for (qsizetype i = 0; i < paths.size(); ++i)
        digests.append(ok ? readAll(md5(i)).trimmed() : QByteArray("ffmpeg failed"));
    return digests;
}

const auto latin1Text = [](const char *text) { return QByteArray(1, '\0') + text; };

// Frames this program does not decode, put in front of a 2.3/2.4 tag: user text, a UTF-16 comment,
// private bytes over 127 (so that plain and synchsafe sizes differ), a part of set.
QByteArray withUndecodedFrames(const QByteArray &file) {
    const int major = file.size() > 10 ? file[3] : 0;
    if (!file.startsWith("ID3") || (major != 3 && major != 4) || (file[5] & 0x40)) return {};
    QByteArray privateBytes("quillwave.test", 15);
    for (int i = 0; i < 200; ++i)
        privateBytes += char(i * 7);
    QByteArray comment = QByteArray::fromHex("01646575FFFE0000"); // UTF-16, "deu", empty description
    for (QChar c : u"Kommentar ünd ☃"_s)
        comment.append(char(c.unicode() & 0xFF)).append(char(c.unicode() >> 8));
    const bool s = major == 4;
    const QByteArray frames = frame23("TXXX", QByteArray("\0QW_NOTE\0kept as it was", 24), s) +
                              frame23("COMM", comment, s) + frame23("PRIV", privateBytes, s) +
                              frame23("TPOS", latin1Text("1/2"), s);
    const quint32 size = MP3InfoTag::getSynchSafeIntIn(file, 6) + quint32(frames.size());
    return file.left(6) + synchsafe(size) + frames + file.mid(10);
}

// A version 2.2 tag (no tool of the set writes one).
QByteArray version22Tag(const QByteArray &jpeg) {
    const QByteArray body = frame22("TT2", latin1Text("Two Two")) +
                            frame22("TP1", QByteArray("\x01\xFF\xFE\xA9\x03m\0e\0g\0a\0", 13)) +
                            frame22("TAL", latin1Text("Old Format")) + frame22("TYE", latin1Text("1996")) +
                            frame22("TRK", latin1Text("2/5")) + frame22("TCO", latin1Text("(8)")) +
                            frame22("TBP", latin1Text("90")) + frame22("TCP", latin1Text("1")) +
                            frame22("ULT", QByteArray("\0engverse\0Line one\nLine two", 28)) +
                            frame22("TXX", QByteArray("\0QW_NOTE\0kept as it was", 23)) +
                            frame22("COM", QByteArray("\0eng\0A comment", 14)) +
                            frame22("TPA", latin1Text("1/2")) +
                            frame22("PIC", QByteArray("\0JPG\x03\0", 6) + jpeg);
    return id3v2Tag(2, body, 32);
}

struct Shared {
    QString skip, problem;
    std::unique_ptr<TempDir> dir; // this process's own files: pictures, files made here, digests
    QList<Fixture> fixtures;
    QByteArray jpeg, png;
    QString pngPath;

    Shared() {
        skip = !haveTool(u"ffmpeg"_s) ? u"ffmpeg is not installed"_s
               : run(systemPython(), {u"-c"_s, u"import mutagen"_s}) != 0
                   ? systemPython() + u" has no mutagen module"_s
                   : QString();
        if (!skip.isEmpty()) return;
        const QString set = mp3FixtureDir(&problem); // shared by the tests of a run: only read
        if (set.isEmpty()) return;
        dir = std::make_unique<TempDir>();
        const auto picture = [&](const QString &file, const QString &colour) {
            run(u"ffmpeg"_s, {u"-v"_s, u"error"_s, u"-nostdin"_s, u"-y"_s, u"-f"_s, u"lavfi"_s, u"-i"_s,
                              u"color=c="_s + colour, u"-frames:v"_s, u"1"_s, dir->file(file)});
            return readAll(dir->file(file));
        };
        jpeg = picture(u"added.jpg"_s, u"orange:s=48x32"_s);
        png = picture(u"added.png"_s, u"purple:s=24x20"_s);
        pngPath = dir->file(u"added.png"_s);
        if (!jpeg.startsWith("\xFF\xD8") || !png.startsWith("\x89PNG"))
            problem = u"ffmpeg made no JPEG or PNG picture"_s;
        if (!problem.isEmpty()) return;
        const QJsonObject manifest = QJsonDocument::fromJson(readAll(set + u"/manifest.json"_s)).object();
        for (const QJsonValue &f : manifest.value(u"fixtures").toArray()) {
            const QString path = set + u'/' + f[u"file"].toString();
            fixtures.append({f[u"file"].toString(), f[u"tool"].toString(), path, sha1Hex(readAll(path))});
        }
        const auto add = [&](const QString &file, const QString &from, const QByteArray &bytes) {
            if (!bytes.isEmpty())
                fixtures.append({file, u"made here from "_s + from, dir->write(file, bytes), sha1Hex(bytes)});
        };
        for (const char *source :
             {"lame_v23_and_v1.mp3", "mid3v2_v24_japanese.mp3", "ffmpeg_v24_greek_v1.mp3"})
            add(u"extras_"_s + QLatin1String(source), QLatin1String(source),
                withUndecodedFrames(readAll(set + u'/' + QLatin1String(source))));
        const QByteArray untagged = readAll(set + u"/ffmpeg_untagged.mp3"_s);
        if (!untagged.isEmpty())
            add(u"built_v22.mp3"_s, u"ffmpeg_untagged.mp3"_s, version22Tag(jpeg) + untagged);
        QStringList paths;
        for (const Fixture &f : std::as_const(fixtures))
            paths.append(f.path);
        const QList<QJsonObject> before = mutagenDump(paths, &problem);
        const QList<QByteArray> audio = audioDigests(paths, dir->path());
        for (qsizetype i = 0; i < fixtures.size() && problem.isEmpty(); ++i) {
            fixtures[i].before = before[i];
            fixtures[i].audio = audio[i];
            if (before[i].contains(u"error") || !audio[i].startsWith("MD5="))
                problem += fixtures[i].file + u": mutagen or ffmpeg cannot read it\n"_s;
        }
    }
};

Shared &shared() {
    static Shared s;
    return s;
}

struct Outcome {
    const Fixture *fixture = nullptr;
    Values before, expected; // our reader's values before the edits; those plus the edits
    QString writeVersion;    // what our tag said, before the save, it would write
    QString expectedVersion; // by the rules, as mutagen gives it: "2.3.0", "1.1.0" for ID3v1 alone
    QString error;           // why a save failed
    QJsonObject after;       // what mutagen reads from the file saved with synchsafe 2.4 sizes
    QByteArray audio, saved;
    // The same edits saved with plain 2.4 sizes (the default), which our own reader reads right:
    // saved twice, read back, and saved again after a fresh read with no change.
    QByteArray plainSaved, plainSavedAgain, plainSavedAfterReading;
    std::optional<Values> plainReadBack;
    bool staysID3v1() const { return expectedVersion == "1.1.0"_L1; }
};

struct Round {
    QString problem;
    std::unique_ptr<TempDir> dir;
    QList<Outcome> outcomes;
};

// Whether a file with an ID3v1 tag alone keeps it alone (MP3InfoTag::canWriteID3v11WithoutLoss()):
// no pictures; title, artist and album of up to 30 Latin-1 characters; a year of up to 4; no
// comment; no total in the track; no genre or one of the list. Tempo, lyrics, compilation: ignored.
bool fitsID3v1(const Values &v, bool hasComment) {
    for (const QString &text : {v.title, v.artist, v.album})
        if (text.size() > 30 || !fitsLatin1(text)) return false;
    const bool genre = v.genre.isEmpty() || AudioInfoTag::indexOfGenre(v.genre) != AudioInfoTag::NSNotFound;
    return v.pictures.isEmpty() && v.year.size() <= 4 && !hasComment && !v.track.contains(u'/') && genre;
}

// Reads the song, applies the edits through the song API and saves (twice when savedAgain is given).
QString editAndSave(const QString &path, const EditSet &e, Outcome &o, QByteArray *saved,
                    QByteArray *savedAgain) {
    SongFilePtr song = SongFile::songWithPath(path);
    std::shared_ptr<AudioInfoTag> tag = song ? song->infotag() : nullptr;
    if (!tag) return u"no song or no tag"_s;
    o.before = o.expected = valuesOf(*tag);
    Values &x = o.expected; // what the edits give
    for (const Field &f : kFields)
        if (const std::optional<QString> &edit = e.*f.edit) {
            ((*tag).*f.set)(*edit);
            x.*f.value = edit->isEmpty() ? QString() : *edit;
        }
    if (e.compilation) tag->setIsPartOfCompilation(x.compilation = *e.compilation);
    if (e.removePictures) tag->removeAllImages(), x.pictures.clear();
    for (Added a : e.addPictures) {
        const QByteArray &bytes = a == Added::Jpeg ? shared().jpeg : shared().png;
        const QString mime = a == Added::Jpeg ? u"image/jpeg"_s : u"image/png"_s;
        tag->addImage(ID3Image(bytes, mime));
        x.pictures.append({sha1Hex(bytes), mime});
    }
    o.writeVersion = tag->writeVersion();
    QString error;
    if (!song->writeToOriginalPath(&error, false)) return u"save failed: "_s + error;
    *saved = readAll(path);
    if (savedAgain && !song->writeToOriginalPath(&error, false)) return u"second save: "_s + error;
    if (savedAgain) *savedAgain = readAll(path);
    return {};
}

Round makeRound(const EditSet &e) {
    Round r{{}, std::make_unique<TempDir>()};
    QDir(r.dir->path()).mkpath(u"saved"_s);
    QDir(r.dir->path()).mkpath(u"plain"_s);
    QStringList written;
    for (const Fixture &f : shared().fixtures) {
        Outcome o{&f};
        written.append(r.dir->file(u"saved/"_s + f.file));
        QFile::copy(f.path, written.last());
        MP3InfoTag::setWriteSynchSafeSizesInV24(true); // for other programs only
        o.error = editAndSave(written.last(), e, o, &o.saved, nullptr);
        MP3InfoTag::setWriteSynchSafeSizesInV24(false);
        const QString version = f.version();
        o.expectedVersion = version.startsWith("2."_L1) ? version
                            : version == "1"_L1 && fitsID3v1(o.expected, !f.id3v1Comment().isNull())
                                ? u"1.1.0"_s
                                : u"2.3.0"_s;
        if (o.staysID3v1()) { // dropped: ID3v1 has no place for them
            o.expected.bpm = o.expected.lyrics = QString();
            o.expected.compilation = false;
        }
        const QString plain = r.dir->file(u"plain/"_s + f.file);
        QFile::copy(f.path, plain);
        Outcome ignored;
        o.error += editAndSave(plain, e, ignored, &o.plainSaved, &o.plainSavedAgain);
        if (SongFilePtr song = SongFile::songWithPath(plain); song && song->infotag()) {
            o.plainReadBack = valuesOf(*song->infotag());
            QString error;
            if (song->writeToOriginalPath(&error, false)) o.plainSavedAfterReading = readAll(plain);
        }
        r.outcomes.append(o);
    }
    const QList<QJsonObject> after = mutagenDump(written, &r.problem);
    const QList<QByteArray> audio = audioDigests(written, r.dir->path());
    for (qsizetype i = 0; i < r.outcomes.size() && r.problem.isEmpty(); ++i) {
        r.outcomes[i].after = after[i];
        r.outcomes[i].audio = audio[i];
    }
    return r;
}

// Walks a 2.3/2.4 tag reading each frame size plainly or synchsafe; true when the frames end at
// the end of the tag or where zero padding starts.
using FrameSpan = std::pair<qsizetype, quint32>; // where a frame starts, its size
bool walkFrames(const QByteArray &file, bool synchsafeSizes, QList<FrameSpan> *frames) {
    frames->clear();
    const qsizetype end = 10 + qsizetype(MP3InfoTag::getSynchSafeIntIn(file, 6));
    if (!file.startsWith("ID3") || end > file.size()) return false;
    qsizetype at = 10;
    while (at < end) {
        if (file[at] == '\0') return file.mid(at, end - at).count('\0') == end - at;
        if (at + 10 > end) return false;
        quint32 n = 0;
        for (char c : file.mid(at + 4, 4)) {
            if (synchsafeSizes && (c & 0x80)) return false;
            n = synchsafeSizes ? (n << 7 | quint8(c)) : (n << 8 | quint8(c));
        }
        if (at + 10 + qsizetype(n) > end) return false;
        frames->append({at, n});
        at += 10 + n;
    }
    return at == end;
}

class WriterRoundTripBase : public ::testing::Test {
protected:
    void SetUp() override {
        if (!shared().skip.isEmpty()) GTEST_SKIP() << shared().skip.toStdString();
        ASSERT_TRUE(shared().problem.isEmpty()) << shared().problem.toStdString();
    }
    void TearDown() override { MP3InfoTag::setWriteSynchSafeSizesInV24(false); }
};

class EditSets : public WriterRoundTripBase, public ::testing::WithParamInterface<EditSet> {
protected:
    void SetUp() override {
        WriterRoundTripBase::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        static std::map<std::string, Round> rounds;
        auto it = rounds.find(GetParam().name);
        if (it == rounds.end()) it = rounds.emplace(GetParam().name, makeRound(GetParam())).first;
        mRound = &it->second;
        ASSERT_TRUE(mRound->problem.isEmpty()) << mRound->problem.toStdString();
    }
    // Each outcome whose saves worked, with the place for failure messages.
    template <typename Check> void forEach(Check check) {
        for (const Outcome &o : mRound->outcomes) {
            const std::string where =
                (o.fixture->file + u" ["_s + o.fixture->tool + u"] / "_s + QLatin1String(GetParam().name))
                    .toStdString();
            EXPECT_TRUE(o.error.isEmpty()) << where << ": " << o.error.toStdString();
            if (o.error.isEmpty()) check(o, where);
        }
    }
    const Round *mRound = nullptr;
};

// Mutagen reads back the values and the version our tag said it would write, which is the one the
// rules give (the file's, 2.3 for none, for ID3v1 alone 1.1 or 2.3 by fitsID3v1()); the audio and
// the file the copy came from are unchanged; the frames add up with the version's sizes.
TEST_P(EditSets, MutagenReadsBackWhatWeSetInTheVersionKept) {
    const EditSet &e = GetParam();
    forEach([&](const Outcome &o, const std::string &where) {
        EXPECT_EQ(o.audio, o.fixture->audio) << where << ": decoded audio differs";
        EXPECT_EQ(sha1Hex(readAll(o.fixture->path)), o.fixture->sha1) << where << ": the source was changed";
        const QString version = o.after.value(u"version").toString();
        const QString said = o.writeVersion == "1.1"_L1 ? u"1.1.0"_s : o.writeVersion;
        EXPECT_EQ(version, said) << where;
        EXPECT_EQ(said, o.expectedVersion) << where << " (read as " << show(o.fixture->version()) << ")";
        if (o.staysID3v1()) { // no ID3v2 tag, the same length, a 1.1 tag at the end
            EXPECT_TRUE(o.after.value(u"v2").isNull() && !o.saved.startsWith("ID3")) << where;
            EXPECT_EQ(o.saved.size(), QFileInfo(o.fixture->path).size()) << where;
            EXPECT_TRUE(o.saved.right(128).startsWith("TAG") && o.saved[o.saved.size() - 3] == '\0') << where;
            return;
        }
        const QJsonObject v2 = o.after.value(u"v2").toObject();
        ASSERT_FALSE(v2.isEmpty()) << where << ": no ID3v2 tag";
        QList<FrameSpan> frames; // 2.3: plain sizes; 2.4 saved with the switch on: synchsafe
        if (version != "2.2.0"_L1)
            EXPECT_TRUE(walkFrames(o.saved, version == "2.4.0"_L1, &frames)) << where << ": sizes";
        std::string complaint;
        const Values got = fromMutagen(v2, &complaint);
        Values want = o.expected;
        for (Picture &p : want.pictures) // in 2.2 the three letters of PIC
            if (version == "2.2.0"_L1)
                p.mime = p.mime.mid(6).toUpper() == "JPEG"_L1 ? u"JPG"_s : p.mime.mid(6).toUpper();
        EXPECT_EQ(complaint + diff(got, want), "") << where;
        if (e.compilation && !*e.compilation) EXPECT_FALSE(v2[u"text"].toObject().contains(u"TCMP")) << where;
        const QJsonArray lyrics = v2.value(u"lyrics").toArray();
        if (e.lyrics && !e.lyrics->isEmpty()) { // one block, "eng", no descriptor
            ASSERT_EQ(lyrics.size(), 1) << where;
            EXPECT_EQ(lyrics[0][u"lang"].toString(), u"eng"_s) << where;
            const int encoding = lyrics[0][u"encoding"].toInt();
            EXPECT_EQ(withoutOurMark(lyrics[0][u"desc"].toString(), encoding, version, &complaint), u""_s)
                << where;
            EXPECT_EQ(encoding, expectedEncoding({*e.lyrics}, version)) << where;
        }
        // Every picture of type 0 without a description (mutagen adds spaces to tell equal ones apart).
        for (const QJsonValue &p : v2.value(u"pictures").toArray())
            EXPECT_TRUE(p[u"type"].toInt() == 0 && p[u"desc"].toString().trimmed().isEmpty())
                << where << ": picture of type " << p[u"type"].toInt();
    });
}

// ID3v1 alone stays so when the values fit (said outright by the edit set), never with a comment;
// then our reader finds no tempo, lyrics or compilation. An ID3v1 tag that was there holds the new
// values: Latin-1 with '?' for the rest, cut to 30; the genre's number (255 off the list); the
// track (ID3v1.1) only when there is a year. No ID3v1 tag is added.
TEST_P(EditSets, ID3v1TagsFollowTheValues) {
    const EditSet &e = GetParam();
    int decided = 0;
    forEach([&](const Outcome &o, const std::string &where) {
        const QJsonObject v1 = o.after.value(u"v1").toObject();
        if (o.fixture->version() == "1"_L1) {
            const bool comment = !o.fixture->id3v1Comment().isNull();
            EXPECT_FALSE(comment && o.staysID3v1()) << where << ": an ID3v1 comment, and yet ID3v1 alone";
            if (!comment && e.id3v1AloneStays && ++decided)
                EXPECT_EQ(o.staysID3v1(), *e.id3v1AloneStays) << where;
            if (o.staysID3v1() && o.plainReadBack)
                EXPECT_TRUE(o.plainReadBack->bpm.isNull() && o.plainReadBack->lyrics.isNull() &&
                            !o.plainReadBack->compilation)
                    << where;
        }
        ASSERT_EQ(v1.isEmpty(), !o.fixture->hadID3v1()) << where << ": an ID3v1 tag added or lost";
        if (v1.isEmpty()) return;
        const Values &x = o.expected;
        const QByteArray bytes = QByteArray::fromHex(v1.value(u"bytes").toString().toLatin1());
        EXPECT_EQ(v1[u"title"].toString(), id3v1Text(x.title).left(30).trimmed()) << where;
        EXPECT_EQ(v1[u"artist"].toString(), id3v1Text(x.artist).left(30).trimmed()) << where;
        EXPECT_EQ(v1[u"album"].toString(), id3v1Text(x.album).left(30).trimmed()) << where;
        EXPECT_EQ(v1[u"year"].toString(), x.year.left(4)) << where;
        const long long track = leadingNumber(x.track.section(u'/', 0, 0));
        EXPECT_EQ(bytes[125], '\0') << where;
        EXPECT_EQ(quint8(bytes[126]), !x.year.isEmpty() && track >= 1 && track <= 255 ? int(track) : 0)
            << where << ": track " << show(x.track) << " with year " << show(x.year);
        const int genre = x.genre.isNull() ? 255 : AudioInfoTag::indexOfGenre(x.genre.section(u'/', 0, 0));
        EXPECT_EQ(quint8(bytes[127]), std::min(genre, 255)) << where << ": genre " << show(x.genre);
    });
    if (e.id3v1AloneStays) EXPECT_GT(decided, 0) << "no file with an ID3v1 tag alone and no comment";
}

// Undecoded frames, lyrics blocks and pictures no edit touched are what they were to mutagen, under
// our reader's rules where it reads them its own way.
TEST_P(EditSets, WhatTheEditsDidNotTouchSurvives) {
    const EditSet &e = GetParam();
    forEach([&](const Outcome &o, const std::string &where) {
        if (o.staysID3v1()) return;
        const QJsonObject before = o.fixture->before.value(u"v2").toObject();
        const QJsonObject after = o.after.value(u"v2").toObject();
        const QString version = after.value(u"version").toString();
        // An ID3v1 comment becomes a COMM frame at the end where there is none (not in 2.2).
        QJsonArray others = before.value(u"others").toArray();
        const QString comment = o.fixture->id3v1Comment();
        if (!comment.isNull() && version != "2.2.0"_L1 && !before[u"frameIDs"].toArray().contains(u"COMM"_s))
            others.append(u"COMM(encoding=<Encoding.LATIN1: 0>, lang='eng', desc='', text=['%1'])"_s.arg(
                id3v1Text(comment)));
        EXPECT_EQ(after.value(u"others").toArray(), others) << where;
        if (before.isEmpty()) return;
        if (!e.removePictures && e.addPictures.isEmpty()) {
            // As our reader gave them, which is what mutagen read before under its picture rules
            // (TestSupport); in a 2.4 tag padding zeros may come along.
            const QJsonArray was = before.value(u"pictures").toArray(),
                             now = after.value(u"pictures").toArray();
            ASSERT_EQ(now.size(), was.size()) << where;
            ASSERT_EQ(o.before.pictures.size(), was.size()) << where;
            for (qsizetype i = 0; i < was.size(); ++i) {
                const QByteArray want = expectedPictureBytes(was[i].toObject());
                const QByteArray got = QByteArray::fromHex(now[i][u"data"].toString().toLatin1());
                EXPECT_TRUE(got == want ||
                            (o.fixture->version() == "2.4.0"_L1 && carriesPaddingZeros(got, want)))
                    << where << ": picture " << i << ": " << got.size() << " bytes, expected " << want.size();
                EXPECT_EQ(sha1Hex(got), o.before.pictures[i].sha1) << where << ": picture " << i;
                EXPECT_EQ(now[i][u"mime"], was[i][u"mime"]) << where << ": picture " << i;
            }
        }
        if (e.lyrics) return;
        const QJsonArray was = before.value(u"lyrics").toArray(), now = after.value(u"lyrics").toArray();
        ASSERT_EQ(now.size(), was.size()) << where;
        for (qsizetype i = 0; i < was.size(); ++i) {
            std::string complaint;
            const int encoding = now[i][u"encoding"].toInt();
            const QString text = withoutOurMark(now[i][u"text"].toString(), encoding, version, &complaint);
            const QString desc = withoutOurMark(now[i][u"desc"].toString(), encoding, version, &complaint);
            const QString lang = was[i][u"lang"].toString(), wasText = was[i][u"text"].toString();
            // UTF-16BE lyrics starting below U+0100 are read shifted by a byte, and written as read.
            const bool shifted =
                was[i][u"encoding"].toInt() == 2 && !wasText.isEmpty() && wasText[0].unicode() < 0x100;
            EXPECT_TRUE(shifted ? !text.isEmpty() && text != wasText : text == wasText)
                << where << ": USLT " << i;
            EXPECT_EQ(desc, was[i][u"desc"].toString()) << where << ": USLT " << i;
            EXPECT_EQ(now[i][u"lang"].toString(), lang.count(QChar(0)) == 3 ? u"eng"_s : lang) << where;
            EXPECT_EQ(complaint, "") << where << ": USLT " << i;
        }
    });
}

// With plain 2.4 sizes (the default) our own reader reads everything back; saving twice, and saving
// a fresh read with no change, give the same bytes; outside 2.4 the switch changes nothing.
TEST_P(EditSets, PlainSizesReadBackAndSavingAgainChangesNothing) {
    int bigFrames = 0;
    forEach([&](const Outcome &o, const std::string &where) {
        EXPECT_EQ(o.plainSavedAgain, o.plainSaved) << where << ": saved twice";
        EXPECT_EQ(o.plainSavedAfterReading, o.plainSaved) << where << ": read back and saved";
        if (!o.fixture->version().startsWith("2.4"_L1)) {
            EXPECT_EQ(o.saved, o.plainSaved) << where << ": the switch for 2.4 sizes changed it";
            return;
        }
        QList<FrameSpan> frames;
        EXPECT_TRUE(walkFrames(o.plainSaved, false, &frames)) << where << ": plain sizes do not add up";
        for (const auto &[at, size] : frames)
            if (size >= 128 && ++bigFrames) EXPECT_EQ(o.plainSaved.mid(at + 4, 4), be32(size)) << where;
        ASSERT_TRUE(o.plainReadBack) << where;
        EXPECT_EQ(diff(*o.plainReadBack, o.expected), "") << where;
    });
    EXPECT_GT(bigFrames, 0) << "no 2.4 frame of 128 bytes or more";
}

INSTANTIATE_TEST_SUITE_P(WriterRoundTrip, EditSets, ::testing::ValuesIn(kEditSets),
                         [](const auto &info) { return std::string(info.param.name); });

class WriterRoundTripSet : public WriterRoundTripBase {};

TEST_F(WriterRoundTripSet, HasEveryKindOfTag) {
    QStringList versions;
    for (const Fixture &f : shared().fixtures)
        versions.append(f.version());
    for (const char *kind : {"2.2.0", "2.3.0", "2.4.0", "1", ""})
        EXPECT_TRUE(versions.contains(QString::fromLatin1(kind))) << "no fixture read as \"" << kind << '"';
}

// `set` writes what mutagen reads back, a second run changes only what it names; files it cannot
// write (no song, missing, read-only) are named on standard error, exit code 1, left as they were,
// and the others are written all the same.
TEST_F(WriterRoundTripSet, CommandLine) {
    TempDir dir;
    struct Result {
        int exitCode;
        QString out, err;
    };
    const auto cli = [](const QStringList &args) {
        QByteArray out, err;
        const int code = run(cliPath(), QStringList{u"set"_s} + args, &out, &err);
        return Result{code, QString::fromUtf8(out), QString::fromUtf8(err)};
    };
    QStringList files; // copies under the same names
    QList<const Fixture *> sources;
    for (const char *name : {"mutagen_v23_utf16_greek.mp3", "mid3v2_v24_japanese.mp3",
                             "lame_v1_space_padded.mp3", "kid3_v23.mp3", "id3v2_both_tags.mp3"})
        for (const Fixture &f : shared().fixtures)
            if (f.file == QLatin1String(name) && QFile::copy(f.path, dir.file(f.file)))
                files.append(dir.file(f.file)), sources.append(&f);
    ASSERT_EQ(files.size(), 5);
    const QString lyrics = u"Γραμμή ένα\nLine two, ünïcödé\n日本語 🎼 three\n"_s, title = u"Νέος τίτλος 🎺"_s;
    Result r =
        cli(files.mid(0, 3) + QStringList{u"--title"_s, title, u"--album"_s, QString(), u"--bpm"_s, u"99"_s,
                                          u"--lyrics-file"_s, dir.write(u"lyrics.txt"_s, lyrics.toUtf8()),
                                          u"--remove-pictures"_s, u"--add-picture"_s, shared().pngPath,
                                          u"--compilation"_s, u"no"_s, u"--synchsafe-v24"_s, u"--quiet"_s});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QStringList versions = {u"2.3.0"_s, u"2.4.0"_s, u"2.3.0"_s};
    QString problem;
    QList<QJsonObject> after = mutagenDump(files.mid(0, 3), &problem);
    ASSERT_TRUE(problem.isEmpty()) << problem.toStdString();
    const QList<QByteArray> audio = audioDigests(files.mid(0, 3), dir.path());
    for (qsizetype i = 0; i < 3; ++i) {
        const std::string where = sources[i]->file.toStdString();
        EXPECT_TRUE(r.out.contains(files[i] + u'\t' + versions[i])) << where << ":\n" << r.out.toStdString();
        const QJsonObject v2 = after[i].value(u"v2").toObject();
        std::string complaint;
        const Values got = fromMutagen(v2, &complaint);
        EXPECT_EQ(complaint, "") << where;
        EXPECT_TRUE(got.title == title && got.bpm == u"99"_s && got.lyrics == lyrics) << where;
        EXPECT_TRUE(got.album.isNull()) << where << ": an empty album removes TALB";
        EXPECT_FALSE(v2[u"text"].toObject().contains(u"TCMP")) << where << ": --compilation no removes TCMP";
        EXPECT_EQ(v2[u"lyrics"].toArray().size(), 1) << where;
        EXPECT_EQ(show(got.pictures), show({{sha1Hex(shared().png), u"image/png"_s}})) << where;
        EXPECT_EQ(v2[u"pictures"][0][u"type"].toInt(), 0)
            << where << ": the front cover is written as type 0";
        EXPECT_EQ(audio[i], sources[i]->audio) << where << ": decoded audio differs";
    }
    // The ID3v1 tag of the third file went along: one '?' per character outside Latin-1.
    EXPECT_EQ(after[2][u"v1"][u"title"].toString(), u"???? ?????? ?"_s);
    EXPECT_EQ(after[2][u"v1"][u"artist"].toString(), u"Spacey"_s);

    // Again: pictures gone, empty title and artist remove their frames, compilation back on.
    r = cli({files[0], files[1], u"--remove-pictures"_s, u"--title"_s, QString(), u"--artist"_s, QString(),
             u"--compilation"_s, u"yes"_s, u"--synchsafe-v24"_s, u"--quiet"_s});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    after = mutagenDump(files.mid(0, 2), &problem);
    ASSERT_TRUE(problem.isEmpty()) << problem.toStdString();
    for (const QJsonObject &entry : after) {
        std::string complaint;
        const Values got = fromMutagen(entry[u"v2"].toObject(), &complaint);
        EXPECT_TRUE(got.pictures.isEmpty() && got.title.isNull() && got.artist.isNull() && got.compilation)
            << entry[u"file"].toString().toStdString();
        EXPECT_EQ(got.bpm, u"99"_s) << "untouched";
    }

    const auto expectRefused = [&](const QStringList &refused, const QString &written, const QString &why,
                                   const QStringList &edits) {
        QMap<QString, QPair<QByteArray, QDateTime>> was;
        for (const QString &path : refused)
            was.insert(path, {readAll(path), QFileInfo(path).lastModified()});
        const Result r = cli(QStringList{written} + refused + edits);
        EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains(why)) << r.err.toStdString();
        EXPECT_TRUE(r.out.contains(written + u"\t2."_s)) << r.out.toStdString() << r.err.toStdString();
        for (const QString &path : refused) {
            EXPECT_TRUE(r.err.contains(u"quillwave-cli: "_s + path + u": not written: "_s))
                << r.err.toStdString();
            EXPECT_FALSE(r.out.contains(path)) << path.toStdString();
            EXPECT_EQ(readAll(path), was[path].first) << path.toStdString() << " was changed";
            EXPECT_EQ(QFileInfo(path).lastModified(), was[path].second) << path.toStdString();
        }
    };
    const QString text = dir.write(u"notes.txt"_s, QByteArray("not a song at all\n").repeated(30));
    const QString tiny = dir.write(u"tiny.mp3"_s, QByteArray(100, 'x')), missing = dir.file(u"missing.mp3"_s);
    const QStringList edits = {u"--title"_s, u"Written"_s, u"--quiet"_s};
    expectRefused({text}, files[3], u"no readable tag"_s, edits);
    expectRefused({tiny, missing}, files[3], u"not a song file"_s, edits);
    EXPECT_FALSE(QFile::exists(missing));
    after = mutagenDump({files[3]}, &problem);
    ASSERT_TRUE(problem.isEmpty()) << problem.toStdString();
    EXPECT_EQ(after[0][u"v2"][u"text"][u"TIT2"][0].toString(), u"Written"_s);

    if (geteuid() == 0) GTEST_SKIP() << "running as root, a read-only file can be written";
    ASSERT_TRUE(QFile::setPermissions(files[4], QFileDevice::ReadOwner | QFileDevice::ReadGroup));
    expectRefused({files[4]}, files[3], u"read-only"_s, {u"--artist"_s, u"Nobody"_s, u"--quiet"_s});
}

} // namespace
