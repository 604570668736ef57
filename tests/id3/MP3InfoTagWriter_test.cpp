// The ID3 writer: tag bytes for each version, and rewriting files without losing anything.
#include "id3/MP3InfoTag.h"
#include "model/SongFile.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace TestSupport;

namespace {
std::unique_ptr<MP3InfoTag> read(const QString &path) {
    auto tag = std::make_unique<MP3InfoTag>();
    return tag->initWithPath(path) ? std::move(tag) : nullptr;
}

class WriterSwitch : public ::testing::Test {
protected:
    void TearDown() override { MP3InfoTag::setWriteSynchSafeSizesInV24(false); }
};

QByteArray framesOf(const QByteArray &tag) {
    return tag.mid(10);
}
} // namespace

TEST_F(WriterSwitch, Version24FrameSizesFollowTheSwitch) {
    MP3InfoTag tag;
    tag.setReadVersion("2.4.0");
    tag.setAlbum(QString(200, 'a'));
    QByteArray bytes = tag.dataForID3V23orV24(true);
    EXPECT_EQ(bytes.left(5), QByteArray("ID3\x04\x00", 5));
    EXPECT_EQ(bytes.mid(14, 4), be32(202)) << "plain by default";
    EXPECT_EQ(bytes.mid(6, 4), synchsafe(quint32(bytes.size() - 10)))
        << "the header size is always synchsafe";
    MP3InfoTag::setWriteSynchSafeSizesInV24(true);
    bytes = tag.dataForID3V23orV24(true);
    EXPECT_EQ(bytes.mid(14, 4), synchsafe(202));
    EXPECT_EQ(tag.dataForID3V23orV24(false).mid(14, 4), be32(202)) << "version 2.3 is never synchsafe";
}

TEST(Writer, TextFramesAndEncodings) {
    MP3InfoTag tag;
    tag.setYear("1999");
    tag.setTitle(QStringLiteral(u"Ω"));
    tag.addObject(QStringList{"One"}, "TPE1");
    tag.addObject(QStringList{"Two"}, "TPE1");
    tag.addObject(QStringList{"TT2 is skipped"}, "TT2");
    const QByteArray frames = framesOf(tag.dataForID3V23orV24(false));
    EXPECT_EQ(frames, textFrame23("TYER", QByteArray("1999\0", 5)) +
                          frame23("TIT2", QByteArray("\x02\xFE\xFF\x03\xA9\x00\x00", 7)) +
                          textFrame23("TPE1", QByteArray("One\0", 4)) +
                          textFrame23("TPE1", QByteArray("Two\0", 4)));
    EXPECT_TRUE(framesOf(tag.dataForID3V23orV24(true)).startsWith("TDRC")) << "2.4 keeps TDRC";
}

TEST(Writer, LyricsRawFramesAndPictures) {
    MP3InfoTag tag;
    tag.setLyrics("Words");
    tag.addObject(QByteArray("\x00\x00payload", 9), "PRIV");
    tag.addImage(ID3Image("PNGDATA", "image/png"));
    ID3Image described("JPG", "image/jpeg");
    described.setPictureType(3);
    described.setPictureDescription("Front");
    tag.addImage(described);
    const QByteArray frames = framesOf(tag.dataForID3V23orV24(false));
    QByteArray expected = frame23("USLT", QByteArray("\0eng\0Words", 10)) + frame23("PRIV", "payload") +
                          frame23("APIC", QByteArray("\0image/png\0\0\0PNGDATA", 20)) +
                          frame23("APIC", QByteArray("\0image/jpeg\0\0\0JPG", 17));
    EXPECT_EQ(frames, expected) << "pictures go out as type 0 without description";

    MP3InfoTag unicode;
    unicode.setLyrics(QStringLiteral(u"Ä☃"));
    EXPECT_EQ(framesOf(unicode.dataForID3V23orV24(false)),
              frame23("USLT", QByteArray("\x02"
                                         "eng"
                                         "\xFE\xFF\x00\x00"
                                         "\xFE\xFF\x00\xC4\x26\x03",
                                         14)));
}

TEST(Writer, Version22Tags) {
    MP3InfoTag tag;
    tag.setReadVersion("2.2.0");
    tag.setTitle("Plain");
    tag.setArtist(QStringLiteral(u"Ω"));
    tag.setLyrics("Text");
    tag.addObject(QStringList{"never"}, "TIT2");
    tag.addObject(QByteArray("raw"), "TEN");
    tag.addImage(ID3Image("PNGDATA", "image/png"));
    tag.addImage(ID3Image("???", QString())); // no format: cannot be written as PIC
    const QByteArray bytes = tag.dataForID3v22();
    EXPECT_EQ(bytes.left(6), QByteArray("ID3\x02\x00\x00", 6));
    EXPECT_EQ(bytes.mid(10), frame22("TT2", QByteArray("\0Plain", 6)) +
                                 frame22("TP1", QByteArray("\x01\xFE\xFF\x03\xA9", 5)) +
                                 frame22("ULT", QByteArray("\0eng\0Text", 9)) + frame22("TEN", "raw") +
                                 frame22("PIC", QByteArray("\0PNG\0\0PNGDATA", 13)));
}

TEST(Writer, KeepsTheVersionItRead) {
    TempDir dir;
    const QByteArray audio = mpegAudio(60);
    const struct {
        const char *name;
        QByteArray front, back;
        const char *written;
    } rows[] = {
        {"v22.mp3", id3v2Tag(2, frame22("TT2", QByteArray("\0Old", 4)), 10), {}, "2.2.0"},
        {"v23.mp3", id3v2Tag(3, textFrame23("TIT2", "Old"), 10), {}, "2.3.0"},
        {"v24.mp3", id3v2Tag(4, textFrame23("TIT2", "Old"), 10), {}, "2.4.0"},
        {"v1.mp3", {}, id3v1Tag("Old", "Artist", "Album", "1999", 3, 17), "1.1"},
        {"none.mp3", {}, {}, "2.3.0"},
    };
    for (const auto &row : rows) {
        const QString path = dir.write(row.name, row.front + audio + row.back);
        auto tag = read(path);
        ASSERT_TRUE(tag) << row.name;
        tag->setTitle("New");
        EXPECT_EQ(tag->writeVersion(), row.written) << row.name;
        QString error;
        ASSERT_TRUE(tag->modifySongFileAtPath(path, &error)) << row.name << error.toStdString();
        EXPECT_FALSE(tag->tagHasBeenModified());
        auto back = read(path);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->title(), "New") << row.name;
        EXPECT_TRUE(back->readVersion().startsWith(QString::fromLatin1(row.written).left(3))) << row.name;
        const QByteArray written = readAll(path);
        EXPECT_EQ(written.mid(int(back->id3v2Range().length), audio.size()), audio)
            << row.name << ": audio intact";
        EXPECT_EQ(back->id3v1Range().length, QByteArray(row.back).isEmpty() ? 0 : 128) << row.name;
    }
}

TEST(Writer, ID3v1OnlyFilesThatNoLongerFitGetVersion23AndKeepTheirID3v1) {
    TempDir dir;
    const QByteArray audio = mpegAudio(60);
    const QString path = dir.write("v1.mp3", audio + id3v1Tag("Old", "Artist", "Album", "1999", 3, 17));
    auto tag = read(path);
    ASSERT_TRUE(tag);
    tag->setTitle(QStringLiteral(u"Ein sehr langer Titel, länger als dreißig"));
    EXPECT_EQ(tag->writeVersion(), "2.3.0");
    QString error;
    ASSERT_TRUE(tag->modifySongFileAtPath(path, &error));
    auto back = read(path);
    EXPECT_EQ(back->readVersion(), "2.3.0");
    EXPECT_EQ(back->title(), tag->title());
    EXPECT_EQ(back->id3v1Range().length, 128);
    const QByteArray v1 = readAll(path).right(128);
    EXPECT_EQ(v1.mid(3, 30), tag->title().toLatin1().left(30)) << "the ID3v1 tag is brought up to date";
    EXPECT_EQ(v1[126], 3);

    // Going back to values that fit: the file keeps the ID3v2 tag it now has.
    back->setTitle("Short");
    EXPECT_EQ(back->writeVersion(), "2.3.0");
}

TEST(Writer, FailuresLeaveTheFileUntouched) {
    TempDir dir;
    const QByteArray original = id3v2Tag(3, textFrame23("TIT2", "Old"), 10) + mpegAudio(60);
    const QString path = dir.write("song.mp3", original);
    auto tag = read(path);
    tag->setTitle("New");
    QString error;

    EXPECT_FALSE(tag->modifySongFileAtPath(dir.file("vanished.mp3"), &error));
    EXPECT_FALSE(error.isEmpty());
    EXPECT_NE(error, "ErrorCannotOpenForWrite") << "the key is replaced by its English text";

    if (::geteuid() != 0) {
        ::chmod(path.toLocal8Bit().constData(), 0444);
        EXPECT_FALSE(tag->modifySongFileAtPath(path, &error));
        EXPECT_EQ(readAll(path), original);
        ::chmod(path.toLocal8Bit().constData(), 0644);
        ::chmod(dir.path().toLocal8Bit().constData(), 0555);
        EXPECT_FALSE(tag->modifySongFileAtPath(path, &error)) << "a folder that refuses new files";
        ::chmod(dir.path().toLocal8Bit().constData(), 0755);
        EXPECT_EQ(readAll(path), original);
    }
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Hidden | QDir::Files), QStringList{"song.mp3"})
        << "no leftovers";
}

TEST(Writer, SavingKeepsPermissionsAndFollowsLinks) {
    TempDir dir;
    const QString path = dir.write("song.mp3", id3v2Tag(3, textFrame23("TIT2", "Old"), 10) + mpegAudio(60));
    ::chmod(path.toLocal8Bit().constData(), 0640);
    const QString link = dir.file("link.mp3");
    ASSERT_EQ(::symlink(path.toLocal8Bit().constData(), link.toLocal8Bit().constData()), 0);
    SongFilePtr song = SongFile::songWithPath(link);
    song->infotag()->setTitle("New");
    QString error;
    ASSERT_TRUE(song->writeToOriginalPath(&error, true)) << error.toStdString();
    EXPECT_TRUE(QFileInfo(link).isSymLink()) << "the link stays a link";
    EXPECT_EQ(read(path)->title(), "New");
    struct stat st;
    ::stat(path.toLocal8Bit().constData(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_TRUE(song->hasAlias());
    EXPECT_EQ(song->path(), link);
}

TEST(Writer, RemovingAVersion24Tag) {
    TempDir dir;
    const QByteArray audio = mpegAudio(20);
    const QString v24 = dir.write("v24.mp3", id3v2Tag(4, textFrame23("TIT2", "x"), 10) + audio);
    EXPECT_TRUE(SongFile::removeID3v2TagFromFileAtPath(v24));
    EXPECT_EQ(readAll(v24), audio);
    const QByteArray v23bytes = id3v2Tag(3, textFrame23("TIT2", "x"), 10) + audio;
    const QString v23 = dir.write("v23.mp3", v23bytes);
    EXPECT_FALSE(SongFile::removeID3v2TagFromFileAtPath(v23));
    EXPECT_EQ(readAll(v23), v23bytes);
    EXPECT_FALSE(SongFile::removeID3v2TagFromFileAtPath(dir.write("short.mp3", "ID3\x04")));
    EXPECT_FALSE(SongFile::removeID3v2TagFromFileAtPath(
        dir.write("bad.mp3", id3v2Tag(4, QByteArray(), 100).left(50))));
}
