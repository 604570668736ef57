// Song identity, content sniffing, status and the chained sort orders.
#include "app/SongTableColumns.h"
#include "model/SongFile.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QRandomGenerator>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace TestSupport;

TEST(SongFile, SizeFloorAndIdentity) {
    TempDir dir;
    EXPECT_FALSE(SongFile::songWithPath(dir.write("small.mp3", QByteArray(254, 'x'))));
    SongFilePtr song = SongFile::songWithPath(dir.write("ok.mp3", QByteArray(255, 'x')));
    ASSERT_TRUE(song);
    EXPECT_EQ(song->filename(), "ok.mp3");
    EXPECT_EQ(song->activityStatus(), SongFile::StatusIdle);
    EXPECT_TRUE(song->canWriteToOriginalPath());
    EXPECT_FALSE(SongFile::songWithPath(dir.file("missing.mp3")));
    EXPECT_TRUE(song->description().endsWith(": ok.mp3>"));

    song->setiTunesDBID(42);
    song->setPlayList("Mix", 3);
    SongFilePtr copy = song->copy();
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->iTunesDBID(), 42);
    EXPECT_EQ(copy->playlistIndex(), 3);
    EXPECT_FALSE(copy->hasInfotagCached());

    QList<SongFilePtr> list{song, SongFile::songWithPath(song->path())};
    EXPECT_EQ(SongFile::songWithPath(song->path(), list), list[1]) << "the last equal path wins";
    EXPECT_FALSE(SongFile::songWithPath(QString(), list));
}

TEST(SongFile, StatusFollowsWritabilityAndTagProblems) {
    TempDir dir;
    // A tag whose frame overruns it marks a problem; the song then cannot be written.
    QByteArray broken("TALB");
    broken += be32(500) + QByteArray(2, 0) + "x";
    const QString path = dir.write("problem.mp3", id3v2Tag(3, broken, 0) + mpegAudio(40));
    SongFilePtr song = SongFile::songWithPath(path);
    ASSERT_TRUE(song);
    ASSERT_TRUE(song->infotag());
    EXPECT_EQ(song->activityStatus(), SongFile::StatusProblem);
    EXPECT_FALSE(song->canWriteToOriginalPath());

    if (::geteuid() != 0) {
        const QString locked = dir.write("locked.mp3", mpegAudio(40));
        ::chmod(locked.toLocal8Bit().constData(), 0444);
        EXPECT_EQ(SongFile::songWithPath(locked)->activityStatus(), SongFile::StatusReadOnly);
    }
}

TEST(SongFile, RefreshNoticesChangesAndVanishedFiles) {
    TempDir dir;
    const QString path = dir.write("song.mp3", id3v2Tag(3, textFrame23("TIT2", "One"), 10) + mpegAudio(40));
    SongFilePtr song = SongFile::songWithPath(path);
    ASSERT_EQ(song->infotag()->title(), "One");
    EXPECT_FALSE(song->refresh()) << "nothing changed";

    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::ReadWrite));
    f.setFileTime(song->modificationDate().addSecs(5), QFileDevice::FileModificationTime);
    f.close();
    EXPECT_TRUE(song->refresh());
    EXPECT_FALSE(song->hasInfotagCached());
    EXPECT_EQ(song->hasiTunesArtwork(), -1);

    song->setAliasFromPath();
    QFile::remove(path);
    EXPECT_FALSE(song->refresh());
    EXPECT_EQ(song->activityStatus(), SongFile::StatusProblem);
}

TEST(SongFile, ClaimsByName) {
    EXPECT_TRUE(SongFile::claimsToBeMP3("/x/song.MP3"));
    EXPECT_TRUE(SongFile::claimsToBeMP3("/x/song.mp2"));
    EXPECT_FALSE(SongFile::claimsToBeMP3("/x.mp3/song"));
    EXPECT_TRUE(SongFile::claimsToBeAAC("/x/song.M4A"));
    EXPECT_TRUE(SongFile::claimsToBeAAC("/x/song.m4p"));
    EXPECT_FALSE(SongFile::claimsToBeAAC("/x/song.mp4"));
    EXPECT_TRUE(SongFile::claimsToBeOGG("/x/song.ogg"));
}

TEST(SongFile, ContentSniffing) {
    TempDir dir;
    EXPECT_EQ(SongFile::songDataTypeAtPath(dir.write("short", mpegAudio(9).left(4095))),
              SongFile::TypeUnknown);
    EXPECT_EQ(SongFile::songDataTypeAtPath(dir.write("audio", mpegAudio(200))), SongFile::TypeMP3);
    // A big ID3v2 tag is skipped before counting.
    const QByteArray tag = id3v2Tag(3, textFrame23("TIT2", "x"), 20000);
    EXPECT_EQ(SongFile::songDataTypeAtPath(dir.write("tagged", tag + mpegAudio(300))), SongFile::TypeMP3);
    // A size byte with its top bit set is no tag: scanning starts at 0 and must get past the junk.
    QByteArray junkTag("ID3\x03\x00\x00\x00\x00\x80\x00", 10);
    EXPECT_EQ(SongFile::songDataTypeAtPath(
                  dir.write("junktag", junkTag + QByteArray(300000, 'j') + mpegAudio(300))),
              SongFile::TypeUnknown)
        << "too few headers for the bytes read from the file's start";
    EXPECT_EQ(SongFile::songDataTypeAtPath(dir.write("text", QByteArray(100000, 't'))),
              SongFile::TypeUnknown);

    // An MP4 atom tree: the three words and fewer than 10 sync patterns give MPEG-4 audio.
    QByteArray mp4 = QByteArray(4, 0) + "ftypM4A " + QByteArray(100, 0) + "moov" + QByteArray(50, 0) +
                     "udta" + QByteArray(50, 0) + "mdia" + QByteArray(20000, 0);
    EXPECT_EQ(SongFile::songDataTypeAtPath(dir.write("mp4", mp4)), SongFile::TypeAAC);
    QByteArray syncs;
    for (int i = 0; i < 15; ++i)
        syncs += QByteArray("\xFF\xFB\x90\x64", 4) + QByteArray(196, 0);
    EXPECT_EQ(SongFile::songDataTypeAtPath(dir.write("mp4sync", syncs + mp4)), SongFile::TypeUnknown)
        << "10 to 29 headers: neither";
}

namespace {
struct Library {
    TempDir dir;
    QList<SongFilePtr> songs;
    SongFilePtr add(const QString &name, std::initializer_list<std::pair<const char *, QByteArray>> frames,
                    int audioFrames = 40) {
        QByteArray body;
        for (const auto &[id, text] : frames)
            body += textFrame23(id, text);
        const QString path =
            dir.write(name, (body.isEmpty() ? QByteArray() : id3v2Tag(3, body, 10)) + mpegAudio(audioFrames));
        songs.append(SongFile::songWithPath(path));
        return songs.last();
    }
    QStringList order(const QString &column, bool descending = false) {
        QList<SongFilePtr> sorted = songs;
        SongTableColumns::sortSongs(sorted, column, descending);
        QStringList names;
        for (const SongFilePtr &s : sorted)
            names.append(s->filename());
        return names;
    }
};
} // namespace

TEST(SongSorting, ChainedComparisons) {
    Library lib;
    lib.add("a.mp3", {{"TPE1", "Beatles"}, {"TALB", "Abbey Road"}, {"TRCK", "2/17"}, {"TIT2", "Something"}});
    lib.add("b.mp3",
            {{"TPE1", "beatles"}, {"TALB", "Abbey Road"}, {"TRCK", "1/17"}, {"TIT2", "Come Together"}});
    lib.add("c.mp3", {{"TIT2", "No Artist"}});
    lib.add("d.mp3", {{"TPE1", "Track 10"}, {"TYER", "1969"}, {"TBPM", "90"}});
    lib.add("e.mp3", {{"TPE1", "Track 9"}, {"TYER", "2001"}, {"TBPM", "120"}});
    EXPECT_EQ(lib.order("artist"), (QStringList{"b.mp3", "a.mp3", "e.mp3", "d.mp3", "c.mp3"}))
        << "case-insensitive, numbers by value, missing artists last";
    EXPECT_EQ(lib.order("artist", true), (QStringList{"c.mp3", "d.mp3", "e.mp3", "a.mp3", "b.mp3"}));
    EXPECT_EQ(lib.order("year").mid(0, 2), (QStringList{"d.mp3", "e.mp3"}));
    EXPECT_EQ(lib.order("bpm").mid(3), (QStringList{"d.mp3", "e.mp3"})) << "missing BPM counts as 0";
    EXPECT_EQ(lib.order("track").mid(0, 2), (QStringList{"b.mp3", "a.mp3"}));
    EXPECT_EQ(lib.order("nonsense"), (QStringList{"a.mp3", "b.mp3", "c.mp3", "d.mp3", "e.mp3"}));

    EXPECT_EQ(lib.songs[0]->compareArtist(*lib.songs[0]), 0);
    Library same;
    auto x = same.add("x.mp3", {{"TPE1", "A"}, {"TALB", "B"}, {"TRCK", "1"}, {"TIT2", "One"}});
    auto y = same.add("y.mp3", {{"TPE1", "A"}, {"TALB", "B"}, {"TRCK", "1"}, {"TIT2", "Two"}});
    EXPECT_EQ(x->compareArtist(*y), 0) << "artist, album and track only";
    EXPECT_NE(x->compareTitle(*y), 0);
}

TEST(SongSorting, DescendingNumbersAndFlags) {
    Library lib;
    auto lyrics = lib.add("lyrics.mp3", {{"TIT2", "L"}});
    lyrics->infotag()->setLyrics("la la");
    auto comp = lib.add("comp.mp3", {{"TIT2", "C"}, {"TCMP", "1"}});
    auto art = lib.add("art.mp3", {{"TIT2", "A"}});
    art->infotag()->addImage(ID3Image("png", "image/png"));
    EXPECT_EQ(lib.order("lyrics").first(), "lyrics.mp3");
    EXPECT_EQ(lib.order("compilation").first(), "comp.mp3");
    EXPECT_EQ(lib.order("art").first(), "art.mp3");
    comp->setActivityStatus(SongFile::StatusProblem);
    EXPECT_EQ(lib.order("active").first(), "comp.mp3") << "higher status first";
    EXPECT_EQ(SongFile::compare(1, 2), 1);
    EXPECT_EQ(SongFile::compare(2, 1), -1);
    EXPECT_EQ(SongFile::compare(2, 2), 0);
}

namespace {
// The content test read the plain way: 4096-byte blocks, byte by byte.
int referenceDataType(const QByteArray &file)
{
    const qint64 length = file.size();
    if (length < 4096)
        return 0;
    const auto u = [&file](qint64 i) { return static_cast<unsigned char>(file[i]); };
    qint64 position = 0;
    if (file.startsWith("ID3") && u(3) != 0xFF && u(4) != 0xFF && !((u(6) | u(7) | u(8) | u(9)) & 0x80)) {
        const qint64 size = u(6) << 21 | u(7) << 14 | u(8) << 7 | u(9);
        if (size > 6)
            position = length < size + 10 ? 0 : size + 10;
    }
    int headers = 0;
    bool words[3] = {};
    while (position <= 499999 && position < length - 4096) {
        for (qint64 i = 0; i < 4092;) {
            const qint64 p = position + i;
            if (u(p) == 0xFF && u(p + 1) >= 0xFA && u(p + 1) <= 0xFD && (u(p + 2) & 0x0C) != 0x0C &&
                (u(p + 2) & 0xF0) != 0xF0) {
                ++headers;
                i += 200;
            } else {
                ++i;
            }
        }
        if (headers < 30) {
            const char *names[3] = {"moov", "udta", "mdia"};
            for (int w = 0; w < 3; ++w)
                for (qint64 i = 0; i <= 4091 && !words[w]; ++i)
                    words[w] = file.mid(position + i, 4) == names[w];
        }
        position += 4096;
        if (headers >= 30) {
            if (float(position) / float(headers) < 800.0f)
                return 1;
        } else if (headers < 10 && words[0] && words[1] && words[2]) {
            return 2;
        }
    }
    return 0;
}
} // namespace

TEST(SongFile, ContentSniffingMatchesAPlainBlockByBlockReading)
{
    TempDir dir;
    QRandomGenerator rng(11);
    int seen[3] = {};
    for (int n = 0; n < 60; ++n) {
        QByteArray file(4096 * rng.bounded(1, 40) + rng.bounded(4096), '\0');
        // Some files without a single sync byte, so that only the atom names can decide.
        const bool withSyncs = n % 3 != 0;
        for (qsizetype i = 0; i < file.size(); ++i)
            file[i] = char(withSyncs && rng.bounded(4) == 0 ? 0xFF : rng.bounded(255));
        // Sync patterns at a chosen density, and atom names near block edges.
        const int step = 150 + rng.bounded(900);
        for (qsizetype i = rng.bounded(step); withSyncs && i + 3 < file.size(); i += step)
            file.replace(i, 3, QByteArray("\xFF\xFB\x90", 3));
        for (const char *word : {"moov", "udta", "mdia"}) {
            if (!withSyncs || rng.bounded(4)) {
                const qsizetype at = 4096 * rng.bounded(qint64(file.size() / 4096)) + 4088 + rng.bounded(6);
                if (at + 4 <= file.size())
                    file.replace(at, 4, word);
            }
        }
        if (rng.bounded(3) == 0) // a tag header in front
            file.replace(0, 10, QByteArray("ID3\x03\x00\x00\x00\x00", 8) + char(rng.bounded(128)) + char(rng.bounded(128)));
        const int expected = referenceDataType(file);
        ++seen[expected];
        EXPECT_EQ(SongFile::songDataTypeAtPath(dir.write(QStringLiteral("f%1").arg(n), file)), expected) << "file " << n;
    }
    EXPECT_GT(seen[0] * seen[1] * seen[2], 0) << "the generated files should give every answer";
}
