// Round trips of our ID3 writer, checked by other programs. Every file of the tool-made set
// (tests/tools/make_mp3_fixtures.py) and a few made here is copied, edited through the song API
// with one edit set, and saved. Then mutagen (tests/tools/mutagen_readback.py) must read back
// what we set, ffmpeg must decode the same audio as before, the tag keeps the version the file
// had (or the one our tag says it writes), what the edits did not touch is still there, and
// saving again changes nothing. Where our reader or writer deliberately does something that
// other programs see their own way, the comparison applies that rule instead of looking away.
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

namespace {

const QChar kMark(0xFEFF);

// --- the edit sets ------------------------------------------------------------------------------

enum class Added { Jpeg, Png };

struct EditSet {
    const char *name;
    std::optional<QString> title, artist, album, year, track, genre, bpm, lyrics;
    std::optional<bool> compilation;
    bool removePictures = false;
    QList<Added> addPictures;
    // Whether a file with an ID3v1 tag alone and no comment keeps it alone, where the edits
    // decide that by themselves.
    std::optional<bool> id3v1AloneStays;
};

void PrintTo(const EditSet &e, std::ostream *os) {
    *os << e.name;
}

const EditSet kEditSets[] = {
    // Latin-1 only, every field. Title, artist, album, year, track and genre fit an ID3v1.1 tag;
    // the tempo, the lyrics and the compilation flag have no place there and deliberately do not
    // count: a file with ID3v1 alone and no comment stays so and loses them.
    {.name = "latin1_accents",
     .title = QStringLiteral(u"Crème brûlée à la française"),
     .artist = QStringLiteral(u"Zoë Ångström"),
     .album = QStringLiteral(u"Façade ½ «live»"),
     .year = QStringLiteral("1984"),
     .track = QStringLiteral("5"),
     .genre = QStringLiteral("Jazz"),
     .bpm = QStringLiteral("128"),
     .lyrics = QStringLiteral(u"Première ligne\nDeuxième ligne, déjà vu\n\nDernière ligne"),
     .compilation = true,
     .id3v1AloneStays = true},
    // Greek, Japanese and characters outside the BMP (surrogate pairs in UTF-16), a JPEG added.
    {.name = "beyond_latin1",
     .title = QStringLiteral(u"Τα παιδιά του Πειραιά 🎵"),
     .artist = QStringLiteral(u"宮城道雄 🎹"),
     .album = QStringLiteral(u"日本の音楽 · Ελλάδα"),
     .year = QStringLiteral("2021"),
     .track = QStringLiteral("3/12"),
     .genre = QStringLiteral(u"Música 🎶"),
     .lyrics = QStringLiteral(u"春の海\nひねもすのたり 🌊\nのたりかな\n"),
     .addPictures = {Added::Jpeg},
     .id3v1AloneStays = false},
    {.name = "pictures_replaced",
     .removePictures = true,
     .addPictures = {Added::Jpeg, Added::Png},
     .id3v1AloneStays = false},
    {.name = "pictures_removed", .compilation = false, .removePictures = true},
    // Every field but the title emptied: the frames must go.
    {.name = "fields_cleared",
     .artist = QString(""),
     .album = QString(""),
     .year = QString(""),
     .track = QString(""),
     .genre = QString(""),
     .bpm = QString(""),
     .lyrics = QString(""),
     .compilation = false},
    // Values an ID3v1.1 tag holds exactly.
    {.name = "id3v1_sized",
     .title = QStringLiteral("Fits In Version One"),
     .artist = QStringLiteral("Short Artist"),
     .album = QStringLiteral("Short Album"),
     .year = QStringLiteral("1999"),
     .track = QStringLiteral("7"),
     .genre = QStringLiteral("Blues"),
     .id3v1AloneStays = true},
    // 40 characters: too long for ID3v1.
    {.name = "long_title",
     .title = QStringLiteral("A title of forty characters, no less!!!!"),
     .id3v1AloneStays = false},
};

// --- values -------------------------------------------------------------------------------------

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

QByteArray sha1Hex(const QByteArray &bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha1).toHex();
}

Values valuesOf(const AudioInfoTag &tag) {
    Values v{tag.title(), tag.artist(), tag.album(),
             tag.year(),  tag.track(),  tag.genres(),
             tag.bpm(),   tag.lyrics(), tag.isPartOfCompilation(),
             {}};
    for (const ID3Image &image : tag.images())
        v.pictures.append({sha1Hex(image.imageData()), image.mimeFormat()});
    return v;
}

std::string show(const QString &s) {
    return s.isNull() ? std::string("(absent)") : '"' + s.toStdString() + '"';
}

std::string show(const QList<Picture> &pictures) {
    QStringList parts;
    for (const Picture &p : pictures)
        parts.append(p.mime + QLatin1Char(' ') + QString::fromLatin1(p.sha1.left(12)));
    return '[' + parts.join(QStringLiteral(", ")).toStdString() + ']';
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

// Text as our writer puts it into an ID3v1 tag: Latin-1, with one '?' for each character outside
// it; a character beyond the BMP (a surrogate pair) is one character too.
QString id3v1Text(const QString &s) {
    QString out;
    for (char32_t c : s.toUcs4())
        out += c <= 0xFF ? QChar(char16_t(c)) : QChar(u'?');
    return out;
}

// Python's repr() of a string of Latin-1 characters, the way mutagen_readback.py shows a frame.
QString pythonRepr(const QString &s) {
    const QChar quote = s.contains(u'\'') && !s.contains(u'"') ? u'"' : u'\'';
    QString out = quote;
    for (QChar c : s) {
        const char16_t u = c.unicode();
        if (c == quote || c == u'\\') out += QChar(u'\\');
        if (u == u'\n')
            out += QStringLiteral("\\n");
        else if (u == u'\t')
            out += QStringLiteral("\\t");
        else if (u == u'\r')
            out += QStringLiteral("\\r");
        else if (u < 0x20 || (u >= 0x7F && u <= 0xA0) || u == 0xAD)
            out += QStringLiteral("\\x%1").arg(int(u), 2, 16, QLatin1Char('0'));
        else
            out += c;
    }
    return out + quote;
}

// --- the shared set of files --------------------------------------------------------------------

struct Fixture {
    QString file, tool, path;
    QByteArray sha1;    // of the file as it was made: the shared set is never written
    QJsonObject before; // what mutagen read from the untouched file
    QByteArray audio;   // MD5 of the decoded audio
    QString version() const {
        const QJsonValue v2 = before.value(u"v2");
        if (v2.isObject()) return v2.toObject().value(u"version").toString();
        return before.value(u"v1").isObject() ? QStringLiteral("1") : QString();
    }
    bool hadID3v1() const { return before.value(u"v1").isObject(); }
    // The comment our reader takes from the ID3v1 tag: its first 28 bytes from offset 97, in an
    // ID3v1.0 tag too, whose comment has 30; up to a zero byte, less trailing bytes below 33; as
    // UTF-8 when they are valid UTF-8, else as Latin-1. Null when nothing is left.
    QString id3v1Comment() const {
        const QByteArray tag =
            QByteArray::fromHex(before.value(u"v1").toObject().value(u"bytes").toString().toLatin1());
        if (tag.size() != 128) return {};
        QByteArray comment = tag.mid(97, 28);
        if (const qsizetype zero = comment.indexOf('\0'); zero >= 0) comment.truncate(zero);
        while (!comment.isEmpty() && quint8(comment.back()) < 33)
            comment.chop(1);
        if (comment.isEmpty()) return {};
        QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        const QString decoded = utf8.decode(comment);
        return utf8.hasError() ? QString::fromLatin1(comment) : decoded;
    }
};

// What mutagen reads from each file, in the order given.
QList<QJsonObject> mutagenReadback(const QStringList &paths, QString *problem) {
    QByteArray out, err;
    const QString script = sourceDir() + QStringLiteral("/tests/tools/mutagen_readback.py");
    if (run(systemPython(), QStringList{script} + paths, &out, &err) != 0) {
        *problem =
            QStringLiteral("mutagen_readback.py failed: ") + QString::fromUtf8(err).trimmed().right(600);
        return {};
    }
    QList<QJsonObject> entries;
    for (const QJsonValue &entry : QJsonDocument::fromJson(out).array())
        entries.append(entry.toObject());
    if (entries.size() != paths.size()) *problem = QStringLiteral("mutagen_readback.py gave too few entries");
    return entries;
}

// The MD5 of each file's decoded audio: `ffmpeg -v error -i F -map 0:a -f md5 -`, with the
// pictures (a video stream) left out. One ffmpeg decodes the whole batch, each input to its own
// md5 output; when that fails, each file goes alone so that only the bad ones lose their digest.
QList<QByteArray> audioDigests(const QStringList &paths, const QString &scratch) {
    QStringList args = {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-nostdin"),
                        QStringLiteral("-y")};
    for (const QString &path : paths)
        args << QStringLiteral("-i") << path;
    QStringList outputs;
    for (qsizetype i = 0; i < paths.size(); ++i) {
        outputs.append(QStringLiteral("%1/audio-%2.md5").arg(scratch).arg(i));
        args << QStringLiteral("-map") << QStringLiteral("%1:a").arg(i) << QStringLiteral("-f")
             << QStringLiteral("md5") << outputs.last();
    }
    QList<QByteArray> digests;
    if (run(QStringLiteral("ffmpeg"), args) == 0) {
        for (const QString &output : outputs)
            digests.append(readAll(output).trimmed());
        return digests;
    }
    for (const QString &path : paths) {
        QByteArray out;
        const int code = run(QStringLiteral("ffmpeg"),
                             {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-nostdin"),
                              QStringLiteral("-i"), path, QStringLiteral("-map"), QStringLiteral("0:a"),
                              QStringLiteral("-f"), QStringLiteral("md5"), QStringLiteral("-")},
                             &out);
        digests.append(code == 0 ? out.trimmed() : QByteArray("ffmpeg failed"));
    }
    return digests;
}

// The content of a text frame in encoding 0.
QByteArray latin1Text(const char *text) {
    return QByteArray(1, '\0') + text;
}

// Frames this program does not decode, added to copies of a few tool-made files so that there is
// something of each kind to carry over: user text, a comment, private bytes (over 127, so that
// plain and synchsafe sizes differ), a part of set.
QByteArray undecodedFrames(bool synchsafeSizes) {
    QByteArray privateBytes("quillwave.test");
    privateBytes += '\0';
    for (int i = 0; i < 200; ++i)
        privateBytes += char(i * 7);
    QByteArray comment("\x01"
                       "deu\xFF\xFE\0\0",
                       8);
    for (QChar c : QStringLiteral(u"Kommentar ünd ☃")) {
        comment += char(c.unicode() & 0xFF);
        comment += char(c.unicode() >> 8);
    }
    return frame23("TXXX", QByteArray("\0QW_NOTE\0kept as it was", 24), synchsafeSizes) +
           frame23("COMM", comment, synchsafeSizes) + frame23("PRIV", privateBytes, synchsafeSizes) +
           frame23("TPOS", latin1Text("1/2"), synchsafeSizes);
}

// The same frames inserted at the front of a 2.3/2.4 tag, its header size grown to match.
QByteArray withUndecodedFrames(const QByteArray &file) {
    const int major = file.size() > 10 ? file[3] : 0;
    if (!file.startsWith("ID3") || (major != 3 && major != 4) || (file[5] & 0x40)) return {};
    const QByteArray frames = undecodedFrames(major == 4);
    const quint32 size = MP3InfoTag::getSynchSafeIntIn(file, 6) + quint32(frames.size());
    return file.left(6) + synchsafe(size) + frames + file.mid(10);
}

// A version 2.2 tag (no tool of the set writes one) in front of untagged audio.
QByteArray version22Tag(const QByteArray &jpeg) {
    const auto utf16 = [](const QString &s) {
        QByteArray b("\x01\xFF\xFE", 3);
        for (QChar c : s) {
            b += char(c.unicode() & 0xFF);
            b += char(c.unicode() >> 8);
        }
        return b;
    };
    const QByteArray body =
        frame22("TT2", latin1Text("Two Two")) + frame22("TP1", utf16(QStringLiteral(u"Ωmega"))) +
        frame22("TAL", latin1Text("Old Format")) + frame22("TYE", latin1Text("1996")) +
        frame22("TRK", latin1Text("2/5")) + frame22("TCO", latin1Text("(8)")) +
        frame22("TBP", latin1Text("90")) + frame22("TCP", latin1Text("1")) +
        frame22("ULT", QByteArray("\0engverse\0Line one\nLine two", 28)) +
        frame22("TXX", QByteArray("\0QW_NOTE\0kept as it was", 23)) +
        frame22("COM", QByteArray("\0eng\0A comment", 14)) + frame22("TPA", latin1Text("1/2")) +
        frame22("PIC", QByteArray("\0JPG\x03\0", 6) + jpeg);
    return id3v2Tag(2, body, 32);
}

struct Shared {
    QString skip, problem;
    std::unique_ptr<TempDir> dir; // this process's own files: pictures, files made here, digests
    QList<Fixture> fixtures;
    QByteArray jpeg, png;
    QString jpegPath, pngPath;
};

QByteArray makePicture(const QString &path, const char *colour, const char *size) {
    run(QStringLiteral("ffmpeg"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-nostdin"), QStringLiteral("-y"),
         QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
         QStringLiteral("color=c=%1:s=%2").arg(QLatin1String(colour), QLatin1String(size)),
         QStringLiteral("-frames:v"), QStringLiteral("1"), path});
    return readAll(path);
}

void setUp(Shared &s) {
    if (!haveTool(QStringLiteral("ffmpeg"))) {
        s.skip = QStringLiteral("ffmpeg is not installed");
        return;
    }
    if (run(systemPython(), {QStringLiteral("-c"), QStringLiteral("import mutagen")}) != 0) {
        s.skip = systemPython() + QStringLiteral(" has no mutagen module");
        return;
    }
    // The tool-made set is shared (by every test of a CTest run): it is only read and copied.
    const QString set = mp3FixtureDir(&s.problem);
    if (set.isEmpty()) return;
    s.dir = std::make_unique<TempDir>();
    s.jpegPath = s.dir->file(QStringLiteral("added.jpg"));
    s.pngPath = s.dir->file(QStringLiteral("added.png"));
    s.jpeg = makePicture(s.jpegPath, "orange", "48x32");
    s.png = makePicture(s.pngPath, "purple", "24x20");
    if (!s.jpeg.startsWith("\xFF\xD8") || !s.png.startsWith("\x89PNG")) {
        s.problem = QStringLiteral("ffmpeg made no JPEG or PNG picture");
        return;
    }

    const QJsonObject manifest =
        QJsonDocument::fromJson(readAll(set + QStringLiteral("/manifest.json"))).object();
    for (const QJsonValue &f : manifest.value(u"fixtures").toArray()) {
        const QString file = f.toObject().value(u"file").toString();
        const QString path = set + u'/' + file;
        s.fixtures.append({file, f.toObject().value(u"tool").toString(), path, sha1Hex(readAll(path))});
    }
    if (s.fixtures.isEmpty()) {
        s.problem = QStringLiteral("no fixtures in ") + set + QStringLiteral("/manifest.json");
        return;
    }
    // Made here, in this process's own folder: copies with undecoded frames, and a version 2.2 tag.
    const auto add = [&](const QString &file, const QString &from, const QByteArray &bytes) {
        if (bytes.isEmpty()) return;
        QFile f(s.dir->file(file));
        if (f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size())
            s.fixtures.append({file, QStringLiteral("made here from ") + from, f.fileName(), sha1Hex(bytes)});
    };
    for (const char *source : {"lame_v23_and_v1.mp3", "mid3v2_v24_japanese.mp3", "ffmpeg_v24_greek_v1.mp3"}) {
        const QString from = QString::fromLatin1(source);
        add(QStringLiteral("extras_") + from, from, withUndecodedFrames(readAll(set + u'/' + from)));
    }
    const QByteArray untagged = readAll(set + QStringLiteral("/ffmpeg_untagged.mp3"));
    if (!untagged.isEmpty())
        add(QStringLiteral("built_v22.mp3"), QStringLiteral("ffmpeg_untagged.mp3"),
            version22Tag(s.jpeg) + untagged);

    QStringList paths;
    for (const Fixture &f : std::as_const(s.fixtures))
        paths.append(f.path);
    const QList<QJsonObject> before = mutagenReadback(paths, &s.problem);
    const QList<QByteArray> audio = audioDigests(paths, s.dir->path());
    if (!s.problem.isEmpty()) return;
    for (qsizetype i = 0; i < s.fixtures.size(); ++i) {
        s.fixtures[i].before = before[i];
        s.fixtures[i].audio = audio[i];
        if (before[i].contains(QStringLiteral("error")))
            s.problem += s.fixtures[i].file + QStringLiteral(": mutagen: ") +
                         before[i].value(u"error").toString() + u'\n';
        if (!audio[i].startsWith("MD5="))
            s.problem += s.fixtures[i].file + QStringLiteral(": ffmpeg cannot decode it before any change\n");
    }
}

Shared &shared() {
    static Shared s = [] {
        Shared made;
        setUp(made);
        return made;
    }();
    return s;
}

// --- one round: every file, one edit set --------------------------------------------------------

// What we expect mutagen to see after the save.
struct Outcome {
    const Fixture *fixture = nullptr;
    QString path;            // saved with synchsafe sizes in version 2.4, for other programs
    Values before, expected; // our reader's values before the edits; those plus the edits
    QString writeVersion;    // what our tag said, before the save, it would write
    QString expectedVersion; // by the rules, in mutagen's form: "2.3.0", or "1.1.0" for ID3v1 alone
    QString error;           // why the save failed; empty when it worked
    QJsonObject after;       // what mutagen reads
    QByteArray audio;
    QByteArray saved;
    // The same edits saved with the switch off (plain 2.4 sizes, the default), which our own
    // reader reads right: saved once more as it was, read back, and saved with no change.
    QString plainError;
    QByteArray plainSaved, plainSavedAgain, plainSavedAfterReading;
    std::optional<Values> plainReadBack;

    std::string where(const char *editSet) const {
        return (fixture->file + QStringLiteral(" [") + fixture->tool + QStringLiteral("] / ") +
                QLatin1String(editSet))
            .toStdString();
    }
    bool staysID3v1() const { return expectedVersion == QLatin1String("1.1.0"); }
};

struct Round {
    QString problem;
    std::unique_ptr<TempDir> dir;
    QList<Outcome> outcomes;
};

Values applied(Values v, const EditSet &e) {
    const auto set = [](QString &field, const std::optional<QString> &edit) {
        if (edit) field = edit->isEmpty() ? QString() : *edit;
    };
    set(v.title, e.title);
    set(v.artist, e.artist);
    set(v.album, e.album);
    set(v.year, e.year);
    set(v.track, e.track);
    set(v.genre, e.genre);
    set(v.bpm, e.bpm);
    set(v.lyrics, e.lyrics);
    if (e.compilation) v.compilation = *e.compilation;
    if (e.removePictures) v.pictures.clear();
    for (Added a : e.addPictures) {
        const Shared &s = shared();
        v.pictures.append(a == Added::Jpeg ? Picture{sha1Hex(s.jpeg), QStringLiteral("image/jpeg")}
                                           : Picture{sha1Hex(s.png), QStringLiteral("image/png")});
    }
    return v;
}

// Whether a file with an ID3v1 tag alone keeps it alone: the rule of
// MP3InfoTag::canWriteID3v11WithoutLoss(). No pictures; title, artist and album of up to 30
// characters, all Latin-1; a year of up to 4; no comment (an ID3v1 comment read from the file is
// one); no total in the track; no genre, or one of the list. The tempo, the lyrics and the
// compilation flag deliberately do not count: a file that stays ID3v1 loses them.
bool fitsID3v1(const Values &v, bool hasComment) {
    for (const QString &text : {v.title, v.artist, v.album}) {
        if (text.size() > 30 || !fitsLatin1(text)) return false;
    }
    const bool genre = v.genre.isEmpty() || AudioInfoTag::indexOfGenre(v.genre) != AudioInfoTag::NSNotFound;
    return v.pictures.isEmpty() && v.year.size() <= 4 && !hasComment && !v.track.contains(u'/') && genre;
}

QString expectedVersion(const Fixture &f, const Values &v) {
    const QString version = f.version();
    if (version.startsWith(QLatin1String("2."))) return version;
    if (version == QLatin1String("1") && fitsID3v1(v, !f.id3v1Comment().isNull()))
        return QStringLiteral("1.1.0");
    return QStringLiteral("2.3.0");
}

// Our tag's answer in mutagen's form.
QString mutagenVersion(const QString &writeVersion) {
    return writeVersion == QLatin1String("1.1") ? QStringLiteral("1.1.0") : writeVersion;
}

// Reads the song, applies the edits through the song API and saves (a second time too when
// savedAgain is given); gives the values the tag had before the edits and the version it said it
// would write, or the reason the save failed.
QString editAndSave(const QString &path, const EditSet &e, Values *before, QString *writeVersion,
                    QByteArray *saved, QByteArray *savedAgain) {
    SongFilePtr song = SongFile::songWithPath(path);
    if (!song) return QStringLiteral("no song");
    std::shared_ptr<AudioInfoTag> tag = song->infotag();
    if (!tag) return QStringLiteral("no tag");
    *before = valuesOf(*tag);
    if (e.title) tag->setTitle(*e.title);
    if (e.artist) tag->setArtist(*e.artist);
    if (e.album) tag->setAlbum(*e.album);
    if (e.year) tag->setYear(*e.year);
    if (e.track) tag->setTrack(*e.track);
    if (e.genre) tag->setGenres(*e.genre);
    if (e.bpm) tag->setBPM(*e.bpm);
    if (e.lyrics) tag->setLyrics(*e.lyrics);
    if (e.compilation) tag->setIsPartOfCompilation(*e.compilation);
    if (e.removePictures) tag->removeAllImages();
    for (Added a : e.addPictures) {
        const Shared &s = shared();
        tag->addImage(a == Added::Jpeg ? ID3Image(s.jpeg, QStringLiteral("image/jpeg"))
                                       : ID3Image(s.png, QStringLiteral("image/png")));
    }
    *writeVersion = tag->writeVersion();
    QString error;
    if (!song->writeToOriginalPath(&error, false)) return QStringLiteral("save failed: ") + error;
    *saved = readAll(path);
    if (savedAgain) {
        // The same song saved again, nothing changed in between.
        if (!song->writeToOriginalPath(&error, false)) return QStringLiteral("second save failed: ") + error;
        *savedAgain = readAll(path);
    }
    return {};
}

// Reads the file afresh and saves it without a change; gives the bytes, or nothing on failure.
QByteArray saveAfterReading(const QString &path, QString *error) {
    SongFilePtr song = SongFile::songWithPath(path);
    if (!song || !song->infotag()) {
        *error = QStringLiteral("cannot read it back");
        return {};
    }
    if (!song->writeToOriginalPath(error, false)) return {};
    return readAll(path);
}

// Saves with synchsafe or plain version 2.4 frame sizes while it lives.
class SizesInV24 {
public:
    explicit SizesInV24(bool synchsafe) { MP3InfoTag::setWriteSynchSafeSizesInV24(synchsafe); }
    ~SizesInV24() { MP3InfoTag::setWriteSynchSafeSizesInV24(false); }
};

Round makeRound(const EditSet &e) {
    Round r;
    const Shared &s = shared();
    r.dir = std::make_unique<TempDir>();
    QDir(r.dir->path()).mkpath(QStringLiteral("saved"));
    QDir(r.dir->path()).mkpath(QStringLiteral("plain"));
    QStringList written;
    for (const Fixture &f : s.fixtures) {
        Outcome o;
        o.fixture = &f;
        o.path = r.dir->file(QStringLiteral("saved/") + f.file);
        QFile::copy(f.path, o.path);
        {
            // With synchsafe 2.4 sizes our own reader may misread the tag: only other programs
            // read this file.
            SizesInV24 synchsafe(true);
            o.error = editAndSave(o.path, e, &o.before, &o.writeVersion, &o.saved, nullptr);
        }
        o.expected = applied(o.before, e);
        o.expectedVersion = expectedVersion(f, o.expected);
        if (o.staysID3v1()) {
            // Dropped: ID3v1 has no place for them.
            o.expected.bpm = o.expected.lyrics = QString();
            o.expected.compilation = false;
        }
        {
            SizesInV24 plain(false);
            const QString path = r.dir->file(QStringLiteral("plain/") + f.file);
            QFile::copy(f.path, path);
            Values ignored;
            QString version;
            o.plainError = editAndSave(path, e, &ignored, &version, &o.plainSaved, &o.plainSavedAgain);
            if (o.plainError.isEmpty()) {
                if (SongFilePtr song = SongFile::songWithPath(path); song && song->infotag())
                    o.plainReadBack = valuesOf(*song->infotag());
                QString error;
                o.plainSavedAfterReading = saveAfterReading(path, &error);
            }
        }
        written.append(o.path);
        r.outcomes.append(o);
    }
    const QList<QJsonObject> after = mutagenReadback(written, &r.problem);
    const QList<QByteArray> audio = audioDigests(written, r.dir->path());
    for (qsizetype i = 0; i < r.outcomes.size() && r.problem.isEmpty(); ++i) {
        r.outcomes[i].after = after[i];
        r.outcomes[i].audio = audio[i];
    }
    return r;
}

// --- reading mutagen's answers ------------------------------------------------------------------

// Our writer puts text outside Latin-1 into encoding 2 (UTF-16BE) behind a byte-order mark, in
// version 2.3 tags too, and mutagen keeps that mark as a leading U+FEFF. In version 2.2 the text
// goes out as encoding 1 with the mark, which mutagen takes as the byte order. So: in 2.3/2.4, a
// string of encoding 2 must start with U+FEFF, which is then taken off; nowhere else may one be.
QString withoutOurMark(const QString &s, int encoding, const QString &version, std::string *complaint) {
    if (version != QLatin1String("2.2.0") && encoding == 2) {
        if (!s.startsWith(kMark)) {
            *complaint = "no leading U+FEFF in encoding 2 (the writer no longer writes the mark?)";
            return s;
        }
        return s.mid(1);
    }
    if (s.startsWith(kMark)) *complaint = "a leading U+FEFF outside encoding 2";
    return s;
}

// The encoding our writer must use for the text: 0 for Latin-1, else 2 (1 in version 2.2).
int expectedEncoding(const QStringList &strings, const QString &version) {
    const bool latin1 = std::all_of(strings.begin(), strings.end(), fitsLatin1);
    return latin1 ? 0 : version == QLatin1String("2.2.0") ? 1 : 2;
}

QStringList stringsOf(const QJsonValue &v) {
    QStringList out;
    for (const QJsonValue &s : v.toArray())
        out.append(s.toString());
    return out;
}

class Checker {
public:
    Checker(const Outcome &o, const char *editSet)
        : mWhere(o.where(editSet)) {}

    template <typename... Parts> void fail(const Parts &...parts) {
        std::ostringstream os;
        (os << ... << parts);
        ADD_FAILURE() << mWhere << ": " << os.str();
    }

    // A text frame of the ID3v2 tag against the value we expect; a null value must be absent.
    void text(const QJsonObject &v2, const char *frameID, const QString &expected) {
        const QString version = v2.value(u"version").toString();
        const QJsonValue strings = v2.value(u"text").toObject().value(QLatin1String(frameID));
        if (expected.isNull()) {
            if (!strings.isUndefined())
                fail(frameID, ": expected no frame, mutagen reads ", show(stringsOf(strings).join(u'|')));
            return;
        }
        if (strings.isUndefined()) {
            fail(frameID, ": expected ", show(expected), ", mutagen reads no frame");
            return;
        }
        const QStringList raw = stringsOf(strings);
        const int encoding = v2.value(u"encodings").toObject().value(QLatin1String(frameID)).toInt(-1);
        QStringList plain;
        std::string complaint;
        for (const QString &s : raw)
            plain.append(withoutOurMark(s, encoding, version, &complaint));
        if (!complaint.empty()) fail(frameID, ": ", complaint, " in ", show(raw.join(u'|')));
        if (encoding != expectedEncoding(plain, version))
            fail(frameID, ": encoding ", encoding, ", expected ", expectedEncoding(plain, version), " for ",
                 show(plain.join(u'|')));
        if (plain.value(0) != expected)
            fail(frameID, ": expected ", show(expected), ", mutagen reads ", show(plain.value(0)),
                 " (all: ", show(raw.join(u'|')), ", encoding ", encoding, ")");
    }

private:
    std::string mWhere;
};

// The picture as mutagen names its format: the MIME type, or in version 2.2 the three letters.
QString pictureFormat(const QString &mime, const QString &version) {
    if (version != QLatin1String("2.2.0")) return mime;
    QString format = mime.mid(6).toUpper();
    return format == QLatin1String("JPEG") ? QStringLiteral("JPG") : format;
}

QList<Picture> picturesOf(const QJsonObject &v2) {
    QList<Picture> out;
    for (const QJsonValue &p : v2.value(u"pictures").toArray())
        out.append(
            {p.toObject().value(u"sha1").toString().toLatin1(), p.toObject().value(u"mime").toString()});
    return out;
}

// Plain or synchsafe frame sizes: walks a 2.3/2.4 tag reading each size the given way. True when
// the frames end exactly at the end of the tag or where zero padding starts.
struct FrameSpan {
    QByteArray id;
    qsizetype at = 0;
    quint32 size = 0;
};
bool walkFrames(const QByteArray &file, bool synchsafeSizes, QList<FrameSpan> *frames) {
    frames->clear();
    if (!file.startsWith("ID3") || file.size() < 10) return false;
    const qsizetype end = 10 + qsizetype(MP3InfoTag::getSynchSafeIntIn(file, 6));
    if (end > file.size()) return false;
    qsizetype at = 10;
    while (at < end) {
        if (file[at] == '\0') return file.mid(at, end - at).count('\0') == end - at;
        if (at + 10 > end) return false;
        const QByteArray size = file.mid(at + 4, 4);
        quint32 n = 0;
        for (char c : size) {
            if (synchsafeSizes && (c & 0x80)) return false;
            n = synchsafeSizes ? (n << 7 | quint8(c)) : (n << 8 | quint8(c));
        }
        if (at + 10 + qsizetype(n) > end) return false;
        frames->append({file.mid(at, 4), at, n});
        at += 10 + n;
    }
    return at == end;
}

// --- the tests ----------------------------------------------------------------------------------

class WriterRoundTripBase : public ::testing::Test {
protected:
    void SetUp() override {
        const Shared &s = shared();
        if (!s.skip.isEmpty()) GTEST_SKIP() << s.skip.toStdString();
        ASSERT_TRUE(s.problem.isEmpty()) << s.problem.toStdString();
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
    const char *name() const { return GetParam().name; }
    const Round *mRound = nullptr;
};

TEST_P(EditSets, EverySaveWorks) {
    for (const Outcome &o : mRound->outcomes) {
        EXPECT_TRUE(o.error.isEmpty()) << o.where(name()) << ": " << o.error.toStdString();
        EXPECT_TRUE(o.plainError.isEmpty())
            << o.where(name()) << ": plain sizes: " << o.plainError.toStdString();
        EXPECT_FALSE(o.after.contains(QStringLiteral("error")))
            << o.where(name()) << ": mutagen: " << o.after.value(u"error").toString().toStdString();
        EXPECT_EQ(sha1Hex(readAll(o.fixture->path)), o.fixture->sha1)
            << o.where(name()) << ": the file the copies came from was changed";
    }
}

TEST_P(EditSets, MutagenReadsBackWhatWeSet) {
    const EditSet &e = GetParam();
    for (const Outcome &o : mRound->outcomes) {
        if (!o.error.isEmpty()) continue;
        Checker check(o, name());
        const Values &x = o.expected;
        if (o.staysID3v1()) {
            // ID3v1 alone: no ID3v2 tag, so no tempo, lyrics or compilation flag; the values in the
            // ID3v1 tag are checked by AnID3v1TagThatWasThereFollowsTheValues.
            const QJsonValue v2 = o.after.value(u"v2");
            if (!v2.isNull())
                check.fail("an ID3v2 tag was written: ", show(stringsOf(v2[u"frameIDs"]).join(u' ')));
            continue;
        }
        const QJsonObject v2 = o.after.value(u"v2").toObject();
        if (v2.isEmpty()) {
            check.fail("expected an ID3v2 tag with the values (version ", o.expectedVersion.toStdString(),
                       "), mutagen finds none; title ", show(x.title), ", bpm ", show(x.bpm), ", lyrics ",
                       show(x.lyrics.left(20)), ", ", x.pictures.size(), " pictures");
            continue;
        }
        const QString version = v2.value(u"version").toString();
        check.text(v2, "TIT2", x.title);
        check.text(v2, "TPE1", x.artist);
        check.text(v2, "TALB", x.album);
        check.text(v2, "TRCK", x.track);
        check.text(v2, "TCON", x.genre);
        check.text(v2, "TBPM", x.bpm);
        // The year: TYER in version 2.3 (2.2's TYE reads as TYER too), TDRC in 2.4.
        check.text(v2, version == QLatin1String("2.4.0") ? "TDRC" : "TYER", x.year);
        check.text(v2, version == QLatin1String("2.4.0") ? "TYER" : "TDRC", QString());
        const QStringList compilation = stringsOf(v2.value(u"text").toObject().value(u"TCMP"));
        if (x.compilation != (leadingNumber(compilation.value(0)) >= 1))
            check.fail("compilation: expected ", x.compilation, ", mutagen reads TCMP ",
                       show(compilation.join(u'|')));
        if (e.compilation && !*e.compilation && !compilation.isEmpty())
            check.fail("compilation cleared, but TCMP is still there: ", show(compilation.join(u'|')));

        // Lyrics: the first USLT frame's text; a block we wrote has language "eng" and no descriptor.
        const QJsonArray lyrics = v2.value(u"lyrics").toArray();
        if (x.lyrics.isNull()) {
            if (!lyrics.isEmpty())
                check.fail("lyrics: expected none, mutagen reads ", lyrics.size(), " USLT frames");
        } else if (lyrics.isEmpty()) {
            check.fail("lyrics: expected ", show(x.lyrics), ", mutagen reads no USLT frame");
        } else {
            const QJsonObject first = lyrics.first().toObject();
            const int encoding = first.value(u"encoding").toInt();
            std::string complaint;
            const QString text =
                withoutOurMark(first.value(u"text").toString(), encoding, version, &complaint);
            const QString desc =
                withoutOurMark(first.value(u"desc").toString(), encoding, version, &complaint);
            if (!complaint.empty()) check.fail("lyrics: ", complaint);
            if (text != x.lyrics)
                check.fail("lyrics: expected ", show(x.lyrics), ", mutagen reads ", show(text));
            if (e.lyrics) {
                if (lyrics.size() != 1)
                    check.fail("lyrics: ", lyrics.size(), " USLT frames after setting them");
                if (first.value(u"lang").toString() != QLatin1String("eng") || !desc.isEmpty())
                    check.fail("lyrics: language ", show(first.value(u"lang").toString()), " and descriptor ",
                               show(desc), ", expected \"eng\" and none");
                if (encoding != expectedEncoding({x.lyrics}, version))
                    check.fail("lyrics: encoding ", encoding, " for ", show(x.lyrics));
            }
        }

        // Pictures, in order, by their bytes and format; all of type 0 without a description
        // (mutagen adds spaces to tell descriptions apart when several are the same).
        QList<Picture> expected;
        for (const Picture &p : x.pictures)
            expected.append({p.sha1, pictureFormat(p.mime, version)});
        const QList<Picture> got = picturesOf(v2);
        if (got != expected) check.fail("pictures: expected ", show(expected), ", mutagen reads ", show(got));
        for (const QJsonValue &p : v2.value(u"pictures").toArray()) {
            const QJsonObject picture = p.toObject();
            if (picture.value(u"type").toInt() != 0 || !picture.value(u"desc").toString().trimmed().isEmpty())
                check.fail("picture written with type ", picture.value(u"type").toInt(), " and description ",
                           show(picture.value(u"desc").toString()));
        }
    }
}

TEST_P(EditSets, TheAudioIsTheSame) {
    for (const Outcome &o : mRound->outcomes) {
        if (!o.error.isEmpty()) continue;
        EXPECT_EQ(o.audio.toStdString(), o.fixture->audio.toStdString())
            << o.where(name()) << ": decoded audio differs after the save";
    }
}

// The file has the version our tag said, before the save, it would write; and that is the one the
// rules give: the version the file had, 2.3 for a file without a tag, and for ID3v1 alone 1.1 or
// 2.3 by fitsID3v1().
TEST_P(EditSets, TheTagVersionIsKept) {
    for (const Outcome &o : mRound->outcomes) {
        if (!o.error.isEmpty()) continue;
        Checker check(o, name());
        const QString version = o.after.value(u"version").toString();
        if (version != mutagenVersion(o.writeVersion))
            check.fail("mutagen reads version ", show(version), ", our tag said it writes ",
                       show(o.writeVersion));
        if (mutagenVersion(o.writeVersion) != o.expectedVersion)
            check.fail("our tag writes version ", show(o.writeVersion), ", the rules give ",
                       o.expectedVersion.toStdString(), " (read as ", show(o.fixture->version()), ")");
        if (version != o.expectedVersion) continue;
        if (o.staysID3v1()) {
            // ID3v1 alone: no ID3v2 tag, the same length, a 1.1 tag at the end.
            if (o.saved.startsWith("ID3")) check.fail("an ID3v2 tag was added");
            if (o.saved.size() != QFileInfo(o.fixture->path).size())
                check.fail("length ", o.saved.size(), ", was ", QFileInfo(o.fixture->path).size());
            const QByteArray tail = o.saved.right(128);
            if (!tail.startsWith("TAG") || tail[125] != '\0')
                check.fail("the last 128 bytes are no ID3v1.1 tag: ", tail.toHex().toStdString());
            continue;
        }
        if (!o.saved.startsWith("ID3") || o.saved[3] != char(o.expectedVersion[2].digitValue())) {
            check.fail("the file does not start with an ID3v2.", o.expectedVersion[2].digitValue(),
                       " header");
            continue;
        }
        // The frames of a 2.3 tag have plain sizes; those of a 2.4 tag, saved with the switch on,
        // synchsafe ones.
        QList<FrameSpan> frames;
        if (version == QLatin1String("2.3.0") && !walkFrames(o.saved, false, &frames))
            check.fail("the 2.3 frames do not add up with plain sizes");
        if (version == QLatin1String("2.4.0") && !walkFrames(o.saved, true, &frames))
            check.fail("the 2.4 frames do not add up with synchsafe sizes");
    }
}

// A file with an ID3v1 tag alone keeps it alone when the values fit; where the edit set decides
// that by itself it is said outright here, so that a change of the rule shows even if fitsID3v1()
// were changed along. A comment always takes the file to 2.3. What stays ID3v1 loses the tempo,
// the lyrics and the compilation flag: mutagen finds no ID3v2 tag (MutagenReadsBackWhatWeSet),
// and our reader finds none of them either.
TEST_P(EditSets, AFileWithID3v1AloneKeepsItWhenTheValuesFit) {
    const EditSet &e = GetParam();
    int decided = 0;
    for (const Outcome &o : mRound->outcomes) {
        if (o.fixture->version() != QLatin1String("1") || !o.error.isEmpty()) continue;
        Checker check(o, name());
        const bool comment = !o.fixture->id3v1Comment().isNull();
        if (comment && o.staysID3v1()) check.fail("it has an ID3v1 comment and yet stays ID3v1 alone");
        if (!comment && e.id3v1AloneStays) {
            ++decided;
            if (o.staysID3v1() != *e.id3v1AloneStays)
                check.fail(*e.id3v1AloneStays ? "expected to stay ID3v1 alone, the rules give "
                                              : "expected to get an ID3v2 tag, the rules give ",
                           o.expectedVersion.toStdString());
        }
        if (!o.staysID3v1()) continue;
        if (!o.plainReadBack) {
            check.fail("our reader reads nothing back");
            continue;
        }
        const Values &got = *o.plainReadBack;
        if (!got.bpm.isNull() || !got.lyrics.isNull() || got.compilation)
            check.fail("kept in an ID3v1 tag alone: tempo ", show(got.bpm), ", lyrics ", show(got.lyrics),
                       ", compilation ", got.compilation);
    }
    if (e.id3v1AloneStays) EXPECT_GT(decided, 0) << "no file with an ID3v1 tag alone and no comment";
}

// Frames we do not decode, lyrics blocks and pictures that no edit touched are what they were,
// as mutagen sees them (lyrics: same text, descriptor and language, "eng" for a block that had
// none), under our reader's rules where it reads them its own way.
TEST_P(EditSets, WhatTheEditsDidNotTouchSurvives) {
    const EditSet &e = GetParam();
    const bool picturesTouched = e.removePictures || !e.addPictures.isEmpty();
    for (const Outcome &o : mRound->outcomes) {
        if (!o.error.isEmpty() || o.staysID3v1()) continue;
        Checker check(o, name());
        const QJsonObject before = o.fixture->before.value(u"v2").toObject();
        const QJsonObject after = o.after.value(u"v2").toObject();
        const QString version = after.value(u"version").toString();
        // An ID3v1 comment becomes a COMM frame at the end when there is none (not in a 2.2 tag):
        // flags 00 00, encoding 0, "eng", an empty descriptor, the text.
        QStringList others = stringsOf(before.value(u"others"));
        const QString comment = o.fixture->id3v1Comment();
        if (!comment.isNull() && version != QLatin1String("2.2.0") &&
            !stringsOf(before.value(u"frameIDs")).contains(QStringLiteral("COMM")))
            others.append(
                QStringLiteral("COMM(encoding=<Encoding.LATIN1: 0>, lang='eng', desc='', text=[%1])")
                    .arg(pythonRepr(id3v1Text(comment))));
        const QStringList othersAfter = stringsOf(after.value(u"others"));
        if (othersAfter != others)
            check.fail("undecoded frames expected:\n", others.join(u'\n').toStdString(), "\nafter:\n",
                       othersAfter.join(u'\n').toStdString());
        if (before.isEmpty()) continue;
        if (!picturesTouched) {
            // Written as our reader gave them, byte for byte, which is what mutagen read before under
            // the reader's picture rules (TestSupport), in a 2.4 tag padding zeros included.
            const QJsonArray was = before.value(u"pictures").toArray();
            const QJsonArray now = after.value(u"pictures").toArray();
            if (was.size() != now.size() || o.before.pictures.size() != was.size())
                check.fail(was.size(), " pictures before (", o.before.pictures.size(), " by our reader), ",
                           now.size(), " after");
            for (qsizetype i = 0; i < std::min(was.size(), now.size()); ++i) {
                const QByteArray want = expectedPictureBytes(was[i].toObject());
                const QJsonObject picture = now[i].toObject();
                const QByteArray got = QByteArray::fromHex(picture.value(u"data").toString().toLatin1());
                const bool v24 = o.fixture->version() == QLatin1String("2.4.0");
                if (got != want && !(v24 && carriesPaddingZeros(got, want)))
                    check.fail("untouched picture ", i, ": ", got.size(), " bytes, sha1 ",
                               sha1Hex(got).toStdString(), ", expected ", want.size(), " bytes, sha1 ",
                               sha1Hex(want).toStdString());
                if (i < o.before.pictures.size() && sha1Hex(got) != o.before.pictures[i].sha1)
                    check.fail("untouched picture ", i, " is not what our reader gave before the save");
                if (picture.value(u"mime") != was[i].toObject().value(u"mime"))
                    check.fail("untouched picture ", i, ": format ", show(picture.value(u"mime").toString()),
                               ", was ", show(was[i].toObject().value(u"mime").toString()));
            }
        }
        if (!e.lyrics) {
            const QJsonArray was = before.value(u"lyrics").toArray();
            const QJsonArray now = after.value(u"lyrics").toArray();
            if (was.size() != now.size()) {
                check.fail(was.size(), " USLT frames before, ", now.size(), " after");
                continue;
            }
            for (qsizetype i = 0; i < was.size(); ++i) {
                const QJsonObject b = was[i].toObject(), a = now[i].toObject();
                std::string complaint;
                const int encoding = a.value(u"encoding").toInt();
                const QString text =
                    withoutOurMark(a.value(u"text").toString(), encoding, version, &complaint);
                const QString desc =
                    withoutOurMark(a.value(u"desc").toString(), encoding, version, &complaint);
                const QString lang = b.value(u"lang").toString();
                const QString wantLang = lang.count(QChar(0)) == 3 ? QStringLiteral("eng") : lang;
                // UTF-16BE lyrics (encoding 2) starting with a character below U+0100 are read
                // shifted by one byte: the zero bytes behind the descriptor are skipped, the first
                // character's high byte among them. They are written as read, so they differ.
                const QString wasText = b.value(u"text").toString();
                const bool shifted =
                    b.value(u"encoding").toInt() == 2 && !wasText.isEmpty() && wasText[0].unicode() < 0x100;
                const bool textKept = shifted ? !text.isEmpty() && text != wasText : text == wasText;
                if (!textKept || desc != b.value(u"desc").toString() ||
                    a.value(u"lang").toString() != wantLang || !complaint.empty())
                    check.fail("untouched USLT ", i, shifted ? " (read shifted)" : "", " changed: before ",
                               QJsonDocument(b).toJson(QJsonDocument::Compact).toStdString(), ", after ",
                               QJsonDocument(a).toJson(QJsonDocument::Compact).toStdString(), " ", complaint);
            }
        }
    }
}

// An ID3v1 tag that was there, behind an ID3v2 tag or alone, holds the new values: text as
// Latin-1 with one '?' for each character outside it (an emoji too), cut to 30 bytes; the year;
// the genre's number, 255 for a genre off the list; and the track number (ID3v1.1), but only
// when there is a year: the year, not the track, decides whether the track byte is filled. (The
// ID3v2 tag keeps the track all the same: MutagenReadsBackWhatWeSet.)
TEST_P(EditSets, AnID3v1TagThatWasThereFollowsTheValues) {
    for (const Outcome &o : mRound->outcomes) {
        if (!o.error.isEmpty()) continue;
        Checker check(o, name());
        const QJsonObject v1 = o.after.value(u"v1").toObject();
        if (!o.fixture->hadID3v1()) {
            if (!v1.isEmpty()) check.fail("an ID3v1 tag was added");
            continue;
        }
        if (v1.isEmpty()) {
            check.fail("the ID3v1 tag is gone");
            continue;
        }
        const Values &x = o.expected;
        const QByteArray bytes = QByteArray::fromHex(v1.value(u"bytes").toString().toLatin1());
        const auto field = [&](const char *key, const QString &want) {
            const QString got = v1.value(QLatin1String(key)).toString();
            if (got != want)
                check.fail("ID3v1 ", key, ": expected ", show(want), ", mutagen reads ", show(got));
        };
        field("title", id3v1Text(x.title).left(30).trimmed());
        field("artist", id3v1Text(x.artist).left(30).trimmed());
        field("album", id3v1Text(x.album).left(30).trimmed());
        field("year", x.year.left(4));
        const long long track = x.track.isNull() ? 0 : leadingNumber(x.track.section(u'/', 0, 0));
        const int wantTrack = !x.year.isEmpty() && track >= 1 && track <= 255 ? int(track) : 0;
        if (bytes[125] != '\0' || quint8(bytes[126]) != wantTrack)
            check.fail("ID3v1.1 track byte ", int(quint8(bytes[126])),
                       " (byte 125: ", int(quint8(bytes[125])), "), expected ", wantTrack, " for track ",
                       show(x.track), " with year ", show(x.year));
        const int index = x.genre.isNull() ? 255 : AudioInfoTag::indexOfGenre(x.genre.section(u'/', 0, 0));
        const int wantGenre = index < 255 ? index : 255;
        if (quint8(bytes[127]) != wantGenre)
            check.fail("ID3v1 genre byte ", int(quint8(bytes[127])), ", expected ", wantGenre, " for ",
                       show(x.genre));
    }
}

// Saving the same song again, and saving a fresh read of the saved file with no change, give the
// same bytes. Done with the switch off: with synchsafe 2.4 sizes our own reader, which prefers
// plain sizes where both readings look right, may misread the tag. Outside version 2.4 the switch
// changes nothing.
TEST_P(EditSets, SavingAgainChangesNothing) {
    for (const Outcome &o : mRound->outcomes) {
        if (!o.error.isEmpty() || !o.plainError.isEmpty()) continue;
        Checker check(o, name());
        if (o.plainSavedAgain != o.plainSaved) check.fail("the same song saved twice gives different bytes");
        if (o.plainSavedAfterReading != o.plainSaved)
            check.fail("read back and saved with no change, the file differs (", o.plainSaved.size(), " -> ",
                       o.plainSavedAfterReading.size(), " bytes)");
        if (!o.fixture->version().startsWith(QLatin1String("2.4")) && o.saved != o.plainSaved)
            check.fail("the switch for 2.4 sizes changed a file of version ", show(o.fixture->version()));
    }
}

// With the switch off, version 2.4 frame sizes are plain numbers, which mutagen may misread from
// 128 bytes up; our own reader must read every value and picture back exactly.
TEST_P(EditSets, PlainSizesInVersion24ReadBackByOurReader) {
    int bigFrames = 0;
    for (const Outcome &o : mRound->outcomes) {
        if (!o.fixture->version().startsWith(QLatin1String("2.4")) || !o.plainError.isEmpty()) continue;
        Checker check(o, name());
        QList<FrameSpan> frames;
        if (!walkFrames(o.plainSaved, false, &frames)) check.fail("plain sizes: the frames do not add up");
        for (const FrameSpan &f : frames) {
            if (f.size < 128) continue;
            ++bigFrames;
            if (o.plainSaved.mid(f.at + 4, 4) != be32(f.size))
                check.fail("plain sizes: ", f.id.toStdString(), " of ", f.size, " bytes has size bytes ",
                           o.plainSaved.mid(f.at + 4, 4).toHex().toStdString());
        }
        if (!o.plainReadBack) {
            check.fail("plain sizes: our reader reads nothing back");
            continue;
        }
        const Values &got = *o.plainReadBack, &x = o.expected;
        const struct {
            const char *name;
            QString got, want;
        } fields[] = {{"title", got.title, x.title}, {"artist", got.artist, x.artist},
                      {"album", got.album, x.album}, {"year", got.year, x.year},
                      {"track", got.track, x.track}, {"genre", got.genre, x.genre},
                      {"bpm", got.bpm, x.bpm},       {"lyrics", got.lyrics, x.lyrics}};
        for (const auto &f : fields) {
            if (f.got != f.want || f.got.isNull() != f.want.isNull())
                check.fail("plain sizes: ", f.name, ": ours ", show(f.got), ", expected ", show(f.want));
        }
        if (got.compilation != x.compilation) check.fail("plain sizes: compilation ", got.compilation);
        if (got.pictures != x.pictures)
            check.fail("plain sizes: pictures ", show(got.pictures), ", expected ", show(x.pictures));
    }
    EXPECT_GT(bigFrames, 0) << "no 2.4 frame of 128 bytes or more to look at";
}

INSTANTIATE_TEST_SUITE_P(WriterRoundTrip, EditSets, ::testing::ValuesIn(kEditSets),
                         [](const ::testing::TestParamInfo<EditSet> &info) {
                             return std::string(info.param.name);
                         });

class WriterRoundTripSet : public WriterRoundTripBase {};

// The round trips cover every kind of tag: 2.2, 2.3, 2.4, ID3v1 alone, none.
TEST_F(WriterRoundTripSet, HasEveryKindOfTag) {
    QStringList versions;
    for (const Fixture &f : shared().fixtures)
        versions.append(f.version());
    for (const char *kind : {"2.2.0", "2.3.0", "2.4.0", "1", ""})
        EXPECT_TRUE(versions.contains(QString::fromLatin1(kind))) << "no fixture read as \"" << kind << '"';
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

class WriterRoundTripCli : public WriterRoundTripBase {
protected:
    // Copies of the fixtures that were made, under the same names.
    QStringList copies(const QStringList &files) {
        QStringList paths;
        for (const QString &file : files) {
            for (const Fixture &f : shared().fixtures) {
                if (f.file == file && QFile::copy(f.path, mDir.file(file))) paths.append(mDir.file(file));
            }
        }
        return paths;
    }
    const Fixture *fixture(const QString &path) const {
        for (const Fixture &f : shared().fixtures) {
            if (f.file == QFileInfo(path).fileName()) return &f;
        }
        return nullptr;
    }
    QJsonObject v2Of(const QJsonObject &entry) { return entry.value(u"v2").toObject(); }
    static QString first(const QJsonObject &v2, const char *id) {
        QString s = v2.value(u"text").toObject().value(QLatin1String(id)).toArray().at(0).toString();
        return s.startsWith(kMark) ? s.mid(1) : s;
    }
    TempDir mDir;
};

TEST_F(WriterRoundTripCli, SetWritesWhatMutagenReadsBack) {
    const QStringList files =
        copies({QStringLiteral("mutagen_v23_utf16_greek.mp3"), QStringLiteral("mid3v2_v24_japanese.mp3"),
                QStringLiteral("lame_v1_space_padded.mp3")});
    ASSERT_EQ(files.size(), 3);
    const QString lyrics = QStringLiteral(u"Γραμμή ένα\nLine two, ünïcödé\n日本語 🎼 three\n");
    const QString lyricsFile = mDir.write(QStringLiteral("lyrics.txt"), lyrics.toUtf8());
    const Shared &s = shared();
    const QString title = QStringLiteral(u"Νέος τίτλος 🎺");

    CliResult r =
        cli(QStringList{QStringLiteral("set")} + files +
            QStringList{QStringLiteral("--title"), title, QStringLiteral("--album"), QString(),
                        QStringLiteral("--bpm"), QStringLiteral("99"), QStringLiteral("--lyrics-file"),
                        lyricsFile, QStringLiteral("--remove-pictures"), QStringLiteral("--add-picture"),
                        s.pngPath, QStringLiteral("--compilation"), QStringLiteral("no"),
                        QStringLiteral("--synchsafe-v24"), QStringLiteral("--quiet")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    for (const QString &line : {files[0] + QStringLiteral("\t2.3.0"), files[1] + QStringLiteral("\t2.4.0"),
                                files[2] + QStringLiteral("\t2.3.0")})
        EXPECT_TRUE(r.out.contains(line)) << line.toStdString() << " not in:\n" << r.out.toStdString();

    QString problem;
    QList<QJsonObject> after = mutagenReadback(files, &problem);
    ASSERT_TRUE(problem.isEmpty()) << problem.toStdString();
    const QList<QByteArray> audio = audioDigests(files, mDir.path());
    const QByteArray png = sha1Hex(s.png);
    for (qsizetype i = 0; i < files.size(); ++i) {
        const std::string where = QFileInfo(files[i]).fileName().toStdString();
        const QJsonObject v2 = v2Of(after[i]);
        EXPECT_EQ(v2.value(u"version").toString(), i == 1 ? QStringLiteral("2.4.0") : QStringLiteral("2.3.0"))
            << where;
        EXPECT_EQ(first(v2, "TIT2"), title) << where;
        EXPECT_EQ(first(v2, "TBPM"), QStringLiteral("99")) << where;
        const QJsonObject text = v2.value(u"text").toObject();
        EXPECT_FALSE(text.contains(QStringLiteral("TALB"))) << where << ": an empty album removes TALB";
        EXPECT_FALSE(text.contains(QStringLiteral("TCMP"))) << where << ": --compilation no removes TCMP";
        const QJsonArray uslt = v2.value(u"lyrics").toArray();
        ASSERT_EQ(uslt.size(), 1) << where;
        QString got = uslt[0].toObject().value(u"text").toString();
        EXPECT_TRUE(got.startsWith(kMark)) << where << ": lyrics outside Latin-1 carry the byte-order mark";
        EXPECT_EQ(got.mid(1), lyrics) << where;
        const QJsonArray pictures = v2.value(u"pictures").toArray();
        ASSERT_EQ(pictures.size(), 1) << where;
        EXPECT_EQ(pictures[0].toObject().value(u"sha1").toString().toLatin1(), png) << where;
        EXPECT_EQ(pictures[0].toObject().value(u"mime").toString(), QStringLiteral("image/png")) << where;
        EXPECT_EQ(pictures[0].toObject().value(u"type").toInt(), 0)
            << where << ": the front cover type the command line gives is written as type 0";
        EXPECT_EQ(audio[i], fixture(files[i])->audio) << where << ": decoded audio differs";
    }
    // The ID3v1 tag of the third file went along: the new title as far as Latin-1 can hold it.
    const QJsonObject v1 = after[2].value(u"v1").toObject();
    // One '?' for each character outside Latin-1, the emoji (a surrogate pair) included.
    EXPECT_EQ(v1.value(u"title").toString(), QStringLiteral("???? ?????? ?"));
    EXPECT_EQ(v1.value(u"artist").toString(), QStringLiteral("Spacey"));

    // Again: the pictures go, an empty title and artist remove their frames, compilation back on.
    r = cli({QStringLiteral("set"), files[0], files[1], QStringLiteral("--remove-pictures"),
             QStringLiteral("--title"), QString(), QStringLiteral("--artist"), QString(),
             QStringLiteral("--compilation"), QStringLiteral("yes"), QStringLiteral("--synchsafe-v24"),
             QStringLiteral("--quiet")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    after = mutagenReadback(files.mid(0, 2), &problem);
    ASSERT_TRUE(problem.isEmpty()) << problem.toStdString();
    for (const QJsonObject &entry : after) {
        const std::string where = entry.value(u"file").toString().toStdString();
        const QJsonObject v2 = v2Of(entry);
        EXPECT_TRUE(v2.value(u"pictures").toArray().isEmpty()) << where;
        EXPECT_FALSE(v2.value(u"text").toObject().contains(QStringLiteral("TIT2"))) << where;
        EXPECT_FALSE(v2.value(u"text").toObject().contains(QStringLiteral("TPE1"))) << where;
        EXPECT_EQ(first(v2, "TCMP"), QStringLiteral("1")) << where;
        EXPECT_EQ(first(v2, "TBPM"), QStringLiteral("99")) << where << ": untouched";
    }
}

// Files the command line cannot write: each is named on standard error, the exit code is 1, the
// file is as it was, and the other files are written all the same.
void expectRefusedAndUntouched(const QStringList &refused, const QStringList &written,
                               const QString &expectedWhy, const QStringList &editArgs) {
    QMap<QString, QByteArray> bytes;
    QMap<QString, QDateTime> modified;
    for (const QString &path : refused) {
        bytes.insert(path, readAll(path));
        modified.insert(path, QFileInfo(path).lastModified());
    }
    const CliResult r = cli(QStringList{QStringLiteral("set")} + written + refused + editArgs);
    EXPECT_EQ(r.exitCode, 1) << r.err.toStdString();
    for (const QString &path : written)
        EXPECT_TRUE(r.out.contains(path + QStringLiteral("\t2.")))
            << path.toStdString() << " not written:\n"
            << r.out.toStdString() << r.err.toStdString();
    for (const QString &path : refused) {
        EXPECT_TRUE(
            r.err.contains(QStringLiteral("quillwave-cli: ") + path + QStringLiteral(": not written: ")))
            << path.toStdString() << " not named in:\n"
            << r.err.toStdString();
        EXPECT_FALSE(r.out.contains(path)) << path.toStdString();
        EXPECT_EQ(readAll(path), bytes.value(path)) << path.toStdString() << " was changed";
        EXPECT_EQ(QFileInfo(path).lastModified(), modified.value(path)) << path.toStdString();
    }
    EXPECT_TRUE(r.err.contains(expectedWhy)) << r.err.toStdString();
}

TEST_F(WriterRoundTripCli, FilesThatAreNoSongsAreNamedAndLeftAlone) {
    const QStringList good = copies({QStringLiteral("kid3_v23.mp3")});
    ASSERT_EQ(good.size(), 1);
    const QString text =
        mDir.write(QStringLiteral("notes.txt"), QByteArray("not a song at all\n").repeated(30));
    const QString tiny = mDir.write(QStringLiteral("tiny.mp3"), QByteArray(100, 'x'));
    const QString missing = mDir.file(QStringLiteral("missing.mp3"));
    const QStringList edits = {QStringLiteral("--title"), QStringLiteral("Written"),
                               QStringLiteral("--quiet")};
    expectRefusedAndUntouched({text}, good, QStringLiteral("no readable tag"), edits);
    expectRefusedAndUntouched({tiny, missing}, good, QStringLiteral("not a song file"), edits);
    EXPECT_FALSE(QFile::exists(missing));

    QString problem;
    const QList<QJsonObject> after = mutagenReadback(good, &problem);
    ASSERT_TRUE(problem.isEmpty()) << problem.toStdString();
    EXPECT_EQ(first(v2Of(after[0]), "TIT2"), QStringLiteral("Written")) << "the song is written all the same";
}

TEST_F(WriterRoundTripCli, AReadOnlyFileIsNamedAndLeftAlone) {
    if (geteuid() == 0) GTEST_SKIP() << "running as root, a read-only file can be written";
    const QStringList songs = copies({QStringLiteral("kid3_v23.mp3"), QStringLiteral("id3v2_both_tags.mp3")});
    ASSERT_EQ(songs.size(), 2);
    ASSERT_TRUE(QFile::setPermissions(songs[1], QFileDevice::ReadOwner | QFileDevice::ReadGroup));
    expectRefusedAndUntouched(
        {songs[1]}, {songs[0]}, QStringLiteral("read-only"),
        {QStringLiteral("--artist"), QStringLiteral("Nobody"), QStringLiteral("--quiet")});
}

} // namespace
