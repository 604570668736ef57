// The ID3v2/ID3v1 reader on byte-built tags: what real files written by broken programs hold.
#include "id3/MP3InfoTag.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using namespace TestSupport;

namespace {

// Writes tag + audio (+ optional ID3v1) to a file and reads it back.
struct ReadResult {
    bool ok = false;
    std::unique_ptr<MP3InfoTag> tag;
};

ReadResult readTag(const QByteArray &front, const QByteArray &v1 = {}) {
    static TempDir dir;
    static int counter = 0;
    const QString path = dir.write(QStringLiteral("t%1.mp3").arg(++counter), front + mpegAudio(8) + v1);
    ReadResult r;
    r.tag = std::make_unique<MP3InfoTag>();
    r.ok = r.tag->initWithPath(path);
    return r;
}

QByteArray utf16le(const QString &s) {
    QByteArray b("\xFF\xFE", 2);
    for (QChar c : s) {
        b += char(c.unicode() & 0xFF);
        b += char(c.unicode() >> 8);
    }
    return b;
}

QByteArray utf16be(const QString &s, bool bom) {
    QByteArray b = bom ? QByteArray("\xFE\xFF", 2) : QByteArray();
    for (QChar c : s) {
        b += char(c.unicode() >> 8);
        b += char(c.unicode() & 0xFF);
    }
    return b;
}

class ReaderSwitches : public ::testing::Test {
protected:
    void TearDown() override {
        AudioInfoTag::setShouldDiscardMalformedInfo(false);
        AudioInfoTag::setShouldDiscardUnrecognizedInfo(false);
    }
};

} // namespace

// One row per text encoding case: the frame's bytes after the encoding byte, the title read.
struct TextCase {
    const char *name;
    quint8 encoding;
    QByteArray bytes;
    QString expected;
};

class TextEncodings : public ::testing::TestWithParam<TextCase> {};

TEST_P(TextEncodings, TitleIsDecoded) {
    const TextCase &c = GetParam();
    ReadResult r = readTag(id3v2Tag(3, textFrame23("TIT2", c.bytes, c.encoding), 20));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->title(), c.expected) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Reader, TextEncodings,
    ::testing::Values(
        TextCase{"latin1", 0, QByteArray("Caf\xE9"), QStringLiteral(u"Café")},
        TextCase{"latin1 terminated", 0, QByteArray("Song\0", 5), QStringLiteral("Song")},
        TextCase{"utf16 with little-endian mark", 1, utf16le(QStringLiteral(u"Ελλάδα")) + QByteArray(2, 0),
                 QStringLiteral(u"Ελλάδα")},
        TextCase{"utf16 with big-endian mark", 1, utf16be(QStringLiteral(u"日本"), true),
                 QStringLiteral(u"日本")},
        TextCase{"utf16be without mark", 2, utf16be(QStringLiteral(u"Zoë"), false), QStringLiteral(u"Zoë")},
        TextCase{"utf8", 3, QStringLiteral(u"Ünïcödé ♫").toUtf8(), QStringLiteral(u"Ünïcödé ♫")},
        TextCase{"encoding 5 read as latin1", 5, QByteArray("Plain"), QStringLiteral("Plain")},
        // No encoding byte at all: the text starts with the byte that stands there.
        TextCase{"missing encoding byte", 0x41, QByteArray("BC"), QStringLiteral("ABC")}),
    [](const auto &info) {
        std::string n = info.param.name;
        for (char &ch : n)
            if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return n;
    });

TEST(Reader, SeveralStringsInOneFrameAreKeptAndTheFirstAnswers) {
    ReadResult r = readTag(id3v2Tag(4, textFrame23("TPE1", QByteArray("One\0Two\0Three", 13), 0), 10));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->artist(), "One");
    const FrameObject *o = r.tag->firstObjectForFrameID(u"TPE1");
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(std::get<QStringList>(*o), (QStringList{"One", "Two", "Three"}));
}

TEST(Reader, FieldRulesForYearTrackGenreAndRepeats) {
    QByteArray body = textFrame23("TYER", "99") + textFrame23("TRCK", "0/12") +
                      textFrame23("TCON", "(17)Rock") + textFrame23("TPE1", "First") +
                      textFrame23("TPE1", "Second") + textFrame23("TBPM", "120") + textFrame23("TCMP", "1");
    ReadResult r = readTag(id3v2Tag(3, body, 30));
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.tag->year().isNull()) << "a year of 99 is dropped";
    EXPECT_TRUE(r.tag->track().isNull()) << "track 0/12 is dropped";
    EXPECT_EQ(r.tag->genres(), "Rock");
    EXPECT_EQ(r.tag->artist(), "First");
    EXPECT_EQ(r.tag->frameIDs().count("TPE1"), 2) << "repeated frames are all kept";
    EXPECT_EQ(r.tag->bpm(), "120");
    EXPECT_TRUE(r.tag->isPartOfCompilation());
    EXPECT_EQ(r.tag->readVersion(), "2.3.0");

    r = readTag(id3v2Tag(
        3, textFrame23("TYER", "1999") + textFrame23("TRCK", "3/12") + textFrame23("TCON", "(17)"), 5));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->year(), "1999");
    EXPECT_TRUE(r.tag->frameIDs().contains("TDRC")) << "TYER is kept under TDRC";
    EXPECT_FALSE(r.tag->frameIDs().contains("TYER"));
    EXPECT_EQ(r.tag->track(), "3/12");
    EXPECT_EQ(r.tag->trackNumber(), 3);
    EXPECT_EQ(r.tag->numberOfTracksOnAlbum(), 12);
    EXPECT_EQ(r.tag->genres(), "Rock");
}

TEST(Reader, FrameSizeIsChosenByWhereTheNextFrameStands) {
    // 00 00 02 01 reads 513 plain and 257 synchsafe.
    const QByteArray size("\x00\x00\x02\x01", 4);
    auto frameWithContent = [&](int contentLength) {
        QByteArray f("TXXX");
        f += size;
        f += QByteArray(2, 0);
        f += QByteArray(contentLength, 'x');
        return f;
    };
    const QByteArray next = textFrame23("TIT2", "After");
    for (int version : {3, 4}) {
        // Only the synchsafe reading lands on the next frame.
        ReadResult r = readTag(id3v2Tag(version, frameWithContent(257) + next, 40));
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.tag->title(), "After") << "synchsafe size, version " << version;
        EXPECT_FALSE(r.tag->encounteredProblemDecoding());
        // Only the plain reading lands on the next frame.
        r = readTag(id3v2Tag(version, frameWithContent(513) + next, 40));
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.tag->title(), "After") << "plain size, version " << version;
        EXPECT_EQ(std::get<QByteArray>(*r.tag->firstObjectForFrameID(u"TXXX")).size(), 515);
    }
    // Both land on something that looks like a frame ID: the plain size wins, in 2.4 too.
    QByteArray both = frameWithContent(257) + textFrame23("TALB", QByteArray(513 - 257 - 10 - 1, 'a')) + next;
    ReadResult r = readTag(id3v2Tag(4, both, 40));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(std::get<QByteArray>(*r.tag->firstObjectForFrameID(u"TXXX")).size(), 515);
    EXPECT_TRUE(r.tag->album().isNull()) << "the album frame lies inside the plain-sized frame";
    EXPECT_EQ(r.tag->title(), "After");
}

TEST_F(ReaderSwitches, ImplausibleSizeTakesTheRestUnlessMalformedDataIsDiscarded) {
    QByteArray broken("TXXX");
    broken += QByteArray("\x00\x00\x09\x99", 4); // neither reading fits
    broken += QByteArray(2, 0) + QByteArray(300, 'z');
    const QByteArray tag = id3v2Tag(3, textFrame23("TIT2", "Before") + broken, 0);
    ReadResult r = readTag(tag);
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.tag->encounteredProblemDecoding());
    EXPECT_EQ(r.tag->frameIDs(), (QStringList{"TIT2", "TXXX"}));

    AudioInfoTag::setShouldDiscardMalformedInfo(true);
    r = readTag(tag);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->frameIDs(), QStringList{"TIT2"});
}

TEST_F(ReaderSwitches, UnrecognizedFramesAreKeptRawOrDroppedOnRequest) {
    const QByteArray body =
        textFrame23("TIT2", "T") + frame23("PRIV", "owner\0data") + frame23("COMM", "\0engx\0c");
    ReadResult r = readTag(id3v2Tag(3, body, 10));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->frameIDs(), (QStringList{"TIT2", "PRIV", "COMM"}));
    // Raw frames keep their two flag bytes in front.
    EXPECT_EQ(std::get<QByteArray>(*r.tag->firstObjectForFrameID(u"PRIV")), QByteArray(2, 0) + "owner");

    AudioInfoTag::setShouldDiscardUnrecognizedInfo(true);
    r = readTag(id3v2Tag(3, body, 10));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->frameIDs(), (QStringList{"TIT2", "COMM"})) << "COMM is one iTunes keeps";
}

TEST(Reader, HeaderFlagsAndFrameFlags) {
    // Extended header (size excluding its own 4 bytes), unsynchronisation flag, data length indicator.
    QByteArray ext = be32(6) + QByteArray(6, 0);
    QByteArray dli("TIT2");
    const QByteArray content = QByteArray(1, 0) + "Indicated";
    dli += be32(quint32(content.size()));
    dli += char(0);
    dli += char(0x01);
    dli += synchsafe(quint32(content.size()));
    dli += content;
    ReadResult r = readTag(id3v2Tag(4, ext + dli + textFrame23("TALB", "Next"), 20, 0x80 | 0x40));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->title(), "Indicated");
    EXPECT_EQ(r.tag->album(), "Next");

    // An extended header claiming more than the tag holds is ignored and marks a problem.
    r = readTag(id3v2Tag(3, be32(100000) + textFrame23("TIT2", "x"), 10, 0x40));
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.tag->encounteredProblemDecoding());
}

TEST(Reader, PaddingAndOverrunEndTheWalk) {
    ReadResult r = readTag(id3v2Tag(3, QByteArray(4, 0) + textFrame23("TIT2", "Hidden"), 10));
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.tag->frameIDs().isEmpty());

    // A last frame whose size runs past the tag is not stored.
    QByteArray overrun("TALB");
    overrun += be32(50) + QByteArray(2, 0) + QByteArray(1, 0) + "short";
    r = readTag(id3v2Tag(3, textFrame23("TIT2", "Kept") + overrun, 0));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->title(), "Kept");
    EXPECT_TRUE(r.tag->album().isNull());
    EXPECT_TRUE(r.tag->encounteredProblemDecoding());
}

TEST(Reader, LyricsBlocks) {
    QByteArray uslt = QByteArray(1, 0) + "eng" + "Desc" + QByteArray(1, 0) + "Line one\nLine two";
    QByteArray usltUtf16 =
        QByteArray(1, 1) + "deu" + utf16le(QString()) + QByteArray(2, 0) + utf16le(QStringLiteral(u"Grüße"));
    ReadResult r = readTag(id3v2Tag(3, frame23("USLT", uslt) + frame23("USLT", usltUtf16), 10));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->lyrics(), "Line one\nLine two");
    const TextBlock first = std::get<TextBlock>(*r.tag->firstObjectForFrameID(u"USLT"));
    EXPECT_EQ(first.lang, "eng");
    EXPECT_EQ(first.desc, "Desc");
    EXPECT_EQ(std::get<TextBlock>(r.tag->frameObjects().at(1)).text, QStringLiteral(u"Grüße"));
    EXPECT_TRUE(std::get<TextBlock>(r.tag->frameObjects().at(1)).desc.isNull());

    // No text, or an encoding that does not exist: no block.
    r = readTag(id3v2Tag(3,
                         frame23("USLT", QByteArray(1, 0) + "engdesc" + QByteArray(1, 0)) +
                             frame23("USLT", QByteArray(1, 7) + "engdesc\0text"),
                         10));
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.tag->lyrics().isNull());
}

TEST(Reader, Version22Frames) {
    const QByteArray png("\x89PNG\r\n\x1a\nrest", 12);
    QByteArray body = frame22("TT2", QByteArray(1, 0) + "Old Title") +
                      frame22("TT2", QByteArray(1, 0) + "New Title") +
                      frame22("TP1", QByteArray(1, 1) + utf16le(QStringLiteral(u"Ärtist"))) +
                      frame22("TYE", QByteArray(1, 0) + "0999") + frame22("TRK", QByteArray(1, 0) + "4/9") +
                      frame22("TCO", QByteArray(1, 0) + "(17)") +
                      frame22("ULT", QByteArray(1, 0) + "eng" + QByteArray(1, 0) + "Words") +
                      frame22("PIC", QByteArray(1, 0) + "PNG" + char(3) + QByteArray(1, 0) + png) +
                      frame22("TEN", QByteArray(1, 0) + "Encoder");
    ReadResult r = readTag(id3v2Tag(2, body, 16));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->readVersion(), "2.2.0");
    EXPECT_EQ(r.tag->title(), "New Title") << "a repeated 2.2 frame replaces the earlier one";
    EXPECT_EQ(r.tag->artist(), QStringLiteral(u"Ärtist"));
    EXPECT_TRUE(r.tag->year().isNull());
    EXPECT_EQ(r.tag->track(), "4/9");
    EXPECT_EQ(r.tag->genres(), "Rock");
    EXPECT_EQ(r.tag->lyrics(), "Words");
    ASSERT_EQ(r.tag->images().size(), 1);
    EXPECT_EQ(r.tag->images()[0].mimeFormat(), "image/png");
    EXPECT_EQ(r.tag->images()[0].pictureType(), 3);
    EXPECT_EQ(r.tag->images()[0].imageData(), png);
    EXPECT_EQ(std::get<QByteArray>(*r.tag->firstObjectForFrameID(u"TEN")), QByteArray(1, 0) + "Encoder");
}

TEST(Reader, PicturesInVersion23) {
    const QByteArray jpeg("\xFF\xD8\xFF\xE0jpegdata", 12);
    QByteArray apic =
        QByteArray(1, 0) + "image/jpeg" + QByteArray(1, 0) + char(3) + "Cover" + QByteArray(1, 0) + jpeg;
    QByteArray apic2 =
        QByteArray(1, 0) + "image/png" + QByteArray(1, 0) + char(4) + QByteArray(1, 0) + "PNGBYTES";
    ReadResult r = readTag(id3v2Tag(3, frame23("APIC", apic) + frame23("APIC", apic2), 10));
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.tag->numberOfImages(), 2);
    EXPECT_EQ(r.tag->images()[0].imageData(), jpeg);
    EXPECT_EQ(r.tag->images()[0].pictureDescription(), "Cover");
    EXPECT_EQ(r.tag->images()[1].pictureType(), 4);
    EXPECT_EQ(r.tag->images()[1].imageData(), "PNGBYTES");
}

TEST(Reader, WhatMakesTheWholeFileUnreadable) {
    TempDir dir;
    MP3InfoTag tag;
    EXPECT_FALSE(tag.initWithPath(dir.write("tiny.mp3", QByteArray(100, 'x')))) << "files under 128 bytes";
    MP3InfoTag missing;
    EXPECT_FALSE(missing.initWithPath(dir.file("absent.mp3")));

    // Tag sizes that do not fit the file, or are 6 bytes or less.
    QByteArray huge("ID3\x03\x00\x00\x7F\x7F\x7F\x7F", 10);
    EXPECT_FALSE(readTag(huge).ok);
    EXPECT_FALSE(readTag(id3v2Tag(3, QByteArray(), 6)).ok);
    // A major version this reader does not know.
    EXPECT_FALSE(readTag(id3v2Tag(5, textFrame23("TIT2", "x"), 10)).ok);
    // A recognised frame of the wrong version has no handler here.
    EXPECT_FALSE(readTag(id3v2Tag(3, frame23("PIC ", QByteArray(10, 1)), 10)).ok);
    // A size byte with its top bit set means there is no ID3v2 tag at all.
    ReadResult r = readTag(QByteArray("ID3\x03\x00\x00\x00\x00\x80\x10", 10));
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.tag->readVersion().isNull());
}

TEST(Reader, ID3v1Tags) {
    ReadResult r = readTag({}, id3v1Tag("Title   ", "Art\xEFst", "Album", "1999", 7, 17, "A comment"));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->readVersion(), "1.1");
    EXPECT_EQ(r.tag->title(), "Title") << "trailing spaces go";
    EXPECT_EQ(r.tag->artist(), QStringLiteral(u"Artïst")) << "not UTF-8, so Latin-1";
    EXPECT_EQ(r.tag->year(), "1999");
    EXPECT_EQ(r.tag->track(), "7");
    EXPECT_EQ(r.tag->genres(), "Rock");
    EXPECT_EQ(std::get<QByteArray>(*r.tag->firstObjectForFrameID(u"COMM")),
              QByteArray("\0\0\0eng\0", 7) + "A comment");
    EXPECT_EQ(r.tag->id3v1Range().length, 128);

    r = readTag({}, id3v1Tag("T", "A", "B", "0999", 0, 255));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->readVersion(), "1.0") << "byte 126 of 0 is no track";
    EXPECT_TRUE(r.tag->year().isNull());
    EXPECT_TRUE(r.tag->track().isNull());
    EXPECT_TRUE(r.tag->genres().isNull());

    r = readTag({}, id3v1Tag("T", "A", "B", "1000", 3, 0));
    EXPECT_TRUE(r.tag->year().isNull()) << "ID3v1 years must be above 1000";
    EXPECT_EQ(r.tag->genres(), "Blues");

    // With an ID3v2 tag in front, the ID3v1 text is ignored but its place is known.
    r = readTag(id3v2Tag(3, textFrame23("TIT2", "From v2"), 10), id3v1Tag("From v1", "A", "B", "1999", 1, 1));
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.tag->readVersion(), "2.3.0");
    EXPECT_EQ(r.tag->title(), "From v2");
    EXPECT_TRUE(r.tag->artist().isNull());
    EXPECT_EQ(r.tag->id3v1Range().length, 128);
}
