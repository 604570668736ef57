// The song info cache: host files, validity by modification date, write-behind, threads, and
// listing a known folder without opening its songs.
#include "app/SongCollector.h"
#include "cache/CachedInfoTag.h"
#include "cache/FHCompressionExtensions.h"
#include "cache/SongFileInfoCache.h"
#include "common/FileReader.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <gtest/gtest.h>
#include <thread>

using namespace TestSupport;

namespace {
// Lets the event loop run for a while, so that write-behind timers can fire.
void runEventsFor(int milliseconds) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

QString songFile(const TempDir &dir, const QString &relative, const QString &title) {
    QDir().mkpath(QFileInfo(dir.file(relative)).path());
    return dir.write(relative, id3v2Tag(3, textFrame23("TIT2", title.toLatin1()), 10) + mpegAudio(60));
}

QVariantMap record(const QString &path) {
    std::shared_ptr<AudioInfoTag> tag = AudioInfoTag::tagWithPath(path);
    return tag ? CachedInfoTag::infoDictForTag(*tag, path) : QVariantMap();
}
} // namespace

TEST(SongFileInfoCache, HostKeysAndFiles) {
    quint32 a = 0, b = 0;
    ASSERT_TRUE(SongFileInfoCache::keyNumberForPath("/x/Rock/one.mp3", &a));
    ASSERT_TRUE(SongFileInfoCache::keyNumberForPath("/yy/Rock/two.mp3", &b));
    EXPECT_EQ(a, b) << "folders ending in the same four characters share a host";
    EXPECT_EQ(a, quint32('R') * (1u << 21) + quint32('o') * (1u << 14) + quint32('c') * (1u << 7) +
                     quint32('k'));
    quint32 none = 0;
    EXPECT_FALSE(SongFileInfoCache::keyNumberForPath("/Mu/song.mp3", &none))
        << "folder paths under 5 characters";
    SongFileInfoCache cache("/base");
    EXPECT_EQ(cache.pathForKeyNumber(0x1A2B3C4D), "/base/04/13/1a2b3c4d.cache");
}

TEST(SongFileInfoCache, RecordsAreValidWhileTheFileIsUnchanged) {
    TempDir dir;
    const QString song = songFile(dir, "Music/Rock/a.mp3", "First");
    SongFileInfoCache cache(dir.file("cache"));
    EXPECT_TRUE(cache.infoForSongFileAtPath(song).isEmpty());
    cache.storeInfo(record(song), song);
    EXPECT_EQ(cache.infoForSongFileAtPath(song).value(CachedInfoTitle).toString(), "First");

    QFile f(song);
    ASSERT_TRUE(f.open(QIODevice::ReadWrite));
    f.setFileTime(QDateTime::currentDateTimeUtc().addSecs(-100), QFileDevice::FileModificationTime);
    f.close();
    EXPECT_TRUE(cache.infoForSongFileAtPath(song).isEmpty()) << "a touched file's record is invalid at once";

    const QString shallow = dir.write("x.mp3", mpegAudio(10));
    if (dir.path().size() < 5) {
        cache.storeInfo(record(shallow), shallow);
        EXPECT_TRUE(cache.infoForSongFileAtPath(shallow).isEmpty());
    }
}

TEST(SongFileInfoCache, SongsInFoldersWithTheSameEndingShareAHostFile) {
    TempDir dir;
    const QString one = songFile(dir, "x/Rock/a.mp3", "One");
    const QString two = songFile(dir, "yy/Rock/b.mp3", "Two");
    {
        SongFileInfoCache cache(dir.file("cache"));
        cache.storeInfo(record(one), one);
        cache.storeInfo(record(two), two);
        cache.detach();
        EXPECT_EQ(cache.hostFilesWritten(), 1);
    }
    SongFileInfoCache reread(dir.file("cache"));
    EXPECT_EQ(reread.infoForSongFileAtPath(one).value(CachedInfoTitle).toString(), "One");
    EXPECT_EQ(reread.infoForSongFileAtPath(two).value(CachedInfoTitle).toString(), "Two");
    EXPECT_EQ(QDir(dir.file("cache")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 1);
}

TEST(SongFileInfoCache, BurstsOfStoresAreWrittenOneHostPerTick) {
    TempDir dir;
    SongFileInfoCache cache(dir.file("cache"));
    QStringList songs;
    for (const char *folder : {"aaaaa", "bbbbb", "ccccc"})
        for (int i = 0; i < 4; ++i)
            songs.append(songFile(dir, QStringLiteral("%1/s%2.mp3").arg(folder).arg(i), "T"));
    for (const QString &s : songs)
        cache.storeInfo(record(s), s);
    EXPECT_EQ(cache.hostFilesWritten(), 0) << "nothing is written while the stores go on";
    // Each timer tick writes one host file and schedules the next.
    for (int written = 1; written <= 3; ++written) {
        for (int i = 0; i < 40 && cache.hostFilesWritten() < written; ++i)
            runEventsFor(25);
        EXPECT_EQ(cache.hostFilesWritten(), written);
    }
    EXPECT_FALSE(cache.isDirty());
}

TEST(SongFileInfoCache, CorruptHostFilesAreTakenAsEmptyAndOverwritten) {
    TempDir dir;
    const QString song = songFile(dir, "Music/Jazz/a.mp3", "T");
    SongFileInfoCache probe(dir.file("cache"));
    quint32 key = 0;
    SongFileInfoCache::keyNumberForPath(song, &key);
    const QString host = probe.pathForKeyNumber(key);
    QDir().mkpath(QFileInfo(host).path());
    QFile junk(host);
    junk.open(QIODevice::WriteOnly);
    junk.write("this is no property list");
    junk.close();
    SongFileInfoCache cache(dir.file("cache"));
    EXPECT_TRUE(cache.infoForSongFileAtPath(song).isEmpty());
    cache.storeInfo(record(song), song);
    cache.detach();
    EXPECT_FALSE(SongFileInfoCache(dir.file("cache")).infoForSongFileAtPath(song).isEmpty());
}

TEST(SongFileInfoCache, StoresFromTwoThreadsLoseNothing) {
    TempDir dir;
    QStringList songs;
    for (int i = 0; i < 40; ++i)
        songs.append(songFile(dir, QStringLiteral("folder%1/s%2.mp3").arg(i % 4).arg(i),
                              QStringLiteral("T%1").arg(i)));
    QList<QVariantMap> records;
    for (const QString &s : songs)
        records.append(record(s));
    {
        SongFileInfoCache cache(dir.file("cache"));
        auto worker = [&](int parity) {
            for (int round = 0; round < 25; ++round)
                for (int i = parity; i < songs.size(); i += 2)
                    cache.storeInfo(records[i], songs[i]);
        };
        std::thread a(worker, 0), b(worker, 1);
        // The main thread keeps reading and writing meanwhile.
        for (int i = 0; i < 200; ++i) {
            cache.infoForSongFileAtPath(songs[i % songs.size()]);
            if (i % 20 == 0) cache.writeSomeCacheToDisk();
        }
        a.join();
        b.join();
        QCoreApplication::processEvents();
        cache.detach();
        EXPECT_FALSE(cache.isDirty());
    }
    SongFileInfoCache reread(dir.file("cache"));
    for (int i = 0; i < songs.size(); ++i)
        EXPECT_EQ(reread.infoForSongFileAtPath(songs[i]).value(CachedInfoTitle).toString(),
                  QStringLiteral("T%1").arg(i));
}

TEST(SongFileInfoCache, ASecondListingOpensNoSongFile) {
    TempDir dir;
    for (int i = 0; i < 6; ++i)
        songFile(dir, QStringLiteral("Music/Album/%1.mp3").arg(i), QStringLiteral("Song %1").arg(i));
    dir.write("Music/Album/cover.jpg", QByteArray(300, 'j'));
    QString errors;
    QTextStream err(&errors);
    SongFileInfoCache cache(dir.file("cache"));
    const QList<SongFilePtr> first = SongCollector(err, &cache).collect({dir.file("Music")});
    cache.detach();
    ASSERT_EQ(first.size(), 6);

    SongFileInfoCache later(dir.file("cache"));
    const int opened = FileReader::openedCount();
    const QList<SongFilePtr> second = SongCollector(err, &later).collect({dir.file("Music")});
    ASSERT_EQ(second.size(), 6);
    for (const SongFilePtr &song : second)
        EXPECT_TRUE(song->infotag()->isLazy());
    EXPECT_EQ(second[3]->infotag()->title(), "Song 3");
    // The cover is not a song and is sniffed again; the six songs are not opened.
    EXPECT_EQ(FileReader::openedCount() - opened, 1);
}

TEST(CachedInfoTag, AnswersFromTheRecordAndRefusesChanges) {
    QVariantMap info{{CachedInfoModDate, QDateTime::currentDateTimeUtc()},
                     {CachedInfoTitle, "Title"},
                     {CachedInfoNumberOfArtworks, 2},
                     {CachedInfoIsCompilation, "y"},
                     {CachedInfoMetadata, QVariantMap{{AudioInfoTag::kMDItemDurationSeconds, 61.5}}}};
    std::shared_ptr<AudioInfoTag> tag = AudioInfoTag::tagWithCachedInfo(info);
    ASSERT_TRUE(tag);
    EXPECT_TRUE(tag->isLazy());
    EXPECT_EQ(tag->title(), "Title");
    EXPECT_TRUE(tag->artist().isNull());
    EXPECT_EQ(tag->numberOfImages(), 2);
    EXPECT_TRUE(tag->isPartOfCompilation());
    EXPECT_EQ(tag->formattedDuration(), "1:02");
    tag->setTitle("Other");
    EXPECT_EQ(tag->title(), "Title");
    EXPECT_FALSE(tag->addImage(ID3Image("x", "image/png")));
    EXPECT_FALSE(AudioInfoTag::tagWithCachedInfo({}));
}

TEST(Compression, GzipInMemory) {
    const QByteArray text = QByteArray("song info ").repeated(1000);
    const QByteArray packed = compressedData(text);
    EXPECT_TRUE(packed.startsWith("\x1F\x8B"));
    EXPECT_LT(packed.size(), text.size() / 10);
    EXPECT_EQ(decompressedData(packed), text);
    EXPECT_EQ(decompressedData("plain bytes"), "plain bytes") << "not gzip: passed through";
    EXPECT_TRUE(decompressedData(QByteArray()).isEmpty());
    EXPECT_EQ(decompressedData(compressedData("a") + compressedData("b")), "ab") << "members follow on";
    if (haveTool("gzip")) {
        TempDir dir;
        QByteArray out;
        run("gzip", {"-dc", dir.write("x.gz", packed)}, &out);
        EXPECT_EQ(out, text) << "gzip reads what we write";
        run("gzip", {"-kf", dir.write("y", text)});
        EXPECT_EQ(decompressedData(readAll(dir.file("y.gz"))), text) << "we read what gzip writes";
    }
}
