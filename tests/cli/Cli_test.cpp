// quillwave-cli as a script sees it: a folder of songs mixed with junk, listed and shown as JSON.
#include "support/TestSupport.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>

#include <gtest/gtest.h>

#include <unistd.h>

using namespace TestSupport;

namespace {

QByteArray pngBytes() {
    QImage image(8, 6, QImage::Format_RGB32);
    image.fill(Qt::darkCyan);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

QByteArray latin1(const char *s) {
    return QByteArray(s);
}
QByteArray utf16(const QString &s) {
    QByteArray b("\xFF\xFE", 2);
    b.append(reinterpret_cast<const char *>(s.utf16()), s.size() * 2);
    return b;
}

struct Result {
    int exitCode = -1;
    QByteArray out;
    QString err;
};

Result cli(const QStringList &args) {
    Result r;
    QByteArray err;
    r.exitCode = run(cliPath(), args, &r.out, &err);
    r.err = QString::fromUtf8(err);
    return r;
}

QStringList pathsOf(const QJsonArray &rows) {
    QStringList paths;
    for (const QJsonValue &row : rows)
        paths.append(row.toObject().value(QStringLiteral("path")).toString());
    return paths;
}

QJsonObject rowFor(const QJsonArray &rows, const QString &path) {
    for (const QJsonValue &row : rows) {
        if (row.toObject().value(QStringLiteral("path")).toString() == path) return row.toObject();
    }
    return {};
}

std::string keysOf(const QJsonObject &o) {
    QStringList keys = o.keys();
    keys.sort();
    return keys.join(QLatin1Char(',')).toStdString();
}

std::string sortedKeys(QStringList keys) {
    keys.sort();
    return keys.join(QLatin1Char(',')).toStdString();
}

class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(QFile::exists(cliPath())) << cliPath().toStdString();
        // Three songs: ID3v2.3 with everything and a picture, ID3v2.4, ID3v1 only.
        QByteArray full = textFrame23("TIT2", latin1("Alpha")) + textFrame23("TPE1", latin1("Zebra Band")) +
                          textFrame23("TALB", latin1("First Album")) + textFrame23("TYER", latin1("1999")) +
                          textFrame23("TRCK", latin1("2/9")) + textFrame23("TCON", latin1("(17)")) +
                          textFrame23("TBPM", latin1("120")) + textFrame23("TCMP", latin1("1")) +
                          frame23("USLT", QByteArray("\0eng\0Sing along", 15)) +
                          frame23("APIC", QByteArray("\0image/png\0\x03"
                                                     "Cover\0",
                                                     18) +
                                              mPng);
        mAlpha = mDir.write(QStringLiteral("alpha.mp3"), id3v2Tag(3, full, 64) + mpegAudio());
        QByteArray v24 = textFrame23("TIT2", utf16(QStringLiteral("Βήτα")), 1) +
                         textFrame23("TPE1", latin1("Middle Men"), 3);
        mBeta = mDir.write(QStringLiteral("beta.mp3"), id3v2Tag(4, v24) + mpegAudio());
        mGamma = mDir.write(QStringLiteral("gamma.mp3"),
                            mpegAudio() + id3v1Tag("Gamma", "Aardvark", "Old", "1985", 4, 8));

        // Junk.
        mEmpty = mDir.write(QStringLiteral("empty.mp3"), {});
        mShort = mDir.write(QStringLiteral("short.mp3"), QByteArray(100, '\x55'));
        mGarbage = mDir.write(QStringLiteral("x.mp3"), QByteArray("not audio, only words\n").repeated(40));
        // Claims a 256 MB tag in a 30 kB file.
        mHuge = mDir.write(QStringLiteral("huge.mp3"),
                           QByteArray("ID3\x03\x00\x00\x7F\x7F\x7F\x7F", 10) + mpegAudio());
        mText = mDir.write(QStringLiteral("notes.txt"), "a text file\n");
        if (geteuid() != 0) {
            mLocked = mDir.write(QStringLiteral("locked.mp3"),
                                 id3v2Tag(3, textFrame23("TIT2", "Locked")) + mpegAudio());
            QFile::setPermissions(mLocked, QFileDevice::Permissions());
        }
    }

    void TearDown() override {
        if (!mLocked.isEmpty())
            QFile::setPermissions(mLocked, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    }

    QJsonArray listJson(const QStringList &extra, Result *result = nullptr) {
        Result r = cli(QStringList{QStringLiteral("list"), mDir.path(), QStringLiteral("--format"),
                                   QStringLiteral("json")} +
                       extra);
        EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(r.out, &error);
        EXPECT_TRUE(doc.isArray()) << error.errorString().toStdString() << ": " << r.out.toStdString();
        if (result) *result = r;
        return doc.array();
    }

    TempDir mDir;
    QByteArray mPng = pngBytes();
    QString mAlpha, mBeta, mGamma, mEmpty, mShort, mGarbage, mHuge, mText, mLocked;
};

TEST_F(Cli, ListsOneRowPerSongAndNamesEverySkippedFile) {
    Result r;
    const QJsonArray rows = listJson({QStringLiteral("--quiet")}, &r);

    const QStringList keys = {QStringLiteral("active"),      QStringLiteral("index"),
                              QStringLiteral("compilation"), QStringLiteral("artist"),
                              QStringLiteral("title"),       QStringLiteral("album"),
                              QStringLiteral("year"),        QStringLiteral("genre"),
                              QStringLiteral("track"),       QStringLiteral("version"),
                              QStringLiteral("bpm"),         QStringLiteral("lyrics"),
                              QStringLiteral("art"),         QStringLiteral("formattedDuration"),
                              QStringLiteral("path")};
    for (const QJsonValue &row : rows)
        EXPECT_EQ(keysOf(row.toObject()), sortedKeys(keys));

    const QStringList paths = pathsOf(rows);
    EXPECT_EQ(QSet<QString>(paths.begin(), paths.end()).size(), paths.size()) << "a file listed twice";
    for (const QString &song : {mAlpha, mBeta, mGamma})
        EXPECT_EQ(paths.count(song), 1) << song.toStdString();

    const QJsonObject alpha = rowFor(rows, mAlpha);
    EXPECT_EQ(alpha.value(QStringLiteral("title")).toString(), QStringLiteral("Alpha"));
    EXPECT_EQ(alpha.value(QStringLiteral("artist")).toString(), QStringLiteral("Zebra Band"));
    EXPECT_EQ(alpha.value(QStringLiteral("album")).toString(), QStringLiteral("First Album"));
    EXPECT_EQ(alpha.value(QStringLiteral("year")).toString(), QStringLiteral("1999"));
    EXPECT_EQ(alpha.value(QStringLiteral("genre")).toString(), QStringLiteral("Rock"));
    EXPECT_EQ(alpha.value(QStringLiteral("track")).toString(), QStringLiteral("2/9"));
    EXPECT_EQ(alpha.value(QStringLiteral("bpm")).toString(), QStringLiteral("120"));
    EXPECT_EQ(alpha.value(QStringLiteral("version")).toString(), QStringLiteral("2.3.0"));
    EXPECT_TRUE(alpha.value(QStringLiteral("compilation")).toBool());
    EXPECT_TRUE(alpha.value(QStringLiteral("lyrics")).toBool());
    EXPECT_EQ(alpha.value(QStringLiteral("art")).toInt(), 1);
    EXPECT_EQ(alpha.value(QStringLiteral("active")).toInt(), 0);
    EXPECT_TRUE(alpha.value(QStringLiteral("index")).isNull());

    const QJsonObject beta = rowFor(rows, mBeta);
    EXPECT_EQ(beta.value(QStringLiteral("title")).toString(), QStringLiteral("Βήτα"));
    EXPECT_EQ(beta.value(QStringLiteral("version")).toString(), QStringLiteral("2.4.0"));
    EXPECT_TRUE(beta.value(QStringLiteral("year")).isNull());
    EXPECT_FALSE(beta.value(QStringLiteral("lyrics")).toBool());
    EXPECT_EQ(beta.value(QStringLiteral("art")).toInt(), 0);

    const QJsonObject gamma = rowFor(rows, mGamma);
    EXPECT_EQ(gamma.value(QStringLiteral("artist")).toString(), QStringLiteral("Aardvark"));
    EXPECT_EQ(gamma.value(QStringLiteral("genre")).toString(), QStringLiteral("Jazz"));
    EXPECT_EQ(gamma.value(QStringLiteral("track")).toString(), QStringLiteral("4"));
    EXPECT_EQ(gamma.value(QStringLiteral("version")).toString(), QStringLiteral("1.1"));

    // Files too small to be songs, the text file and the locked file give no row and a line each.
    QStringList skipped = {mEmpty, mShort, mText};
    if (!mLocked.isEmpty()) skipped.append(mLocked);
    for (const QString &file : skipped) {
        EXPECT_FALSE(paths.contains(file)) << file.toStdString();
        EXPECT_TRUE(r.err.contains(QStringLiteral("skipped ") + file + QStringLiteral(": ")))
            << file.toStdString() << " not named in:\n"
            << r.err.toStdString();
    }
    // The tag that claims more bytes than the file has: listed as a problem and named.
    EXPECT_TRUE(r.err.contains(mHuge + QStringLiteral(": no readable tag"))) << r.err.toStdString();
    ASSERT_TRUE(paths.contains(mHuge));
    EXPECT_EQ(rowFor(rows, mHuge).value(QStringLiteral("active")).toInt(), 4)
        << "huge.mp3 should have problem status";
    EXPECT_TRUE(rowFor(rows, mHuge).value(QStringLiteral("title")).isNull());
    // Text in a file named .mp3 is too short to be told apart by content: the name decides, and
    // without a tag the song is named after its file.
    const QJsonObject garbage = rowFor(rows, mGarbage);
    EXPECT_EQ(garbage.value(QStringLiteral("title")).toString(), QStringLiteral("x"));
    EXPECT_TRUE(garbage.value(QStringLiteral("version")).isNull());
    EXPECT_TRUE(garbage.value(QStringLiteral("artist")).isNull());
    // --quiet leaves out the readers' diagnostics, not the report of what was skipped.
    EXPECT_FALSE(r.err.contains(QStringLiteral("quillwave.console"))) << r.err.toStdString();
}

TEST_F(Cli, SortsByArtistAndReverses) {
    const QStringList byArtist =
        pathsOf(listJson({QStringLiteral("--sort"), QStringLiteral("artist"), QStringLiteral("--quiet")}));
    // Aardvark, Middle Men, Zebra Band; songs without an artist come after them.
    ASSERT_GE(byArtist.size(), 3);
    EXPECT_EQ(byArtist.mid(0, 3), (QStringList{mGamma, mBeta, mAlpha}));

    const QStringList reversed = pathsOf(listJson({QStringLiteral("--sort"), QStringLiteral("artist"),
                                                   QStringLiteral("--reverse"), QStringLiteral("--quiet")}));
    QStringList expected = byArtist;
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(reversed, expected);

    // Without --sort, the walk's order: by path.
    const QStringList plain = pathsOf(listJson({QStringLiteral("--quiet")}));
    QStringList sorted = plain;
    sorted.sort();
    EXPECT_EQ(plain, sorted);
}

TEST_F(Cli, ShowGivesEveryFieldAndThePictures) {
    const Result r = cli(
        {QStringLiteral("show"), mAlpha, mGamma, mHuge, QStringLiteral("--format"), QStringLiteral("json")});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QJsonArray shown = QJsonDocument::fromJson(r.out).array();
    ASSERT_EQ(shown.size(), 3) << r.out.toStdString();

    const QStringList keys = {
        QStringLiteral("path"),     QStringLiteral("activityStatus"), QStringLiteral("readVersion"),
        QStringLiteral("title"),    QStringLiteral("artist"),         QStringLiteral("album"),
        QStringLiteral("year"),     QStringLiteral("genres"),         QStringLiteral("track"),
        QStringLiteral("bpm"),      QStringLiteral("lyrics"),         QStringLiteral("isPartOfCompilation"),
        QStringLiteral("duration"), QStringLiteral("bitrate"),        QStringLiteral("samplerate"),
        QStringLiteral("images")};
    const QStringList imageKeys = {QStringLiteral("pictureType"), QStringLiteral("mimeFormat"),
                                   QStringLiteral("description"), QStringLiteral("bytes"),
                                   QStringLiteral("width"),       QStringLiteral("height"),
                                   QStringLiteral("sha1")};

    const QJsonObject alpha = shown[0].toObject();
    EXPECT_EQ(keysOf(alpha), sortedKeys(keys));
    EXPECT_EQ(alpha.value(QStringLiteral("path")).toString(), mAlpha);
    EXPECT_EQ(alpha.value(QStringLiteral("genres")).toString(), QStringLiteral("Rock"));
    EXPECT_EQ(alpha.value(QStringLiteral("lyrics")).toString(), QStringLiteral("Sing along"));
    EXPECT_TRUE(alpha.value(QStringLiteral("isPartOfCompilation")).toBool());
    const QJsonArray images = alpha.value(QStringLiteral("images")).toArray();
    ASSERT_EQ(images.size(), 1);
    const QJsonObject cover = images[0].toObject();
    EXPECT_EQ(keysOf(cover), sortedKeys(imageKeys));
    EXPECT_EQ(cover.value(QStringLiteral("pictureType")).toInt(), 3);
    EXPECT_EQ(cover.value(QStringLiteral("mimeFormat")).toString(), QStringLiteral("image/png"));
    EXPECT_EQ(cover.value(QStringLiteral("description")).toString(), QStringLiteral("Cover"));
    EXPECT_EQ(cover.value(QStringLiteral("bytes")).toInt(), mPng.size());
    EXPECT_EQ(cover.value(QStringLiteral("width")).toInt(), 8);
    EXPECT_EQ(cover.value(QStringLiteral("height")).toInt(), 6);
    EXPECT_EQ(cover.value(QStringLiteral("sha1")).toString(),
              QString::fromLatin1(QCryptographicHash::hash(mPng, QCryptographicHash::Sha1).toHex()));

    const QJsonObject gamma = shown[1].toObject();
    EXPECT_EQ(keysOf(gamma), sortedKeys(keys));
    EXPECT_EQ(gamma.value(QStringLiteral("readVersion")).toString(), QStringLiteral("1.1"));
    EXPECT_TRUE(gamma.value(QStringLiteral("lyrics")).isNull());
    EXPECT_TRUE(gamma.value(QStringLiteral("images")).toArray().isEmpty());

    // A file whose tag cannot be read is shown with problem status and nothing else.
    const QJsonObject huge = shown[2].toObject();
    EXPECT_EQ(keysOf(huge), sortedKeys(keys));
    EXPECT_EQ(huge.value(QStringLiteral("activityStatus")).toInt(), 4)
        << "huge.mp3 should have problem status";
    EXPECT_TRUE(huge.value(QStringLiteral("title")).isNull());
    EXPECT_TRUE(huge.value(QStringLiteral("readVersion")).isNull());
    EXPECT_TRUE(r.err.contains(mHuge + QStringLiteral(": no readable tag"))) << r.err.toStdString();
}

TEST_F(Cli, RefusesWhatItCannotDo) {
    Result r = cli({QStringLiteral("list"), mDir.path(), QStringLiteral("--bogus")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(r.err.contains(QStringLiteral("--bogus"))) << r.err.toStdString();
    EXPECT_TRUE(r.out.isEmpty());

    EXPECT_EQ(cli({QStringLiteral("list"), mDir.path(), QStringLiteral("--sort"), QStringLiteral("nonsense")})
                  .exitCode,
              2);
    EXPECT_EQ(cli({QStringLiteral("list"), mDir.path(), QStringLiteral("--format"), QStringLiteral("xml")})
                  .exitCode,
              2);
    EXPECT_EQ(cli({QStringLiteral("frobnicate")}).exitCode, 2);
    EXPECT_EQ(cli({QStringLiteral("list"), QStringLiteral("--sort")}).exitCode, 2);

    // A file that is not there: named, and the exit code says something failed.
    r = cli({QStringLiteral("show"), mAlpha, mDir.file(QStringLiteral("missing.mp3")),
             QStringLiteral("--format"), QStringLiteral("json")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("missing.mp3"))) << r.err.toStdString();
    EXPECT_EQ(QJsonDocument::fromJson(r.out).array().size(), 1);
}

} // namespace

TEST_F(Cli, ListsKnownSongsFromTheSongInfoCache) {
    TempDir cacheHome;
    const auto listWith = [&](const QStringList &extra, const QString &home) {
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CACHE_HOME"), home);
        p.setProcessEnvironment(env);
        p.start(cliPath(), QStringList{"list", mDir.path(), "--format", "json", "--sort", "title"} + extra);
        p.waitForFinished(60000);
        return std::make_pair(QJsonDocument::fromJson(p.readAllStandardOutput()).array(),
                              QString::fromUtf8(p.readAllStandardError()));
    };
    const auto [first, firstErrors] = listWith({}, cacheHome.path());
    const auto [second, secondErrors] = listWith({}, cacheHome.path());
    ASSERT_EQ(first.size(), second.size());
    ASSERT_FALSE(first.isEmpty());
    for (qsizetype i = 0; i < first.size(); ++i) {
        QJsonObject a = first[i].toObject(), b = second[i].toObject();
        if (a.value("active").toInt() == 4) continue; // unreadable tags are not cached
        EXPECT_TRUE(b.value("version").isNull()) << "listed from the cache: " << b.value("path").toString().toStdString();
        a.remove("version");
        b.remove("version");
        EXPECT_EQ(a, b);
    }
    const auto [fresh, freshErrors] = listWith({"--no-cache"}, cacheHome.path());
    EXPECT_FALSE(fresh.first().toObject().value("version").isNull()) << "--no-cache reads the files";

    // A cache folder that cannot be made: one line says so, and the listing goes on without it.
    const QString notAFolder = cacheHome.file("plain-file");
    QFile(notAFolder).open(QIODevice::WriteOnly);
    const auto [without, withoutErrors] = listWith({"--quiet"}, notAFolder);
    EXPECT_EQ(without.size(), first.size());
    EXPECT_EQ(withoutErrors.count("song info cache unavailable"), 1) << withoutErrors.toStdString();
}
