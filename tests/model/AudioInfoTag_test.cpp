// The tag model's derived forms, genre vocabulary, factory paths and picture bookkeeping.
#include "app/PrefsController.h"
#include "id3/MP3InfoTag.h"
#include "model/AudioInfoTag.h"
#include "support/TestSupport.h"

#include <QBuffer>

#include <gtest/gtest.h>

using namespace TestSupport;

namespace {
std::unique_ptr<MP3InfoTag> tagWith(const QString &track = {}, const QString &artist = {}) {
    auto tag = std::make_unique<MP3InfoTag>();
    if (!track.isNull()) tag->setTrack(track);
    if (!artist.isNull()) tag->setArtist(artist);
    return tag;
}

// A tag whose audio properties are set from an iTunes record, to drive the duration forms.
std::shared_ptr<AudioInfoTag> tagWithDuration(double seconds) {
    QVariantMap info{{"Name", "x"}, {"Total Time", (seconds + 0.75) * 1000.0}};
    return AudioInfoTag::tagWithiTunesTrackInfo(info, QStringLiteral("/nowhere/x.mp3"));
}
} // namespace

TEST(TagModel, TrackNumberAndCount) {
    struct {
        const char *track;
        int number, count;
    } rows[] = {{"3/12", 3, 12}, {"3", 3, 3}, {"3/", 3, 3}, {"/12", 0, 12}, {"", 0, 0}, {" 7 / 9", 7, 9}};
    for (const auto &row : rows) {
        auto tag = tagWith(QString::fromLatin1(row.track));
        EXPECT_EQ(tag->trackNumber(), row.number) << row.track;
        EXPECT_EQ(tag->numberOfTracksOnAlbum(), row.count) << row.track;
    }
}

TEST(TagModel, ArtistForms) {
    struct {
        const char *artist, *reversed, *normalized;
    } rows[] = {
        {"John Smith", "Smith, John", "John Smith"},
        {"Cher", "Cher", "Cher"},
        {"John Smith ", ", John Smith", "John Smith "},
        {"Smith, John", "Smith, John", "John Smith"},
        {"Smith,John", "Smith,John", "John Smith"},
        {"Smith, John Jr.", "Smith, John Jr.", "John Smith Jr."},
    };
    for (const auto &row : rows) {
        auto tag = tagWith({}, QString::fromLatin1(row.artist));
        EXPECT_EQ(tag->reversedArtist(), QString::fromLatin1(row.reversed)) << row.artist;
        EXPECT_EQ(tag->normalizedArtist(), QString::fromLatin1(row.normalized)) << row.artist;
    }
    EXPECT_TRUE(tagWith()->reversedArtist().isNull());
}

TEST(TagModel, FormattedDuration) {
    EXPECT_EQ(tagWithDuration(59.2)->formattedDuration(), "1:00");
    EXPECT_EQ(tagWithDuration(5)->formattedDuration(), "0:05");
    EXPECT_EQ(tagWithDuration(187)->formattedDuration(), "3:07");
    EXPECT_EQ(tagWithDuration(3600)->formattedDuration(), "1:00:00");
    EXPECT_EQ(tagWithDuration(3723)->formattedDuration(), "1:02:03");
    EXPECT_TRUE(tagWithDuration(0)->formattedDuration().isNull());
    EXPECT_TRUE(tagWith()->formattedDuration().isNull());
    EXPECT_EQ(tagWith()->duration(), -1.0);
    EXPECT_EQ(tagWith()->bitrate(), -1);
    EXPECT_EQ(tagWith()->samplerate(), -1);
}

TEST(TagModel, GenreVocabulary) {
    EXPECT_EQ(AudioInfoTag::allGenres().size(), 192);
    EXPECT_EQ(AudioInfoTag::genreForIndex(0), "Blues");
    EXPECT_TRUE(AudioInfoTag::genreForIndex(-1).isNull());
    EXPECT_TRUE(AudioInfoTag::genreForIndex(192).isNull());
    EXPECT_EQ(AudioInfoTag::indexOfGenre("  rock\n"), 17);
    EXPECT_EQ(AudioInfoTag::indexOfGenre("Nonsense"), AudioInfoTag::NSNotFound);
    EXPECT_EQ(AudioInfoTag::indexOfGenre(QString()), AudioInfoTag::NSNotFound);
}

TEST(TagModel, ExpandedGenres) {
    struct {
        const char *in, *out;
    } rows[] = {
        {"(17)", "Rock"},
        {"(17)Rock", "Rock"},
        {"(17)(17)", "Rock"},
        {"(17)X", "RockX"},
        {"(abc)", "(abc)"},
        {"(0)", "Blues"},
        {"Rock/Rock/Pop", "Rock/Pop"},
        {"(13)(17)", "Pop/Rock"},
        {"(999)", "(999)"},
        {"()", "()"},
        {"Jazz", "Jazz"},
        {"(-1)", "(-1)"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(AudioInfoTag::expandedGenres(QString::fromLatin1(row.in)), QString::fromLatin1(row.out))
            << row.in;
    EXPECT_TRUE(AudioInfoTag::expandedGenres(QString()).isNull());
}

TEST(TagModel, StandardizedGenrePicksTheLongestVocabularyName) {
    EXPECT_TRUE(AudioInfoTag::standardizedGenreFrom("x").isNull());
    EXPECT_EQ(AudioInfoTag::standardizedGenreFrom("Progressive Rock"), "Progressive Rock");
    EXPECT_EQ(AudioInfoTag::standardizedGenreFrom("classic rock & roll"), "Classic Rock");
    EXPECT_TRUE(AudioInfoTag::standardizedGenreFrom("zzzz").isNull());
}

TEST(TagModel, TitleFromFileName) {
    struct {
        const char *path, *title;
    } rows[] = {
        {"/m/ Demo.mp3 ", "Demo"}, {"/m/Demo.flac", "Demo.flac"}, {"/m/a.mp3", "a"}, {"/m/.mp3", ".mp3"}};
    for (const auto &row : rows) {
        MP3InfoTag tag;
        tag.gatherTagsFromPathname(QString::fromLatin1(row.path));
        EXPECT_EQ(tag.title(), QString::fromLatin1(row.title)) << row.path;
    }
    MP3InfoTag titled;
    titled.setTitle("Kept");
    titled.gatherTagsFromPathname("/m/Other.mp3");
    EXPECT_EQ(titled.title(), "Kept");
}

TEST(TagModel, LazyTagFromiTunesRecord) {
    QVariantMap info{{"Name", "Song"},   {"Artist", "Band"},     {"Album", "Record"},
                     {"Genre", "Pop"},   {"Year", 2049},         {"Track Number", 5},
                     {"Track Count", 3}, {"Compilation", false}, {"Total Time", 200750},
                     {"Bit Rate", 192},  {"Sample Rate", 44100}, {"Artwork Count", 2}};
    auto tag = AudioInfoTag::tagWithiTunesTrackInfo(info, "/music/song.mp3");
    ASSERT_TRUE(tag);
    EXPECT_TRUE(tag->isLazy());
    EXPECT_FALSE(tag->tagHasBeenModified());
    EXPECT_EQ(tag->title(), "Song");
    EXPECT_EQ(tag->year(), "2049");
    EXPECT_EQ(tag->track(), "5") << "a number above the count is written alone";
    EXPECT_TRUE(tag->isPartOfCompilation()) << "the key's presence is what counts";
    EXPECT_EQ(tag->numberOfImages(), 2);
    EXPECT_DOUBLE_EQ(tag->duration(), 200.0);
    EXPECT_EQ(tag->bitrate(), 192);
    EXPECT_EQ(tag->samplerate(), 44100);

    info["Year"] = 2050;
    info["Track Count"] = 12;
    info.remove("Compilation");
    tag = AudioInfoTag::tagWithiTunesTrackInfo(info, "/music/song.mp3");
    EXPECT_TRUE(tag->year().isNull());
    EXPECT_EQ(tag->track(), "5/12");
    EXPECT_FALSE(tag->isPartOfCompilation());
    info["Year"] = 0;
    info["Track Count"] = 0;
    tag = AudioInfoTag::tagWithiTunesTrackInfo(info, "/music/song.mp3");
    EXPECT_TRUE(tag->year().isNull());
    EXPECT_EQ(tag->track(), "5");

    EXPECT_FALSE(AudioInfoTag::tagWithiTunesTrackInfo(info, QString()));
    EXPECT_FALSE(AudioInfoTag::tagWithiTunesTrackInfo(info, "/music/song.ogg"));
}

TEST(TagModel, SettersEditTheFrameListOfTheVersionRead) {
    MP3InfoTag tag;
    tag.setTitle("T");
    tag.setIsPartOfCompilation(true);
    tag.setLyrics("Words");
    EXPECT_TRUE(tag.tagHasBeenModified());
    EXPECT_EQ(tag.frameIDs(), (QStringList{"TIT2", "TCMP", "USLT"}));
    EXPECT_EQ(std::get<TextBlock>(*tag.firstObjectForFrameID(u"USLT")).lang, "eng");
    tag.setTitle("");
    tag.setIsPartOfCompilation(false);
    tag.setLyrics(QString());
    EXPECT_TRUE(tag.frameIDs().isEmpty());

    MP3InfoTag old;
    old.setReadVersion("2.2.0");
    old.setAlbum("A");
    old.setYear("1999");
    old.setLyrics("L");
    EXPECT_EQ(old.frameIDs(), (QStringList{"TAL", "TYE", "ULT"}));
    EXPECT_EQ(old.year(), "1999");
    EXPECT_EQ(old.lyrics(), "L");
}

TEST(TagModel, PicturesFromiTunesArtworkCacheFiles) {
    TempDir dir;
    const QByteArray png("\x89PNG\r\n\x1a\nimage", 13);
    auto artworkFile = [&](quint32 headerLength, const char *marker, int total) {
        QByteArray f = be32(headerLength);
        f += QByteArray(int(headerLength) + 44, 'h');
        f += QByteArray(marker, 4);
        f += QByteArray(8, 'p');
        f += png;
        f += QByteArray(std::max<int>(0, total - int(f.size())), 'z');
        return f;
    };
    MP3InfoTag tag;
    tag.addiTunesArtworkAtPath(dir.write("a.itc", artworkFile(200, "PNGf", 2000)));
    ASSERT_EQ(tag.numberOfImages(), 1);
    EXPECT_EQ(tag.images().size(), 0) << "iTunes artwork is counted but not part of the file's pictures";
    EXPECT_EQ(tag.AudioInfoTag::images()[0].mimeFormat(), "image/png");
    EXPECT_TRUE(tag.AudioInfoTag::images()[0].imageData().startsWith(png));

    MP3InfoTag jpeg;
    jpeg.addiTunesArtworkAtPath(dir.write("b.itc", artworkFile(200, "\0\0\0\x0D", 2000)));
    EXPECT_EQ(jpeg.AudioInfoTag::images()[0].mimeFormat(), "image/jpeg");

    MP3InfoTag none;
    none.addiTunesArtworkAtPath(dir.write("short.itc", QByteArray(1023, 'x')));
    none.addiTunesArtworkAtPath(dir.write("past.itc", artworkFile(1500, "PNGf", 2000)));
    EXPECT_EQ(none.numberOfImages(), 0);

    // Adding a picture moves the iTunes artwork into the tag first; removing drops iTunes' first.
    tag.addImage(ID3Image(png, "image/png"));
    EXPECT_EQ(tag.images().size(), 2);
    EXPECT_EQ(tag.numberOfImages(), 2);
    tag.removeAllImages();
    EXPECT_EQ(tag.numberOfImages(), 0);
}

TEST(TagModel, MatchStringLooksAtTheTextFields) {
    MP3InfoTag tag;
    tag.setTitle("Blue in Green");
    tag.setYear("1959");
    EXPECT_TRUE(tag.matchString("GREEN"));
    EXPECT_TRUE(tag.matchString("195"));
    EXPECT_FALSE(tag.matchString("Davis"));
}

TEST(TagModel, IconIsScaledToFitAndCached) {
    QImage source(100, 50, QImage::Format_RGB32);
    source.fill(Qt::red);
    QByteArray png;
    {
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        source.save(&buffer, "PNG");
    }
    MP3InfoTag tag;
    tag.addImage(ID3Image(png, "image/png"));
    const QImage icon = tag.imageIconNoLargerThan(29, 29);
    EXPECT_EQ(icon.width(), 28) << "odd sizes lose one";
    EXPECT_EQ(icon.height(), 14);
    EXPECT_EQ(tag.imageIconNoLargerThan(40, 40).width(), 28) << "a smaller cached icon is kept";
}
