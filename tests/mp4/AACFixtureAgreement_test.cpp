// Our MP4 reader against mutagen over .m4a files tagged by real programs
// (tests/tools/make_mp4_fixtures.py, read by tests/tools/mp4_probe.py). Where our reader reads
// deliberately otherwise, the expected value applies that rule to mutagen's.
#include "model/AudioInfoTag.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>

using namespace TestSupport;
using namespace Qt::StringLiterals;

namespace {

std::string str(const QString &s) {
    return s.isNull() ? std::string("(absent)") : '"' + s.toStdString() + '"';
}

using J = const QJsonObject &;

QJsonValue at(J o, const char *path) { // "layout/esds/sizeBytes"
    QJsonValue v = o;
    for (const QString &key : QString::fromUtf8(path).split(u'/'))
        v = v.toObject().value(key);
    return v;
}

int num(J o, const char *path) {
    return at(o, path).toInt();
}

QString first(J e, const char *key) {
    const QJsonArray a = at(e, (std::string("items/") + key).c_str()).toArray();
    return a.isEmpty() ? QString() : a.first().toString();
}

QString titleFromFileName(const QString &file) {
    return file.size() > 4 && file[file.size() - 4] == u'.' ? file.chopped(4) : file;
}

// trkn (n, m): "n/m", "n" without a total, nothing for track 0. tmpo: nothing for 0.
QString expectedTrack(J e) {
    const QJsonArray pair = at(e, "items/trkn").toArray().first().toArray();
    if (pair.isEmpty() || pair[0].toInt() == 0) return {};
    return pair[1].toInt() == 0 ? QString::number(pair[0].toInt())
                                : u"%1/%2"_s.arg(pair[0].toInt()).arg(pair[1].toInt());
}

QString expectedBpm(J e) {
    const int bpm = at(e, "items/tmpo").toArray().first().toInt();
    return bpm == 0 ? QString() : QString::number(bpm);
}

// A non-zero gnre g names genre g-1 (mutagen's list is the same). Otherwise the ©gen text, its
// "(n)" references expanded as mutagen's ID3 reading does and repeats dropped; a bare number stays.
QString expectedGenre(J e) {
    if (e.value(u"gnre").toInt() != 0) return e.value(u"gnreName").toString();
    const QJsonArray text = e.value(u"genreText").toArray();
    if (text.isEmpty()) return {};
    if (QRegularExpression(u"^\\d+$"_s).match(text[0].toString()).hasMatch()) return text[0].toString();
    QStringList names;
    for (const QJsonValue &expanded : e.value(u"genreExpanded").toArray()) {
        for (const QString &name : expanded.toString().split(u'/'))
            if (!names.contains(name)) names.append(name);
    }
    return names.join(u'/');
}

// Each field: ours, and what it must be given mutagen's reading. Several data atoms: the first
// counts; the year is the first four characters of ©day; lyrics keep their carriage returns.
const struct {
    const char *name;
    QString (AudioInfoTag::*ours)() const;
    std::function<QString(const QJsonObject &)> expected;
} kFields[] = {
    {"title", &AudioInfoTag::title,
     [](J e) {
         const QString t = first(e, "©nam");
         return t.isEmpty() ? titleFromFileName(e.value(u"file").toString()) : t;
     }},
    {"artist", &AudioInfoTag::artist, [](J e) { return first(e, "©ART"); }},
    {"album", &AudioInfoTag::album, [](J e) { return first(e, "©alb"); }},
    {"year", &AudioInfoTag::year,
     [](J e) {
         const QString day = first(e, "©day");
         return day.size() >= 4 ? day.left(4) : QString();
     }},
    {"lyrics", &AudioInfoTag::lyrics, [](J e) { return first(e, "©lyr"); }},
    {"track", &AudioInfoTag::track, expectedTrack},
    {"bpm", &AudioInfoTag::bpm, expectedBpm},
    {"genres", &AudioInfoTag::genres, expectedGenre},
    {"readVersion", &AudioInfoTag::readVersion, [](const QJsonObject &) { return u"AAC"_s; }},
};

class AACFixtureAgreement : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        if (!haveTool(u"ffmpeg"_s)) {
            sSkip = u"ffmpeg is not installed"_s;
            return;
        }
        if (run(systemPython(), {u"-c"_s, u"import mutagen.mp4"_s}) != 0) {
            sSkip = systemPython() + u" has no mutagen module"_s;
            return;
        }
        const QString dir = toolFixtureDir(u"mp4"_s, &sProblem);
        if (dir.isEmpty()) return;
        sManifest = QJsonDocument::fromJson(readAll(dir + u"/manifest.json"_s)).object();
        QStringList paths;
        for (const QJsonValue &f : sManifest.value(u"fixtures").toArray())
            paths.append(dir + u'/' + f.toObject().value(u"file").toString());
        QByteArray out, err;
        if (paths.isEmpty() ||
            run(systemPython(), QStringList{sourceDir() + u"/tests/tools/mp4_probe.py"_s, u"read"_s} + paths,
                &out, &err) != 0) {
            sProblem = u"no fixtures, or mp4_probe.py failed: "_s + QString::fromUtf8(err);
            return;
        }
        for (const QJsonValue &entry : QJsonDocument::fromJson(out).array())
            sEntries.append(entry.toObject());
    }

protected:
    void SetUp() override {
        if (!sSkip.isEmpty()) GTEST_SKIP() << sSkip.toStdString();
        ASSERT_TRUE(sProblem.isEmpty()) << sProblem.toStdString();
        ASSERT_FALSE(sEntries.isEmpty());
    }
    static std::string where(J e) { return e.value(u"file").toString().toStdString(); }
    // Each readable fixture with our reading of it.
    static void forEachTag(const std::function<void(const QJsonObject &, AudioInfoTag &)> &check) {
        for (J e : sEntries) {
            if (e.contains(u"error"_s)) continue;
            const std::shared_ptr<AudioInfoTag> tag = AudioInfoTag::tagWithPath(e.value(u"path").toString());
            if (!tag)
                ADD_FAILURE() << where(e) << ": our reader gives no tag";
            else
                check(e, *tag);
        }
    }
    static inline QJsonObject sManifest;
    static inline QList<QJsonObject> sEntries;
    static inline QString sSkip, sProblem;
};

// Every tool at hand made its fixtures, mutagen reads them all, and the set holds every layout
// the other tests rely on.
TEST_F(AACFixtureAgreement, TheSetIsCompleteAndCoversEveryLayout) {
    for (const QJsonValue &left : sManifest.value(u"skipped").toArray())
        EXPECT_FALSE(left.toObject().value(u"failed").toBool())
            << left.toObject().value(u"why").toString().toStdString();
    QStringList tools;
    for (const QJsonValue &f : sManifest.value(u"fixtures").toArray())
        tools.append(f.toObject().value(u"tool").toString());
    for (const QString &tool : {u"AtomicParsley"_s, u"kid3-cli"_s})
        if (haveTool(tool)) EXPECT_TRUE(tools.contains(tool)) << tool.toStdString() << " made no fixture";
    EXPECT_TRUE(tools.contains(u"mutagen"_s));
    const std::pair<const char *, std::function<bool(const QJsonObject &)>> kinds[] = {
        {"moov first", [](J e) { return at(e, "layout/moovBeforeMdat").toBool(); }},
        {"moov last", [](J e) { return !at(e, "layout/moovBeforeMdat").toBool(); }},
        {"padding in udta",
         [](J e) {
             for (const QJsonValue &f : at(e, "layout/free").toArray())
                 if (f.toObject().value(u"path").toString().startsWith(u"moov.udta"_s) &&
                     f.toObject().value(u"size").toInt() > 8)
                     return true;
             return false;
         }},
        {"no free", [](J e) { return at(e, "layout/free").toArray().isEmpty(); }},
        {"no udta", [](J e) { return !at(e, "layout/hasUdta").toBool(); }},
        {"gnre", [](J e) { return e.value(u"gnre").toInt() != 0; }},
        {"no average bit rate", [](J e) { return num(e, "info/bitrate") == 0; }},
        {"maximum above average",
         [](J e) { return num(e, "layout/esds/maxBitrate") > num(e, "info/bitrate"); }},
        {"one-byte descriptor sizes", [](J e) { return num(e, "layout/esds/sizeBytes") == 1; }},
        {"above 320 kbit/s", [](J e) { return num(e, "info/bitrate") > 320000; }},
        {"rate beyond the 16-bit field",
         [](J e) { return num(e, "layout/sampleEntryRate") != num(e, "info/sample_rate"); }},
    };
    for (const auto &[kind, has] : kinds)
        EXPECT_TRUE(std::any_of(sEntries.begin(), sEntries.end(), has)) << "no fixture with " << kind;
    for (J e : sEntries)
        EXPECT_FALSE(e.contains(u"error"_s))
            << where(e) << ": " << e.value(u"error").toString().toStdString();
}

// Every field, the compilation flag and the pictures (byte for byte, in order) agree; a file
// without items reads as nothing but its name; the vocabulary behind gnre is mutagen's.
TEST_F(AACFixtureAgreement, TagValuesAgree) {
    int empty = 0;
    forEachTag([&](J e, AudioInfoTag &tag) {
        for (const auto &f : kFields) {
            const QString ours = (tag.*f.ours)(), expected = f.expected(e);
            EXPECT_TRUE(ours == expected && ours.isNull() == expected.isNull())
                << where(e) << ": " << f.name << ": ours " << str(ours) << ", expected " << str(expected);
        }
        EXPECT_EQ(tag.isPartOfCompilation(), at(e, "items/cpil").toArray().first().toBool()) << where(e);
        const QJsonArray covers = e.value(u"covers").toArray();
        QStringList ours, theirs;
        for (const ID3Image &image : tag.images())
            ours.append(
                u"%1 %2"_s.arg(image.imageData().size())
                    .arg(QString::fromLatin1(
                        QCryptographicHash::hash(image.imageData(), QCryptographicHash::Sha1).toHex())));
        for (const QJsonValue &c : covers)
            theirs.append(u"%1 %2"_s.arg(c.toObject().value(u"size").toInt())
                              .arg(c.toObject().value(u"sha1").toString()));
        EXPECT_EQ(ours, theirs) << where(e);
        EXPECT_EQ(tag.numberOfImages(), covers.size()) << where(e);
        if (const int g = e.value(u"gnre").toInt())
            EXPECT_EQ(AudioInfoTag::genreForIndex(g - 1), e.value(u"gnreName").toString()) << where(e);
        if (e.value(u"ilst").toArray().isEmpty()) {
            ++empty;
            EXPECT_EQ(tag.title(), titleFromFileName(e.value(u"file").toString())) << where(e);
            EXPECT_GT(tag.duration(), 0.0) << where(e);
        }
    });
    EXPECT_GE(empty, 2) << "too few files without items";
}

// The duration is the movie's. The sample rate is the 16-bit integer part in 'mp4a' (0 above
// 65535 Hz gives none). The bit rate is the 32 bits 26 bytes past the 'esds' name in kbit/s, at
// most 320, and a 0 there gives none; only without an 'esds' does the size of 'mdat' over
// duration * 124 stand in (125 to 131 count as 128, rounding either way).
TEST_F(AACFixtureAgreement, AudioPropertiesAgree) {
    forEachTag([](J e, AudioInfoTag &tag) {
        const double seconds = at(e, "layout/mvhd/seconds").toDouble();
        EXPECT_NEAR(tag.duration(), seconds, 0.001) << where(e);
        EXPECT_NEAR(tag.duration(), at(e, "info/length").toDouble(), 0.05) << where(e); // priming samples
        const int entryRate = num(e, "layout/sampleEntryRate");
        EXPECT_EQ(tag.samplerate(), entryRate > 0 ? entryRate : -1) << where(e);
        const QJsonValue at26 = at(e, "layout/esdsAt26");
        const int mutagenRate = num(e, "info/bitrate");
        if (at26.isDouble()) {
            const int probed = std::min(at26.toInt() / 1000, 320);
            EXPECT_EQ(tag.bitrate(), probed > 0 ? probed : -1) << where(e);
            if (num(e, "layout/esds/sizeBytes") == 4 && num(e, "layout/esds/maxBitrate") == mutagenRate &&
                mutagenRate > 0)
                EXPECT_EQ(tag.bitrate(), std::min(mutagenRate / 1000, 320)) << where(e);
        } else {
            const double rate = at(e, "layout/mdatSize").toDouble() / (seconds * 124.0);
            bool fits = false;
            for (int c : {int(std::floor(rate)), int(std::ceil(rate))})
                fits |= tag.bitrate() == (c >= 125 && c <= 131 ? 128 : c);
            EXPECT_TRUE(fits) << where(e) << ": ours " << tag.bitrate() << ", mdat gives " << rate;
        }
    });
}

TEST_F(AACFixtureAgreement, ReadingNeverChangesAFile) {
    for (J e : sEntries) {
        const QString path = e.value(u"path").toString();
        const QByteArray before = readAll(path);
        const QDateTime modified = QFileInfo(path).lastModified();
        std::shared_ptr<AudioInfoTag> tag = AudioInfoTag::tagWithPath(path);
        ASSERT_TRUE(tag) << where(e);
        for (const ID3Image &image : tag->images())
            (void)image.mimeFormat();
        (void)tag->lyrics();
        tag.reset();
        EXPECT_TRUE(readAll(path) == before) << where(e);
        EXPECT_EQ(QFileInfo(path).lastModified(), modified) << where(e);
    }
}

} // namespace
