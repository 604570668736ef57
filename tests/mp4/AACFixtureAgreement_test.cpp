// Our MP4 reader against mutagen, over .m4a files tagged by real programs (AtomicParsley, mutagen,
// kid3-cli, ffmpeg) with 'moov' before and after 'mdat', with and without padding.
// tests/tools/make_mp4_fixtures.py makes the files and tests/tools/mp4_dump.py says what mutagen
// reads and how the atoms lie; every field is compared, and where our reader deliberately reads
// differently the comparison applies that rule to mutagen's value.
#include "model/AudioInfoTag.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using namespace TestSupport;

namespace {

QString mp4FixtureDir(QString *problem) {
    return toolFixtureDir(QStringLiteral("mp4"), problem);
}

std::string str(const QString &s) {
    return s.isNull() ? std::string("(absent)") : '"' + s.toStdString() + '"';
}

std::string json(const QJsonValue &v) {
    return QJsonDocument(QJsonArray{v}).toJson(QJsonDocument::Compact).toStdString();
}

QByteArray sha1Hex(const QByteArray &bytes) {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha1).toHex();
}

// The first string of a JSON list of strings; null for null or an empty list.
QString firstString(const QJsonValue &list) {
    const QJsonArray a = list.toArray();
    return a.isEmpty() ? QString() : a.first().toString();
}

// A song without a title is named after its file, less a three-letter extension.
QString titleFromFileName(const QString &file) {
    return file.size() > 4 && file[file.size() - 4] == u'.' ? file.chopped(4) : file;
}

// The year is the first four characters of ©day ("2004-05-01T07:00:00Z" gives 2004); a shorter
// ©day gives none.
QString expectedYear(const QString &day) {
    return day.size() >= 4 ? day.left(4) : QString();
}

// trkn (n, m): "n/m", "n" when there is no total, nothing for track 0.
QString expectedTrack(const QJsonValue &trkn) {
    const QJsonArray pair = trkn.toArray().first().toArray();
    const int number = pair.at(0).toInt(), total = pair.at(1).toInt();
    if (number == 0) return {};
    return total == 0 ? QString::number(number) : QStringLiteral("%1/%2").arg(number).arg(total);
}

// tmpo: its number, nothing for 0.
QString expectedBpm(const QJsonValue &tmpo) {
    const int bpm = tmpo.toArray().first().toInt();
    return bpm == 0 ? QString() : QString::number(bpm);
}

// A non-zero gnre g names genre g-1 of the vocabulary (mutagen's list is the same). Otherwise the
// ©gen text, with references "(n)" expanded (mutagen's ID3 reading expands them the same way) and
// repeated names dropped; a bare number is no reference and stays as it is.
QString expectedGenre(const QJsonObject &entry) {
    const QJsonValue gnre = entry.value(QStringLiteral("gnre"));
    if (gnre.toInt() != 0) return entry.value(QStringLiteral("gnreName")).toString();
    const QString text = firstString(entry.value(QStringLiteral("genreText")));
    if (text.isNull()) return {};
    static const QRegularExpression bareNumber(QStringLiteral("^\\d+$"));
    if (bareNumber.match(text).hasMatch()) return text;
    QStringList names;
    for (const QJsonValue &expanded : entry.value(QStringLiteral("genreExpanded")).toArray()) {
        for (const QString &name : expanded.toString().split(QLatin1Char('/'))) {
            if (!names.contains(name)) names.append(name);
        }
    }
    return names.join(QLatin1Char('/'));
}

// The bit rate in kbit/s: the average of 'esds' (mutagen's bitrate), at most 320.
int expectedBitRate(int esdsBitsPerSecond) {
    return std::min(esdsBitsPerSecond / 1000, 320);
}

// Without an average in 'esds': the size of 'mdat' over duration * 124, where 125 to 131 count
// as 128. Whether the reader rounds up or down is left open: both neighbours are taken.
bool fallbackBitRateFits(int ours, double mdatSize, double seconds) {
    const double rate = mdatSize / (seconds * 124.0);
    for (int candidate : {int(std::floor(rate)), int(std::ceil(rate))}) {
        if (candidate >= 125 && candidate <= 131) candidate = 128;
        if (ours == candidate) return true;
    }
    return false;
}

class AACFixtureAgreement : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        if (!haveTool(QStringLiteral("ffmpeg"))) {
            sSkip = QStringLiteral("ffmpeg is not installed");
            return;
        }
        if (run(systemPython(), {QStringLiteral("-c"), QStringLiteral("import mutagen.mp4")}) != 0) {
            sSkip = systemPython() + QStringLiteral(" has no mutagen module");
            return;
        }
        sDir = mp4FixtureDir(&sProblem);
        if (sDir.isEmpty()) return;
        const QJsonObject manifest =
            QJsonDocument::fromJson(readAll(sDir + QStringLiteral("/manifest.json"))).object();
        sLeftOut = manifest.value(QStringLiteral("skipped")).toArray();
        QStringList paths;
        for (const QJsonValue &f : manifest.value(QStringLiteral("fixtures")).toArray()) {
            const QString file = f.toObject().value(QStringLiteral("file")).toString();
            sTools.insert(file, f.toObject().value(QStringLiteral("tool")).toString());
            paths.append(sDir + u'/' + file);
        }
        if (paths.isEmpty()) {
            sProblem = QStringLiteral("no fixtures in ") + sDir + QStringLiteral("/manifest.json");
            return;
        }
        QByteArray out, err;
        const QString dump = sourceDir() + QStringLiteral("/tests/tools/mp4_dump.py");
        if (run(systemPython(), QStringList{dump} + paths, &out, &err) != 0) {
            sProblem = QStringLiteral("mp4_dump.py failed: ") + QString::fromUtf8(err);
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

    // The fixtures mutagen could read.
    static QList<QJsonObject> readable() {
        QList<QJsonObject> entries;
        for (const QJsonObject &entry : sMutagen) {
            if (!entry.contains(QStringLiteral("error"))) entries.append(entry);
        }
        return entries;
    }

    static std::shared_ptr<AudioInfoTag> ourTag(const QJsonObject &entry) {
        std::shared_ptr<AudioInfoTag> tag =
            AudioInfoTag::tagWithPath(entry.value(QStringLiteral("path")).toString());
        if (!tag) ADD_FAILURE() << where(entry) << ": our reader gives no tag";
        return tag;
    }

    static void expectField(const QJsonObject &entry, const char *field, const QString &ours,
                            const QString &expected, const QJsonValue &mutagenRaw) {
        if (ours == expected && ours.isNull() == expected.isNull()) return;
        ADD_FAILURE() << where(entry) << ": " << field << ": ours " << str(ours) << ", expected "
                      << str(expected) << " (mutagen: " << json(mutagenRaw) << ")";
    }

    static QJsonObject layout(const QJsonObject &entry) {
        return entry.value(QStringLiteral("layout")).toObject();
    }
    static QJsonObject info(const QJsonObject &entry) {
        return entry.value(QStringLiteral("info")).toObject();
    }
    // A mutagen tag value; undefined for files without an 'ilst'.
    static QJsonValue item(const QJsonObject &entry, const char *key) {
        return entry.value(QStringLiteral("tags")).toObject().value(QString::fromUtf8(key));
    }

    static inline QString sDir; // the shared set: read, never written
    static inline QList<QJsonObject> sMutagen;
    static inline QHash<QString, QString> sTools;
    static inline QHash<QString, QByteArray> sHashes;
    static inline QString sSkip;
    static inline QString sProblem;
    static inline QJsonArray sLeftOut;
};

TEST_F(AACFixtureAgreement, EveryToolMadeFixturesAndTheSetCoversEveryLayout) {
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
            << where(entry) << ": " << entry.value(QStringLiteral("error")).toString().toStdString();
    const QList<QString> tools = sTools.values();
    for (const char *tool : {"AtomicParsley", "kid3-cli"}) {
        if (haveTool(QString::fromLatin1(tool)))
            EXPECT_TRUE(tools.contains(QString::fromLatin1(tool)))
                << tool << " is installed but made no fixture";
    }
    EXPECT_TRUE(tools.contains(QStringLiteral("mutagen")));

    // What the set is there to show: both orders of 'moov' and 'mdat', padding and none, no
    // metadata at all, numeric genres, an 'esds' without rates, one whose maximum is no average
    // and one with one-byte descriptor sizes, rates above the cap, a sample rate that does not
    // fit the sample entry.
    int moovFirst = 0, moovLast = 0, padded = 0, noFree = 0, noUdta = 0, gnre = 0, noAverage = 0,
        maxAboveAverage = 0, compactEsds = 0, aboveCap = 0, rateOnlyInConfig = 0;
    for (const QJsonObject &entry : readable()) {
        const QJsonObject l = layout(entry);
        (l.value(QStringLiteral("moovBeforeMdat")).toBool() ? moovFirst : moovLast) += 1;
        bool freeInMeta = false;
        for (const QJsonValue &f : l.value(QStringLiteral("free")).toArray())
            freeInMeta |= f.toObject()
                              .value(QStringLiteral("path"))
                              .toString()
                              .startsWith(QLatin1String("moov.udta")) &&
                          f.toObject().value(QStringLiteral("size")).toInt() > 8;
        padded += freeInMeta;
        noFree += l.value(QStringLiteral("free")).toArray().isEmpty();
        noUdta += !l.value(QStringLiteral("hasUdta")).toBool();
        gnre += entry.value(QStringLiteral("gnre")).toInt() != 0;
        const int bitrate = info(entry).value(QStringLiteral("bitrate")).toInt();
        noAverage += bitrate == 0;
        maxAboveAverage +=
            l.value(QStringLiteral("esds")).toObject().value(QStringLiteral("maxBitrate")).toInt() > bitrate;
        compactEsds +=
            l.value(QStringLiteral("esds")).toObject().value(QStringLiteral("sizeBytes")).toInt() == 1;
        aboveCap += bitrate > 320000;
        rateOnlyInConfig += l.value(QStringLiteral("sampleEntryRate")).toInt() !=
                            info(entry).value(QStringLiteral("sample_rate")).toInt();
    }
    EXPECT_GT(moovFirst, 0);
    EXPECT_GT(moovLast, 0);
    EXPECT_GT(padded, 0);
    EXPECT_GT(noFree, 0);
    EXPECT_GT(noUdta, 0);
    EXPECT_GT(gnre, 0);
    EXPECT_GT(noAverage, 0);
    EXPECT_GT(maxAboveAverage, 0);
    EXPECT_GT(compactEsds, 0);
    EXPECT_GT(aboveCap, 0);
    EXPECT_GT(rateOnlyInConfig, 0);
}

TEST_F(AACFixtureAgreement, TextFieldsAgree) {
    for (const QJsonObject &entry : readable()) {
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        const QString file = entry.value(QStringLiteral("file")).toString();
        expectField(entry, "readVersion", tag->readVersion(), QStringLiteral("AAC"), QJsonValue());
        const QString title = firstString(item(entry, "\u00a9nam"));
        expectField(entry, "title", tag->title(), title.isEmpty() ? titleFromFileName(file) : title,
                    item(entry, "\u00a9nam"));
        // Several data atoms (mutagen writes one per value): the first counts.
        expectField(entry, "artist", tag->artist(), firstString(item(entry, "\u00a9ART")),
                    item(entry, "\u00a9ART"));
        expectField(entry, "album", tag->album(), firstString(item(entry, "\u00a9alb")),
                    item(entry, "\u00a9alb"));
        expectField(entry, "year", tag->year(), expectedYear(firstString(item(entry, "\u00a9day"))),
                    item(entry, "\u00a9day"));
        // Line breaks as stored, carriage returns included.
        expectField(entry, "lyrics", tag->lyrics(), firstString(item(entry, "\u00a9lyr")),
                    item(entry, "\u00a9lyr"));
    }
}

TEST_F(AACFixtureAgreement, TrackGenreTempoAndCompilationAgree) {
    for (const QJsonObject &entry : readable()) {
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        const QJsonValue trkn = item(entry, "trkn"), tmpo = item(entry, "tmpo");
        expectField(entry, "track", tag->track(), trkn.isArray() ? expectedTrack(trkn) : QString(), trkn);
        expectField(entry, "bpm", tag->bpm(), tmpo.isArray() ? expectedBpm(tmpo) : QString(), tmpo);
        // mutagen turns gnre into a name it adds to ©gen, and reads gnre 0 as its last genre: the
        // comparison starts from the atoms themselves.
        expectField(entry, "genres", tag->genres(), expectedGenre(entry),
                    QJsonObject{{QStringLiteral("gnre"), entry.value(QStringLiteral("gnre"))},
                                {QStringLiteral("genreText"), entry.value(QStringLiteral("genreText"))},
                                {QStringLiteral("mutagen"), item(entry, "\u00a9gen")}});
        EXPECT_EQ(tag->isPartOfCompilation(), item(entry, "cpil").toBool())
            << where(entry) << ": compilation (mutagen: " << json(item(entry, "cpil")) << ")";
    }
}

TEST_F(AACFixtureAgreement, GenreNumbersNameTheSameGenresAsMutagen) {
    // The vocabulary behind gnre is the one mutagen uses: the same name at every number the set has.
    for (const QJsonObject &entry : readable()) {
        const int g = entry.value(QStringLiteral("gnre")).toInt();
        if (g == 0) continue;
        EXPECT_EQ(AudioInfoTag::genreForIndex(g - 1).toStdString(),
                  entry.value(QStringLiteral("gnreName")).toString().toStdString())
            << where(entry) << ": gnre " << g;
    }
}

TEST_F(AACFixtureAgreement, PicturesAgreeByteForByteAndInOrder) {
    const auto describe = [](const QByteArray &bytes) {
        return QStringLiteral("%1 bytes, sha1 %2").arg(bytes.size()).arg(QString::fromLatin1(sha1Hex(bytes)));
    };
    for (const QJsonObject &entry : readable()) {
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        const QJsonArray covers = item(entry, "covers").toArray();
        const QList<ID3Image> ours = tag->images();
        EXPECT_EQ(ours.size(), covers.size()) << where(entry) << ": number of pictures";
        EXPECT_EQ(tag->numberOfImages(), covers.size()) << where(entry) << ": numberOfImages()";
        for (qsizetype i = 0; i < std::min<qsizetype>(ours.size(), covers.size()); ++i) {
            const QJsonObject c = covers[i].toObject();
            const QString expected = QStringLiteral("%1 bytes, sha1 %2")
                                         .arg(c.value(QStringLiteral("size")).toInt())
                                         .arg(c.value(QStringLiteral("sha1")).toString());
            EXPECT_EQ(describe(ours[i].imageData()), expected)
                << where(entry) << ": picture " << i << " (mutagen's format "
                << c.value(QStringLiteral("imageformat")).toInt() << ")";
        }
    }
}

TEST_F(AACFixtureAgreement, AudioPropertiesAgree) {
    for (const QJsonObject &entry : readable()) {
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        const QJsonObject l = layout(entry), i = info(entry);
        const double movieSeconds =
            l.value(QStringLiteral("mvhd")).toObject().value(QStringLiteral("seconds")).toDouble();
        // The movie's duration; mutagen takes the track's, which holds the encoder's priming
        // samples as well (1024, under 0.05 s at the rates of the set).
        EXPECT_NEAR(tag->duration(), movieSeconds, 0.001) << where(entry) << ": duration against mvhd";
        EXPECT_NEAR(tag->duration(), i.value(QStringLiteral("length")).toDouble(), 0.05)
            << where(entry) << ": duration against mutagen's length";

        // The sample rate is the 16-bit integer part in the 'mp4a' entry: rates above 65535 Hz
        // leave it 0 there (mutagen reads the decoder configuration instead).
        const int entryRate = l.value(QStringLiteral("sampleEntryRate")).toInt();
        EXPECT_EQ(tag->samplerate(), entryRate > 0 ? entryRate : -1) << where(entry) << ": sample rate";
        if (entryRate > 0 && entryRate == i.value(QStringLiteral("sample_rate")).toInt())
            EXPECT_EQ(tag->samplerate(), i.value(QStringLiteral("sample_rate")).toInt()) << where(entry);

        // The bit rate is the 32 bits 26 bytes past the 'esds' name (the maximum, where the
        // descriptors carry 4-byte sizes), in kbit/s, at most 320. Only when no 'esds' is met
        // does the 'mdat' size stand in; a 0 there leaves no bit rate at all.
        const QJsonValue at26 = l.value(QStringLiteral("esdsAt26"));
        const double mdat = l.value(QStringLiteral("mdatSize")).toDouble();
        if (at26.isDouble()) {
            const int probed = std::min(at26.toInt() / 1000, 320);
            EXPECT_EQ(tag->bitrate(), probed > 0 ? probed : -1)
                << where(entry) << ": bit rate read at esds + 26";
            const int esds = i.value(QStringLiteral("bitrate")).toInt();
            const QJsonObject rates = l.value(QStringLiteral("esds")).toObject();
            if (rates.value(QStringLiteral("sizeBytes")).toInt() == 4 &&
                rates.value(QStringLiteral("maxBitrate")).toInt() == esds && esds > 0)
                EXPECT_EQ(tag->bitrate(), expectedBitRate(esds)) << where(entry) << ": agrees with mutagen";
        } else {
            EXPECT_TRUE(fallbackBitRateFits(tag->bitrate(), mdat, movieSeconds))
                << where(entry) << ": bit rate without an esds: ours " << tag->bitrate() << ", mdat " << mdat
                << " bytes over " << movieSeconds << " s * 124 = " << mdat / (movieSeconds * 124.0);
        }
    }
}

TEST_F(AACFixtureAgreement, FilesWithoutValuesGiveOnlyTheirName) {
    int seen = 0;
    for (const QJsonObject &entry : readable()) {
        // No 'udta' at all, or an 'ilst' without items.
        const QJsonValue ilst = layout(entry).value(QStringLiteral("ilst"));
        if (!ilst.isNull() && !ilst.toArray().isEmpty()) continue;
        ++seen;
        const std::shared_ptr<AudioInfoTag> tag = ourTag(entry);
        if (!tag) continue;
        expectField(entry, "title", tag->title(),
                    titleFromFileName(entry.value(QStringLiteral("file")).toString()), ilst);
        for (const QString &value : {tag->artist(), tag->album(), tag->year(), tag->track(), tag->genres(),
                                     tag->bpm(), tag->lyrics()})
            EXPECT_TRUE(value.isNull()) << where(entry) << ": " << str(value);
        EXPECT_FALSE(tag->isPartOfCompilation()) << where(entry);
        EXPECT_EQ(tag->numberOfImages(), 0) << where(entry);
        EXPECT_GT(tag->duration(), 0.0) << where(entry) << ": the audio is still read";
    }
    EXPECT_GE(seen, 2);
}

TEST_F(AACFixtureAgreement, ReadingNeverChangesAFile) {
    for (auto it = sHashes.cbegin(); it != sHashes.cend(); ++it) {
        const QDateTime modified = QFileInfo(it.key()).lastModified();
        std::shared_ptr<AudioInfoTag> tag = AudioInfoTag::tagWithPath(it.key());
        ASSERT_TRUE(tag) << it.key().toStdString();
        for (const ID3Image &image : tag->images())
            (void)image.mimeFormat();
        (void)tag->lyrics();
        (void)tag->genres();
        tag.reset();
        EXPECT_EQ(sha1Hex(readAll(it.key())), it.value()) << it.key().toStdString();
        EXPECT_EQ(QFileInfo(it.key()).lastModified(), modified) << it.key().toStdString();
    }
}

} // namespace
