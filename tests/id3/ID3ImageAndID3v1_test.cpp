// Pictures from APIC/PIC frames, and whether values fit into an ID3v1.1 tag.
#include "id3/ID3Image.h"
#include "id3/MP3InfoTag.h"

#include <gtest/gtest.h>

namespace {
QByteArray bytes(std::initializer_list<int> list) {
    QByteArray b;
    for (int v : list)
        b += char(v);
    return b;
}
} // namespace

TEST(ID3Image, ApicFrames) {
    const QByteArray png = bytes({0x89, 'P', 'N', 'G', 1, 2, 3});
    struct Row {
        const char *name;
        QByteArray content;
        QString mime;
        int type;
        QString description;
        QByteArray picture;
    } rows[] = {
        {"mime, no description",
         QByteArray(1, 0) + "image/png" + bytes({0, 3, 0}) + png,
         "image/png",
         3,
         {},
         png},
        {"mime and description",
         QByteArray(1, 0) + "image/jpeg" + bytes({0, 4}) + "Front" + bytes({0}) + "JPEGDATA", "image/jpeg", 4,
         "Front", "JPEGDATA"},
        {"utf16 description", bytes({1}) + "image/png" + bytes({0, 3, 0xFF, 0xFE, 'A', 0, 0, 0}) + png,
         "image/png", 3, "A", png},
        // A bare format name: the type byte is taken at the terminator, as the reader always has.
        {"bare format", QByteArray(1, 0) + "JPG" + bytes({0, 0}) + "DATA", "image/JPG", 0, {}, "DATA"},
        // An empty MIME type: the type is read at its terminator and the type byte becomes the
        // description; the picture bytes still come out whole.
        {"empty mime", bytes({0, 0, 3, 0}) + png, {}, 0, QString(QChar(3)), png},
    };
    for (const Row &row : rows) {
        const std::optional<ID3Image> image = ID3Image::imageWithID3v23Frame(row.content);
        ASSERT_TRUE(image) << row.name;
        EXPECT_EQ(image->mimeFormat(), row.mime.isNull() ? QStringLiteral("image/png") : row.mime)
            << row.name;
        EXPECT_EQ(image->pictureType(), row.type) << row.name;
        EXPECT_EQ(image->pictureDescription(), row.description) << row.name;
        EXPECT_EQ(image->imageData(), row.picture) << row.name;
    }
    EXPECT_FALSE(ID3Image::imageWithID3v23Frame(bytes({0, 0, 0})));
}

TEST(ID3Image, PicFramesAndFormats) {
    std::optional<ID3Image> pic =
        ID3Image::imageWithID3v22Frame(QByteArray(1, 0) + "PNG" + bytes({3, 0}) + "PNGDATA");
    ASSERT_TRUE(pic);
    EXPECT_EQ(pic->mimeFormat(), "image/png");
    EXPECT_EQ(pic->filenameSuffix(), "PNG");
    EXPECT_EQ(pic->imageData(), "PNGDATA");
    // With a description the picture starts at its terminator, which stays the first byte.
    pic =
        ID3Image::imageWithID3v22Frame(QByteArray(1, 0) + "JPG" + bytes({3}) + "Desc" + bytes({0}) + "DATA");
    ASSERT_TRUE(pic);
    EXPECT_EQ(pic->pictureDescription(), "Desc");
    EXPECT_EQ(pic->imageData(), QByteArray(1, 0) + "DATA");
    EXPECT_EQ(pic->filenameSuffix(), "JPG");
    EXPECT_FALSE(ID3Image::imageWithID3v22Frame(QByteArray(6, 0)));

    EXPECT_EQ(ID3Image(bytes({0x89, 'P', 'N', 'G'}), QString()).mimeFormat(), "image/png");
    EXPECT_EQ(ID3Image(bytes({0xE0, 0xFF, 0xD8, 0xFF}), QString()).mimeFormat(), "image/jpeg");
    // The historical detection does not see an ordinary JPEG start.
    EXPECT_TRUE(ID3Image(bytes({0xFF, 0xD8, 0xFF, 0xE0}), QString()).mimeFormat().isNull());
    EXPECT_EQ(ID3Image("x", "image/jpeg").filenameSuffix(), "JPG");
    EXPECT_TRUE(ID3Image().filenameSuffix().isNull());
}

TEST(ID3v1Writing, WhatFitsWithoutLoss) {
    auto fits = [](auto edit) {
        MP3InfoTag tag;
        tag.setTitle("Title");
        tag.setArtist("Artist");
        tag.setYear("1999");
        tag.setGenres("Rock");
        edit(tag);
        return tag.canWriteID3v11WithoutLoss();
    };
    EXPECT_TRUE(fits([](MP3InfoTag &) {}));
    EXPECT_TRUE(fits([](MP3InfoTag &t) { t.setTitle(QString(30, 'x')); }));
    EXPECT_FALSE(fits([](MP3InfoTag &t) { t.setTitle(QString(31, 'x')); }));
    EXPECT_FALSE(fits([](MP3InfoTag &t) { t.setYear("19999"); }));
    EXPECT_FALSE(fits([](MP3InfoTag &t) { t.setArtist(QStringLiteral(u"Чайковский")); }));
    EXPECT_TRUE(fits([](MP3InfoTag &t) { t.setArtist(QStringLiteral(u"Beyoncé")); }));
    EXPECT_FALSE(fits([](MP3InfoTag &t) { t.setTrack("3/12"); }));
    EXPECT_FALSE(fits([](MP3InfoTag &t) { t.setGenres("Rock/Pop"); }));
    EXPECT_FALSE(fits([](MP3InfoTag &t) { t.setGenres("Made Up"); }));
    EXPECT_FALSE(fits([](MP3InfoTag &t) { t.addImage(ID3Image("x", "image/png")); }));
    EXPECT_FALSE(fits([](MP3InfoTag &t) { t.addObject(QByteArray(10, 0), "COMM"); }));
    EXPECT_TRUE(fits([](MP3InfoTag &t) { t.setLyrics("Lyrics are dropped deliberately"); }));
}

TEST(ID3v1Writing, TagBytes) {
    MP3InfoTag tag;
    tag.setTitle(QString(31, 'x'));
    tag.setArtist(QStringLiteral(u"Beyoncé"));
    tag.setTrack("3/12");
    tag.setGenres("Rock/Pop");
    QByteArray v1 = tag.dataForID3v11();
    ASSERT_EQ(v1.size(), 128);
    EXPECT_TRUE(v1.startsWith("TAG"));
    EXPECT_EQ(v1.mid(3, 30), QByteArray(30, 'x'));
    EXPECT_EQ(v1.mid(33, 8), QByteArray("Beyonc\xE9\0", 8));
    EXPECT_EQ(v1[126], 0) << "no year, so no track";
    EXPECT_EQ(quint8(v1[127]), 17);

    tag.setYear("1999");
    tag.setGenres("Unknown");
    v1 = tag.dataForID3v11();
    EXPECT_EQ(v1.mid(93, 4), "1999");
    EXPECT_EQ(v1[125], 0);
    EXPECT_EQ(v1[126], 3);
    EXPECT_EQ(quint8(v1[127]), 255);
    tag.setAlbum(QStringLiteral(u"Ω 🎵"));
    EXPECT_EQ(tag.dataForID3v11().mid(63, 4), QByteArray("? ?\0", 4)) << "one mark per missing character";
    tag.setTrack("300");
    EXPECT_EQ(quint8(tag.dataForID3v11()[126]), 300 % 256) << "one byte wraps";
}
