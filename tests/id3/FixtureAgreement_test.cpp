// Our ID3 reader against mutagen, over MP3 files tagged by real programs (ffmpeg, lame, mid3v2
// and mutagen, eyeD3, id3v2, kid3-cli). tests/tools/make_mp3_fixtures.py makes the files and
// tests/tools/mutagen_dump.py says what mutagen reads; every field is compared, and where our
// reader deliberately reads differently the comparison applies that rule to mutagen's value.
#include "model/AudioInfoTag.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStringDecoder>

#include <gtest/gtest.h>

#include <memory>

using namespace TestSupport;

namespace {

std::string str(const QString &s) {
    return s.isNull() ? std::string("(absent)") : '"' + s.toStdString() + '"';
}

QByteArray sha1Hex(const QByteArray &bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha1).toHex();
}

// The first string of a JSON list of strings; null for null or an empty list.
QString firstString(const QJsonValue &list) {
    const QJsonArray a = list.toArray();
    return a.isEmpty() ? QString() : a.first().toString();
}

QString text(const QJsonValue &v) {
    return v.isString() ? v.toString() : QString();
}

// The integer a text starts with (after blanks and a sign), 0 when it starts with none: the way
// the reader takes a number out of a year, a track or a flag.
long long leadingNumber(const QString &s) {
    static const QRegularExpression number(QStringLiteral("^\\s*([+-]?\\d{1,18})"));
    const QRegularExpressionMatch m = number.match(s);
    return m.hasMatch() ? m.captured(1).toLongLong() : 0;
}

// A song without a title is named after its file, less a three-letter extension.
QString titleFromFileName(const QString &file) {
    return file.size() > 4 && file[file.size() - 4] == u'.' ? file.chopped(4) : file;
}

// A year whose value is 999 or less is dropped.
QString expectedID3v2Year(const QString &year) {
    return leadingNumber(year) <= 999 ? QString() : year;
}

// A track whose number before "/" is below 1 is dropped.
QString expectedTrack(const QString &track) {
    return track.isNull() || leadingNumber(track.section(QLatin1Char('/'), 0, 0)) < 1 ? QString() : track;
}

// Several strings: the first as it stands. One string: numeric references "(n)" become names
// (mutagen's expansion uses the same vocabulary), the "/"-separated names lose duplicates. A
// bare number is no reference and stays as it is.
QString expectedGenre(const QJsonValue &genres) {
    if (!genres.isObject()) return {};
    const QJsonArray raw = genres.toObject().value(QStringLiteral("text")).toArray();
    if (raw.size() != 1) return firstString(raw);
    const QString single = raw.first().toString();
    static const QRegularExpression bareNumber(QStringLiteral("^\\d+$"));
    if (bareNumber.match(single).hasMatch()) return single;
    QStringList names;
    for (const QJsonValue &expanded : genres.toObject().value(QStringLiteral("expanded")).toArray()) {
        for (const QString &name : expanded.toString().split(QLatin1Char('/'))) {
            if (!names.contains(name)) names.append(name);
        }
    }
    return names.join(QLatin1Char('/'));
}

// ID3v1 text: mutagen decodes Latin-1; we take the bytes as UTF-8 when they are valid UTF-8,
// and drop trailing spaces and control characters.
QString expectedID3v1Text(const QJsonValue &mutagenText) {
    if (!mutagenText.isString()) return {};
    QString s = mutagenText.toString();
    const QByteArray bytes = s.toLatin1();
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString decoded = utf8.decode(bytes);
    if (!utf8.hasError()) s = decoded;
    while (!s.isEmpty() && s.back().unicode() < 33)
        s.chop(1);
    return s.isEmpty() ? QString() : s;
}

class FixtureAgreement : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        if (!haveTool(QStringLiteral("ffmpeg"))) {
            sSkip = QStringLiteral("ffmpeg is not installed");
            return;
        }
        if (run(systemPython(), {QStringLiteral("-c"), QStringLiteral("import mutagen")}) != 0) {
            sSkip = systemPython() + QStringLiteral(" has no mutagen module");
            return;
        }
        sDir = mp3FixtureDir(&sProblem);
        if (sDir.isEmpty()) return;
        const QString tools = sourceDir() + QStringLiteral("/tests/tools/");
        QByteArray out, err;
        const QJsonObject manifest =
            QJsonDocument::fromJson(readAll(sDir + QStringLiteral("/manifest.json"))).object();
        const QJsonArray fixtures = manifest.value(QStringLiteral("fixtures")).toArray();
        sLeftOut = manifest.value(QStringLiteral("skipped")).toArray();
        QStringList paths;
        for (const QJsonValue &f : fixtures) {
            const QString file = f.toObject().value(QStringLiteral("file")).toString();
            sTools.insert(file, f.toObject().value(QStringLiteral("tool")).toString());
            paths.append(sDir + u'/' + file);
        }
        if (paths.isEmpty()) {
            sProblem = QStringLiteral("no fixtures in ") + sDir + QStringLiteral("/manifest.json");
            return;
        }
        if (run(systemPython(), QStringList{tools + QStringLiteral("mutagen_dump.py")} + paths, &out, &err) !=
            0) {
            sProblem = QStringLiteral("mutagen_dump.py failed: ") + QString::fromUtf8(err);
            return;
        }
        for (const QJsonValue &entry : QJsonDocument::fromJson(out).array())
            sMutagen.append(entry.toObject());
        for (const QString &path : paths)
            sHashes.insert(path, sha1Hex(readAll(path)));
    }

    static void TearDownTestSuite() {
        sDir.clear();
        sMutagen.clear();
        sTools.clear();
        sLeftOut = {};
        sHashes.clear();
    }

protected:
    void SetUp() override {
        if (!sSkip.isEmpty()) GTEST_SKIP() << sSkip.toStdString();
        ASSERT_TRUE(sProblem.isEmpty()) << sProblem.toStdString();
    }

    // "file [tool]" for failure messages.
    static std::string where(const QJsonObject &entry) {
        const QString file = entry.value(QStringLiteral("file")).toString();
        return (file + QStringLiteral(" [") + sTools.value(file) + QLatin1Char(']')).toStdString();
    }

    static std::shared_ptr<AudioInfoTag> ourTag(const QJsonObject &entry) {
        std::shared_ptr<AudioInfoTag> tag =
            AudioInfoTag::tagWithPath(entry.value(QStringLiteral("path")).toString());
        if (!tag) ADD_FAILURE() << where(entry) << ": our reader gives no tag";
        return tag;
    }

    static void expectField(const QJsonObject &entry, const char *field, const QString &ours,
                            const QString &expected, const QJsonValue &mutagenRaw) {
        if (ours == expected && ours.isEmpty() == expected.isEmpty()) return;
        ADD_FAILURE() << where(entry) << ": " << field << ": ours " << str(ours) << ", expected "
                      << str(expected) << " (mutagen: "
                      << QJsonDocument(QJsonArray{mutagenRaw}).toJson(QJsonDocument::Compact).toStdString()
                      << ")";
    }

    static inline QString sDir; // the shared set: read, never written
    static inline QList<QJsonObject> sMutagen;
    static inline QHash<QString, QString> sTools;
    static inline QHash<QString, QByteArray> sHashes;
    static inline QString sSkip;
    static inline QString sProblem;
    static inline QJsonArray sLeftOut;
};

TEST_F(FixtureAgreement, EveryToolMadeFixturesAndMutagenReadThemAll) {
    ASSERT_EQ(sMutagen.size(), sTools.size());
    // A fixture may be left out for a missing tool, not because a tool that is there failed.
    for (const QJsonValue &left : sLeftOut) {
        const QJsonObject o = left.toObject();
        EXPECT_FALSE(o.value(QStringLiteral("failed")).toBool())
            << o.value(QStringLiteral("what")).toString().toStdString() << ": "
            << o.value(QStringLiteral("why")).toString().toStdString();
    }
    for (const QJsonObject &entry : sMutagen)
        EXPECT_FALSE(entry.contains(QStringLiteral("error")))
            << where(entry) << ": " << text(entry.value(QStringLiteral("error"))).toStdString();
    const QList<QString> tools = sTools.values();
    for (const char *tool : {"lame", "mid3v2", "eyeD3", "id3v2", "kid3-cli"}) {
        if (haveTool(QString::fromLatin1(tool)))
            EXPECT_TRUE(tools.contains(QString::fromLatin1(tool)))
                << tool << " is installed but made no fixture";
    }
    // Every kind of tag is there: ID3v2.3, ID3v2.4, ID3v1 alone, both, none.
    int v23 = 0, v24 = 0, v1Only = 0, both = 0, none = 0;
    for (const QJsonObject &entry : sMutagen) {
        const QJsonValue v2 = entry.value(QStringLiteral("v2")), v1 = entry.value(QStringLiteral("v1"));
        const QString version = v2.toObject().value(QStringLiteral("version")).toString();
        v23 += version == QLatin1String("2.3.0");
        v24 += version == QLatin1String("2.4.0");
        v1Only += v2.isNull() && v1.isObject();
        both += v2.isObject() && v1.isObject();
        none += v2.isNull() && v1.isNull();
    }
    EXPECT_GT(v23, 0);
    EXPECT_GT(v24, 0);
    EXPECT_GT(v1Only, 0);
    EXPECT_GT(both, 0);
    EXPECT_GT(none, 0);
}

TEST_F(FixtureAgreement, ID3v2TextFieldsAgree) {
    for (const QJsonObject &entry : sMutagen) {
        const QJsonObject v2 = entry.value(QStringLiteral("v2")).toObject();
        if (v2.isEmpty()) continue;
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        const auto raw = [&v2](const char *key) { return v2.value(QLatin1String(key)); };
        const auto first = [&v2](const char *key) { return firstString(v2.value(QLatin1String(key))); };
        const QString file = entry.value(QStringLiteral("file")).toString();

        expectField(entry, "readVersion", tag->readVersion(), raw("version").toString(), raw("version"));
        const QString title = first("title");
        expectField(entry, "title", tag->title(), title.isEmpty() ? titleFromFileName(file) : title,
                    raw("title"));
        expectField(entry, "artist", tag->artist(), first("artist"), raw("artist"));
        expectField(entry, "album", tag->album(), first("album"), raw("album"));
        expectField(entry, "year", tag->year(), expectedID3v2Year(first("year")), raw("year"));
        expectField(entry, "track", tag->track(), expectedTrack(first("track")), raw("track"));
        expectField(entry, "genres", tag->genres(), expectedGenre(raw("genres")), raw("genres"));
        expectField(entry, "bpm", tag->bpm(), first("bpm"), raw("bpm"));
        EXPECT_EQ(tag->isPartOfCompilation(), leadingNumber(first("compilation")) >= 1)
            << where(entry) << ": compilation (mutagen: " << str(first("compilation")) << ")";
    }
}

TEST_F(FixtureAgreement, ID3v1FieldsAgreeWhenThereIsNoID3v2Tag) {
    const qsizetype vocabulary = AudioInfoTag::allGenres().size();
    for (const QJsonObject &entry : sMutagen) {
        const QJsonObject v1 = entry.value(QStringLiteral("v1")).toObject();
        if (v1.isEmpty() || entry.value(QStringLiteral("v2")).isObject()) continue;
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        const QByteArray bytes = QByteArray::fromHex(v1.value(QStringLiteral("bytes")).toString().toLatin1());
        ASSERT_EQ(bytes.size(), 128) << where(entry);
        const auto raw = [&v1](const char *key) { return v1.value(QLatin1String(key)); };
        // A track number only counts in an ID3v1.1 tag, where the byte before it is zero; mutagen
        // takes any non-zero last comment byte as a track.
        const bool id3v11 = bytes[125] == 0 && bytes[126] != 0;
        const QString file = entry.value(QStringLiteral("file")).toString();

        expectField(entry, "readVersion", tag->readVersion(),
                    id3v11 ? QStringLiteral("1.1") : QStringLiteral("1.0"), raw("bytes"));
        const QString title = expectedID3v1Text(raw("title"));
        expectField(entry, "title", tag->title(), title.isEmpty() ? titleFromFileName(file) : title,
                    raw("title"));
        expectField(entry, "artist", tag->artist(), expectedID3v1Text(raw("artist")), raw("artist"));
        expectField(entry, "album", tag->album(), expectedID3v1Text(raw("album")), raw("album"));
        // Years up to 1000 are not taken from ID3v1.
        const QString year = text(raw("year"));
        expectField(entry, "year", tag->year(), leadingNumber(year) > 1000 ? year : QString(), raw("year"));
        expectField(entry, "track", tag->track(), id3v11 ? text(raw("track")) : QString(), raw("track"));
        // A genre number becomes its name; one outside the vocabulary (255 = none) gives nothing.
        const QString number = text(raw("genre"));
        const QString genre = !number.isNull() && leadingNumber(number) < vocabulary
                                  ? firstString(raw("genreNames"))
                                  : QString();
        expectField(entry, "genres", tag->genres(), genre, raw("genre"));
        expectField(entry, "bpm", tag->bpm(), QString(), QJsonValue());
        expectField(entry, "lyrics", tag->lyrics(), QString(), QJsonValue());
        EXPECT_FALSE(tag->isPartOfCompilation()) << where(entry);
        EXPECT_EQ(tag->numberOfImages(), 0) << where(entry);
    }
}

TEST_F(FixtureAgreement, UntaggedFilesGiveOnlyTheirName) {
    for (const QJsonObject &entry : sMutagen) {
        if (!entry.value(QStringLiteral("v2")).isNull() || !entry.value(QStringLiteral("v1")).isNull())
            continue;
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        const QString file = entry.value(QStringLiteral("file")).toString();
        expectField(entry, "title", tag->title(), titleFromFileName(file), QJsonValue());
        for (const QString &value : {tag->artist(), tag->album(), tag->year(), tag->track(), tag->genres(),
                                     tag->bpm(), tag->lyrics(), tag->readVersion()})
            EXPECT_TRUE(value.isNull()) << where(entry) << ": " << str(value);
        EXPECT_EQ(tag->numberOfImages(), 0) << where(entry);
    }
}

TEST_F(FixtureAgreement, LyricsAgree) {
    for (const QJsonObject &entry : sMutagen) {
        const QJsonObject v2 = entry.value(QStringLiteral("v2")).toObject();
        if (v2.isEmpty()) continue;
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        // The first lyrics frame of the file, whatever its descriptor and language.
        const QJsonArray lyrics = v2.value(QStringLiteral("lyrics")).toArray();
        const QJsonObject first = lyrics.isEmpty() ? QJsonObject() : lyrics.first().toObject();
        const QString expected = text(first.value(QStringLiteral("text")));
        if (first.value(QStringLiteral("encoding")).toInt() == 2 && !expected.isEmpty() &&
            expected[0].unicode() < 0x100) {
            // The reader skips the zero bytes behind the descriptor, which in UTF-16BE without a
            // byte-order mark include the first character's high byte: such lyrics are read shifted.
            EXPECT_FALSE(tag->lyrics().isEmpty()) << where(entry) << ": UTF-16BE lyrics";
            EXPECT_NE(tag->lyrics(), expected)
                << where(entry) << ": UTF-16BE lyrics are expected to be shifted";
            continue;
        }
        expectField(entry, "lyrics", tag->lyrics(), expected,
                    lyrics.isEmpty() ? QJsonValue() : lyrics.first());
    }
}

TEST_F(FixtureAgreement, PicturesAgreeByteForByte) {
    const auto describe = [](const QByteArray &bytes) {
        return QStringLiteral("%1 bytes, sha1 %2").arg(bytes.size()).arg(QString::fromLatin1(sha1Hex(bytes)));
    };
    for (const QJsonObject &entry : sMutagen) {
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        const QJsonArray pictures =
            entry.value(QStringLiteral("v2")).toObject().value(QStringLiteral("pictures")).toArray();
        const QList<ID3Image> ours = tag->images();
        EXPECT_EQ(tag->numberOfImages(), pictures.size()) << where(entry) << ": number of pictures";
        for (qsizetype i = 0; i < std::min<qsizetype>(ours.size(), pictures.size()); ++i) {
            const QByteArray expected = expectedPictureBytes(pictures[i].toObject());
            QByteArray got = ours[i].imageData();
            if (tag->readVersion().startsWith(QLatin1String("2.4")) && carriesPaddingZeros(got, expected))
                got = expected;
            EXPECT_EQ(describe(got), describe(expected)) << where(entry) << ": picture " << i;
        }
    }
}

TEST_F(FixtureAgreement, ReadingNeverChangesAFile) {
    for (auto it = sHashes.cbegin(); it != sHashes.cend(); ++it) {
        const QDateTime modified = QFileInfo(it.key()).lastModified();
        std::shared_ptr<AudioInfoTag> tag = AudioInfoTag::tagWithPath(it.key());
        ASSERT_TRUE(tag) << it.key().toStdString();
        for (const ID3Image &image : tag->images())
            (void)image.mimeFormat();
        (void)tag->lyrics();
        tag.reset();
        EXPECT_EQ(sha1Hex(readAll(it.key())), it.value()) << it.key().toStdString();
        EXPECT_EQ(QFileInfo(it.key()).lastModified(), modified) << it.key().toStdString();
    }
}

} // namespace
