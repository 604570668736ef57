// Our ID3 reader against mutagen over the tool-made MP3 set (tests/tools/make_mp3_fixtures.py,
// read by tests/tools/mutagen_dump.py). Where our reader deliberately reads differently, the
// comparison applies that rule to mutagen's value.
#include "model/AudioInfoTag.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
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

QString firstString(const QJsonValue &list) {
    const QJsonArray a = list.toArray();
    return a.isEmpty() ? QString() : a.first().toString();
}

QString text(const QJsonValue &v) {
    return v.isString() ? v.toString() : QString();
}

// The integer a text starts with (after blanks and a sign), 0 when none.
long long leadingNumber(const QString &s) {
    static const QRegularExpression number(QStringLiteral("^\\s*([+-]?\\d{1,18})"));
    const QRegularExpressionMatch m = number.match(s);
    return m.hasMatch() ? m.captured(1).toLongLong() : 0;
}

// A song without a title is named after its file, less a three-letter extension.
QString orFileName(const QString &title, const QString &file) {
    if (!title.isEmpty()) return title;
    return file.size() > 4 && file[file.size() - 4] == u'.' ? file.chopped(4) : file;
}

// Several strings: the first as it stands. One string: references "(n)" become names (mutagen's
// expansion), duplicate names go. A bare number stays as it is.
QString expectedGenre(const QJsonObject &v2) {
    const QJsonArray raw = v2.value(u"text").toObject().value(u"TCON").toArray();
    if (raw.size() != 1) return firstString(raw);
    static const QRegularExpression bareNumber(QStringLiteral("^\\d+$"));
    if (bareNumber.match(raw.first().toString()).hasMatch()) return raw.first().toString();
    QStringList names;
    for (const QJsonValue &expanded : v2.value(u"genres").toArray())
        for (const QString &name : expanded.toString().split(u'/'))
            if (!names.contains(name)) names.append(name);
    return names.join(u'/');
}

// ID3v1 text: mutagen decodes Latin-1; we take valid UTF-8 as UTF-8 and drop trailing bytes < 33.
QString expectedID3v1Text(const QJsonValue &mutagenText) {
    QString s = text(mutagenText);
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString decoded = utf8.decode(s.toLatin1());
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
        const QString dir = mp3FixtureDir(&sProblem);
        if (dir.isEmpty()) return;
        const QJsonObject manifest =
            QJsonDocument::fromJson(readAll(dir + QStringLiteral("/manifest.json"))).object();
        sLeftOut = manifest.value(u"skipped").toArray();
        QStringList paths;
        for (const QJsonValue &f : manifest.value(u"fixtures").toArray()) {
            const QString file = f.toObject().value(u"file").toString();
            sTools.insert(file, f.toObject().value(u"tool").toString());
            paths.append(dir + u'/' + file);
            sHashes.insert(paths.last(), sha1Hex(readAll(paths.last())));
        }
        QByteArray out, err;
        if (paths.isEmpty() ||
            run(systemPython(),
                QStringList{sourceDir() + QStringLiteral("/tests/tools/mutagen_dump.py")} + paths, &out,
                &err) != 0) {
            sProblem = QStringLiteral("no fixtures, or mutagen_dump.py failed: ") + QString::fromUtf8(err);
            return;
        }
        for (const QJsonValue &entry : QJsonDocument::fromJson(out).array())
            sMutagen.append(entry.toObject());
    }

protected:
    void SetUp() override {
        if (!sSkip.isEmpty()) GTEST_SKIP() << sSkip.toStdString();
        ASSERT_TRUE(sProblem.isEmpty()) << sProblem.toStdString();
    }

    // Our reader's tag of the fixture, and a check of one field against the rule-applied value.
    struct Compare {
        QJsonObject entry;
        std::shared_ptr<AudioInfoTag> tag;
        std::string where;
        explicit Compare(const QJsonObject &e)
            : entry(e)
            , tag(AudioInfoTag::tagWithPath(e.value(u"path").toString())) {
            const QString file = e.value(u"file").toString();
            where = (file + QStringLiteral(" [") + sTools.value(file) + u']').toStdString();
            if (!tag) ADD_FAILURE() << where << ": our reader gives no tag";
        }
        QString file() const { return entry.value(u"file").toString(); }
        void field(const char *name, const QString &ours, const QString &expected,
                   const QJsonValue &raw = {}) const {
            if (ours == expected && ours.isEmpty() == expected.isEmpty()) return;
            ADD_FAILURE() << where << ": " << name << ": ours " << str(ours) << ", expected " << str(expected)
                          << " (mutagen: "
                          << QJsonDocument(QJsonArray{raw}).toJson(QJsonDocument::Compact).toStdString()
                          << ")";
        }
    };

    static inline QList<QJsonObject> sMutagen;
    static inline QHash<QString, QString> sTools;
    static inline QHash<QString, QByteArray> sHashes;
    static inline QString sSkip, sProblem;
    static inline QJsonArray sLeftOut;
};

TEST_F(FixtureAgreement, EveryToolMadeFixturesOfEveryKindAndMutagenReadThemAll) {
    ASSERT_EQ(sMutagen.size(), sTools.size());
    // A fixture may be left out for a missing tool, not because a tool that is there failed.
    for (const QJsonValue &left : sLeftOut)
        EXPECT_FALSE(left[u"failed"].toBool())
            << left[u"what"].toString().toStdString() << ": " << left[u"why"].toString().toStdString();
    const QList<QString> tools = sTools.values();
    for (const char *tool : {"lame", "mid3v2", "eyeD3", "id3v2", "kid3-cli"})
        if (haveTool(QString::fromLatin1(tool)))
            EXPECT_TRUE(tools.contains(QString::fromLatin1(tool))) << tool;
    int v23 = 0, v24 = 0, v1Only = 0, both = 0, none = 0;
    for (const QJsonObject &entry : sMutagen) {
        EXPECT_FALSE(entry.contains(u"error")) << entry.value(u"file").toString().toStdString();
        const QJsonValue v2 = entry.value(u"v2"), v1 = entry.value(u"v1");
        v23 += v2[u"version"] == QLatin1String("2.3.0");
        v24 += v2[u"version"] == QLatin1String("2.4.0");
        v1Only += v2.isNull() && v1.isObject();
        both += v2.isObject() && v1.isObject();
        none += v2.isNull() && v1.isNull();
    }
    for (int count : {v23, v24, v1Only, both, none})
        EXPECT_GT(count, 0) << "2.3, 2.4, ID3v1 alone, both, none: " << v23 << v24 << v1Only << both << none;
}

TEST_F(FixtureAgreement, ID3v2FieldsLyricsAndPicturesAgree) {
    for (const QJsonObject &entry : sMutagen) {
        const QJsonObject v2 = entry.value(u"v2").toObject();
        if (v2.isEmpty()) continue;
        const Compare c(entry);
        if (!c.tag) continue;
        const QJsonObject frames = v2.value(u"text").toObject();
        const auto first = [&](const char *id) { return firstString(frames.value(QLatin1String(id))); };
        const QString year = frames.contains(u"TDRC") ? first("TDRC") : first("TYER");
        const QString track = first("TRCK");
        const struct {
            const char *name;
            QString ours, expected;
        } fields[] = {
            {"readVersion", c.tag->readVersion(), v2.value(u"version").toString()},
            {"title", c.tag->title(), orFileName(first("TIT2"), c.file())},
            {"artist", c.tag->artist(), first("TPE1")},
            {"album", c.tag->album(), first("TALB")},
            {"year", c.tag->year(), leadingNumber(year) <= 999 ? QString() : year}, // 999 and below dropped
            {"track", c.tag->track(), leadingNumber(track.section(u'/', 0, 0)) < 1 ? QString() : track},
            {"genres", c.tag->genres(), expectedGenre(v2)},
            {"bpm", c.tag->bpm(), first("TBPM")},
        };
        for (const auto &f : fields)
            c.field(f.name, f.ours, f.expected, frames);
        EXPECT_EQ(c.tag->isPartOfCompilation(), leadingNumber(first("TCMP")) >= 1) << c.where;

        // The first lyrics frame, whatever its descriptor. UTF-16BE lyrics starting below U+0100
        // are read shifted: the zero bytes behind the descriptor take the first high byte along.
        const QJsonObject lyrics = v2.value(u"lyrics").toArray().first().toObject();
        const QString expected = text(lyrics.value(u"text"));
        if (lyrics.value(u"encoding").toInt() == 2 && !expected.isEmpty() && expected[0].unicode() < 0x100) {
            EXPECT_FALSE(c.tag->lyrics().isEmpty()) << c.where;
            EXPECT_NE(c.tag->lyrics(), expected) << c.where << ": UTF-16BE lyrics are expected to be shifted";
        } else {
            c.field("lyrics", c.tag->lyrics(), expected, lyrics);
        }

        // Pictures byte for byte under the reader's rules (TestSupport); in 2.4 padding zeros may follow.
        const QJsonArray pictures = v2.value(u"pictures").toArray();
        const QList<ID3Image> ours = c.tag->images();
        EXPECT_EQ(ours.size(), pictures.size()) << c.where << ": number of pictures";
        for (qsizetype i = 0; i < std::min<qsizetype>(ours.size(), pictures.size()); ++i) {
            const QByteArray want = expectedPictureBytes(pictures[i].toObject());
            QByteArray got = ours[i].imageData();
            if (c.tag->readVersion().startsWith(QLatin1String("2.4")) && carriesPaddingZeros(got, want))
                got = want;
            EXPECT_EQ(got.size(), want.size()) << c.where << ": picture " << i;
            EXPECT_EQ(sha1Hex(got), sha1Hex(want)) << c.where << ": picture " << i;
        }
    }
}

TEST_F(FixtureAgreement, ID3v1AloneAndUntaggedFilesAgree) {
    const qsizetype vocabulary = AudioInfoTag::allGenres().size();
    for (const QJsonObject &entry : sMutagen) {
        if (entry.value(u"v2").isObject()) continue;
        const Compare c(entry);
        if (!c.tag) continue;
        const QJsonObject v1 = entry.value(u"v1").toObject();
        const QByteArray bytes = QByteArray::fromHex(v1.value(u"bytes").toString().toLatin1());
        ASSERT_TRUE(v1.isEmpty() || bytes.size() == 128) << c.where;
        // A track only counts in ID3v1.1 (byte 125 zero); mutagen takes any non-zero last byte.
        const bool id3v11 = !v1.isEmpty() && bytes[125] == 0 && bytes[126] != 0;
        const QString year = text(v1.value(u"year")), genre = text(v1.value(u"genre"));
        const struct {
            const char *name;
            QString ours, expected;
        } fields[] = {
            {"readVersion", c.tag->readVersion(),
             v1.isEmpty() ? QString()
             : id3v11     ? QStringLiteral("1.1")
                          : QStringLiteral("1.0")},
            {"title", c.tag->title(), orFileName(expectedID3v1Text(v1.value(u"title")), c.file())},
            {"artist", c.tag->artist(), expectedID3v1Text(v1.value(u"artist"))},
            {"album", c.tag->album(), expectedID3v1Text(v1.value(u"album"))},
            {"year", c.tag->year(), leadingNumber(year) > 1000 ? year : QString()}, // up to 1000 dropped
            {"track", c.tag->track(), id3v11 ? text(v1.value(u"track")) : QString()},
            // A genre number becomes its name; one outside the list (255 = none) gives nothing.
            {"genres", c.tag->genres(),
             !genre.isNull() && leadingNumber(genre) < vocabulary ? firstString(v1.value(u"genreNames"))
                                                                  : QString()},
            {"bpm", c.tag->bpm(), QString()},
            {"lyrics", c.tag->lyrics(), QString()},
        };
        for (const auto &f : fields)
            c.field(f.name, f.ours, f.expected, v1);
        EXPECT_FALSE(c.tag->isPartOfCompilation()) << c.where;
        EXPECT_EQ(c.tag->numberOfImages(), 0) << c.where;
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
