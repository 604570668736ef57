// The MPEG audio frame header reader on byte-built frames, and real files made with lame
// checked against ffprobe.
#include "id3/MP3Header.h"
#include "id3/MP3InfoTag.h"
#include "support/TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <array>

using namespace TestSupport;

namespace {

QByteArray hdr(quint8 b1, quint8 b2, quint8 b3 = 0) {
    return QByteArray("\xFF", 1) + char(b1) + char(b2) + char(b3);
}
QByteArray zeros(qsizetype n) {
    return QByteArray(n, '\0');
}
QByteArray padTo(const QByteArray &b, qsizetype size) {
    return b + zeros(std::max<qsizetype>(0, size - b.size()));
}
QByteArray frame(const QByteArray &head, qsizetype spacing) {
    return padTo(head, spacing);
}
// A frame whose body ends in headers of another kind (MPEG 2.5 mono), the last cut to three
// bytes so it runs into the next frame: a hop of the wrong length lands among them.
QByteArray frameWithDecoys(const QByteArray &head, qsizetype spacing) {
    const QByteArray decoy = hdr(0xE3, 0x18, 0xC0);
    const qsizetype n = (spacing - 7) / 4;
    return head + zeros(spacing - 7 - n * 4) + decoy.repeated(n) + decoy.left(3);
}
QByteArray xingFrame(const QByteArray &head, int offset, quint32 count, quint8 flags = 1,
                     const char *name = "Xing") {
    QByteArray f = head + zeros(offset + 12);
    f.replace(offset, 4, QByteArray(name, 4));
    f[offset + 7] = char(flags);
    return f.replace(offset + 8, 4, be32(count));
}

struct Opened {
    bool ok = false;
    MP3Header h;
};
Opened openBytes(const QByteArray &bytes, std::int64_t tagLength = 0) {
    static TempDir dir;
    static int counter = 0;
    Opened o;
    o.ok = o.h.openFile(dir.write(QStringLiteral("h%1.mp3").arg(++counter), bytes), tagLength);
    return o;
}

} // namespace

TEST(MP3HeaderDecode, VersionsLayersRatesChannelsAndStrings) {
    // One header at byte 100, 200000 bytes (1600000 bits) from it to the end.
    const struct {
        quint8 b1, b2, b3;
        int seconds;
        const char *frequency, *encoding;
    } cases[] = {
        {0xFB, 0x90, 0x40, 12, "44,100 kHz", "MPEG 1, Layer 3, 128bps, 44100Hz, Joined Stereo."},
        {0xFD, 0xA4, 0xC0, 8, "48,0 kHz", "MPEG 1, Layer 2, 192bps, 48000Hz, Single Channel."},
        {0xFF, 0xE8, 0x80, 3, "32,0 kHz", "MPEG 1, Layer 1, 448bps, 32000Hz, Dual Channel."},
        {0xF3, 0x80, 0x00, 25, "22,50 kHz", "MPEG 2, Layer 3, 64bps, 22050Hz, Stereo."},
        {0xF7, 0xD4, 0x40, 7, "24,0 kHz", "MPEG 2, Layer 1, 224bps, 24000Hz, Joined Stereo."},
        {0xE3, 0x18, 0xC0, 200, "8,0 kHz", "MPEG 2.5, Layer 3, 8bps, 8000Hz, Single Channel."},
        {0xE5, 0xD0, 0x80, 11, "11,25 kHz", "MPEG 2.5, Layer 2, 144bps, 11025Hz, Dual Channel."},
        {0xFB, 0x04, 0x00, 0, "48,0 kHz", "MPEG 1, Layer 3, 0bps, 48000Hz, Stereo."}, // free format
        {0xEB, 0x90, 0x00, 0, "0,0 kHz", "UNKNOWN, Layer 3, 0bps, 0Hz, Stereo."},     // reserved version
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.encoding);
        const Opened o = openBytes(padTo(zeros(100) + hdr(c.b1, c.b2, c.b3), 200100));
        ASSERT_TRUE(o.ok);
        EXPECT_EQ(o.h.startFrameOffset(), 100);
        EXPECT_EQ(o.h.getSeconds(), c.seconds);
        EXPECT_EQ(o.h.getFrequencyString(), QLatin1String(c.frequency));
        EXPECT_EQ(o.h.getEncodingString(), QLatin1String(c.encoding));
    }
    Opened o = openBytes(padTo(zeros(100) + hdr(0xE3, 0x18, 0xC0), 20000));
    ASSERT_TRUE(o.ok);
    EXPECT_EQ((std::array{o.h.getVersion(), o.h.getLayer(), o.h.getBitRate(), o.h.getFrequency(),
                          o.h.getChannels()}),
              (std::array{3, 3, 8, 8000, 3}));
    EXPECT_EQ(o.h.getBitRateString(), "8 kbps");
    // A failed open leaves nothing of the previous file.
    EXPECT_FALSE(o.h.openFile(QStringLiteral("/nonexistent/song.mp3"), 0));
    EXPECT_EQ(o.h.getEncodingString(), "UNKNOWN, UNKNOWN, 0bps, 0Hz, Stereo.");
}

TEST(MP3HeaderSearch, HopsExactlyOneFrameAndTakesTheFifth) {
    const struct {
        const char *name;
        quint8 b1, b2;
        qsizetype spacing;
    } cases[] = {
        {"MPEG 1 Layer III", 0xFB, 0x90, 417},
        {"MPEG 1 Layer III padded", 0xFB, 0x92, 418},
        {"MPEG 1 Layer II", 0xFD, 0xA4, 576},
        {"MPEG 1 Layer I", 0xFF, 0x18, 48},
        {"MPEG 1 Layer I padded: a 4-byte slot", 0xFF, 0x1A, 52},
        // The MPEG-1 factor 144000 serves MPEG 2 and 2.5 too (twice their real frame length).
        {"MPEG 2 Layer III", 0xF3, 0x80, 417},
        {"MPEG 2.5 Layer II", 0xE5, 0x80, 835},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const QByteArray run = frameWithDecoys(hdr(c.b1, c.b2), c.spacing).repeated(7);
        const Opened o = openBytes(padTo(zeros(10) + run, 20000), 10);
        ASSERT_TRUE(o.ok);
        EXPECT_EQ(o.h.startFrameOffset(), 10 + 4 * c.spacing);
        EXPECT_EQ(o.h.getChannels(), 0) << "a decoy was taken";
    }
}

TEST(MP3HeaderSearch, CandidatesWindowsAndTagLength) {
    const QByteArray f = frame(hdr(0xFB, 0x90, 0x40), 417);
    const QByteArray lone = frame(hdr(0xFB, 0x50, 0x40), 417); // 64 kbit/s
    const struct {
        const char *name;
        QByteArray bytes;
        std::int64_t tagLength;
        std::int64_t start; // -1: no header
    } cases[] = {
        {"three frames at byte 0 are refused", padTo(f.repeated(3), 30000), 0, -1},
        {"three frames at byte 1 give the first", padTo(zeros(1) + f.repeated(3), 30000), 0, 1},
        {"five frames at byte 0 give the fifth", padTo(f.repeated(6), 30000), 0, 4 * 417},
        {"the search starts behind the tag", padTo(lone + zeros(600) + f.repeated(2), 30000), 1017, 1017},
        {"a run in the second window", padTo(zeros(9000) + f.repeated(6), 30000), 0, 9000 + 4 * 417},
        {"second window after a refused first", padTo(f.repeated(3) + zeros(9000) + lone, 30000), 0, 10251},
        {"nothing at all", zeros(30000), 0, -1},
        {"fourth byte behind the bytes read", padTo(zeros(8189) + hdr(0xFB, 0x90, 0x40), 16384), 0, -1},
        {"one byte short behind a tag", padTo(zeros(1001) + f, 17383), 1000, -1},
        {"16384 bytes behind a tag", padTo(zeros(1001) + f, 17384), 1000, 1001},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Opened o = openBytes(c.bytes, c.tagLength);
        ASSERT_EQ(o.ok, c.start >= 0);
        if (o.ok) EXPECT_EQ(o.h.startFrameOffset(), c.start);
    }
    for (const quint8 b2 : {0xF0, 0x9C}) // bit-rate index 15, sampling index 3
        EXPECT_FALSE(openBytes(padTo(zeros(100) + hdr(0xFB, b2), 30000)).ok);
    EXPECT_FALSE(openBytes(padTo(zeros(100) + hdr(0xF9, 0x90), 30000)).ok); // layer bits 00
}

TEST(MP3HeaderXing, PlaceFlagsAndCount) {
    const struct {
        const char *name;
        quint8 b1, b3;
        int offset;
        quint8 flags;
        quint32 count;
        const char *tag;
        int seconds; // 260 when found, else from 128 kbit/s (MPEG 1) or 80 kbit/s
    } cases[] = {
        {"MPEG 1 stereo at 36", 0xFB, 0x00, 36, 1, 10000, "Xing", 260},
        {"MPEG 1 single channel at 21", 0xFB, 0xC0, 21, 0x0F, 10000, "Xing", 260},
        {"MPEG 1 stereo not at 21", 0xFB, 0x00, 21, 1, 10000, "Xing", 12},
        {"MPEG 2 stereo at 17", 0xF3, 0x40, 17, 1, 10000, "Xing", 260},
        {"MPEG 2 single channel at 14", 0xF3, 0xC0, 14, 1, 10000, "Xing", 260},
        {"MPEG 2.5 dual channel at 17", 0xE3, 0x80, 17, 1, 10000, "Xing", 260},
        {"no frame count flag", 0xFB, 0x00, 36, 0x0E, 10000, "Xing", 12},
        {"frame count 0", 0xFB, 0x00, 36, 1, 0, "Xing", 12},
        {"an Info header", 0xFB, 0x00, 36, 1, 10000, "Info", 12},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const QByteArray f = xingFrame(hdr(c.b1, 0x90, c.b3), c.offset, c.count, c.flags, c.tag);
        const Opened o = openBytes(padTo(zeros(1) + f, 200001));
        ASSERT_TRUE(o.ok);
        EXPECT_EQ(o.h.getXINGHeaderFound(), c.seconds == 260);
        EXPECT_EQ(o.h.getNumberOfFrames(), c.seconds == 260 ? 10000 : 0);
        EXPECT_EQ(o.h.getSeconds(), c.seconds);
    }
}

TEST(MP3HeaderXing, EndsTheSearchSetsTheBitRateAndFormatsSeconds) {
    // 4,000,000 bytes in 10000 frames: 122 kbit/s by the program's 7952 factor (exactly 123).
    const QByteArray x = frame(xingFrame(hdr(0xFB, 0x90, 0x40), 36, 10000), 417);
    const Opened o = openBytes(padTo(zeros(1) + x + frame(hdr(0xFB, 0x90, 0x40), 417).repeated(8), 4000001));
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(o.h.startFrameOffset(), 1);
    EXPECT_EQ(o.h.getBitRate(), 122);
    EXPECT_EQ(o.h.getSecondsString(), "4:20");
    // count × 26 ms: 65 s, 3725 s, 1 day 1 hour 1 minute 1 second; minutes behind hours unpadded.
    for (const auto &[count, text] :
         {std::pair{193u, "5"}, {2500u, "1:05"}, {143270u, "1:2:05"}, {3463885u, "1:1:1:01"}}) {
        const Opened s = openBytes(padTo(zeros(1) + xingFrame(hdr(0xFB, 0x90), 36, count), 20000));
        ASSERT_TRUE(s.ok);
        EXPECT_EQ(s.h.getSecondsString(), QLatin1String(text)) << count;
    }
}

TEST(MP3HeaderSong, PropertiesFromTheHeaderOrNone) {
    // The PRIV frame holds bytes that read as a 64 kbit/s header: the search starts behind the tag.
    const QByteArray tag = id3v2Tag(3, frame23("PRIV", QByteArray("x", 2) + hdr(0xFB, 0x50)), 500);
    const struct {
        const char *name;
        QByteArray audio;
        double duration; // -1: unset
        const char *encoding;
    } cases[] = {
        {"CBR", padTo(hdr(0xFB, 0x90, 0x40), 4000000), 250,
         "MPEG 1, Layer 3, 128bps, 44100Hz, Joined Stereo."},
        {"too short", padTo(hdr(0xFB, 0x90), 3000), -1, nullptr},
        {"no header", zeros(30000), -1, nullptr},
        {"under a second at 320 kbps", padTo(hdr(0xFB, 0xE0), 30000), -1,
         "MPEG 1, Layer 3, 320bps, 44100Hz, Stereo."},
        {"free format", padTo(hdr(0xFB, 0x04), 30000), -1, "MPEG 1, Layer 3, 0bps, 48000Hz, Stereo."},
        {"reserved version", padTo(hdr(0xEB, 0x90), 30000), -1, "UNKNOWN, Layer 3, 0bps, 0Hz, Stereo."},
    };
    static TempDir dir;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const auto song = AudioInfoTag::tagWithPath(dir.write(QLatin1String(c.name) + ".mp3", tag + c.audio));
        ASSERT_TRUE(song);
        EXPECT_EQ(song->duration(), c.duration);
        EXPECT_EQ(song->bitrate(), c.duration > 0 ? 128 : -1);
        EXPECT_EQ(song->samplerate(), c.duration > 0 ? 44100 : -1);
        EXPECT_EQ(dynamic_cast<const MP3InfoTag &>(*song).encodingString(), QLatin1String(c.encoding));
    }
}

TEST(MP3HeaderRealFiles, LameEncodingsAgreeWithFfprobe) {
    if (!haveTool("ffmpeg") || !haveTool("ffprobe") || !haveTool("lame"))
        GTEST_SKIP() << "ffmpeg, ffprobe or lame missing";
    TempDir dir;
    const QString wav = dir.file("noise.wav");
    ASSERT_EQ(
        run("ffmpeg", {"-v", "error", "-f", "lavfi", "-i",
                       "anoisesrc=color=pink:amplitude=0.3:seed=7:duration=20,aformat=channel_layouts=stereo",
                       "-ar", "44100", "-c:a", "pcm_s16le", wav}),
        0);
    const struct {
        const char *name;
        QStringList lameArgs;
        const char *mode;
        int channels, cbrRate;
    } cases[] = {
        {"cbr", {"-b", "128", "-m", "s"}, " Stereo.", 2, 128},
        {"vbr", {"-V", "2"}, "Joined Stereo.", 2, 0},
        {"mpeg2mono", {"-b", "64", "-m", "m", "--resample", "22.05"}, "Single Channel.", 1, 64},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const QString mp3 = dir.file(QStringLiteral("%1.mp3").arg(QLatin1String(c.name)));
        ASSERT_EQ(run("lame", QStringList{"--quiet", "--pad-id3v2-size", "3000"} + c.lameArgs +
                                  QStringList{wav, mp3}),
                  0);
        QByteArray out;
        ASSERT_EQ(run("ffprobe",
                      {"-v", "error", "-show_entries", "format=duration,bit_rate", "-show_entries",
                       "stream=sample_rate,channels", "-of", "json", mp3},
                      &out),
                  0);
        const QJsonObject probe = QJsonDocument::fromJson(out).object();
        const QJsonObject format = probe["format"].toObject();
        const QJsonObject stream = probe["streams"].toArray().first().toObject();
        const double duration = format["duration"].toString().toDouble();
        ASSERT_GT(duration, 19.0);

        const auto song = AudioInfoTag::tagWithPath(mp3);
        ASSERT_TRUE(song);
        const auto &mp3Tag = dynamic_cast<const MP3InfoTag &>(*song);
        const std::int64_t tagLength = mp3Tag.id3v2Range().length;
        ASSERT_GT(tagLength, 3000);
        EXPECT_TRUE(mp3Tag.encodingString().endsWith(QLatin1String(c.mode)))
            << mp3Tag.encodingString().toStdString();
        EXPECT_EQ(stream["channels"].toInt(), c.channels);

        EXPECT_EQ(song->samplerate(), stream["sample_rate"].toString().toInt());
        // Whole seconds, and 26 ms a Xing frame: up to a second and a percent short.
        EXPECT_LE(song->duration(), duration + 0.01);
        EXPECT_GE(song->duration(), duration * 0.99 - 1.0);
        // ffprobe's rate counts the tag's bytes too.
        const double audioRate = (format["bit_rate"].toString().toDouble() - tagLength * 8 / duration) / 1000;
        EXPECT_NEAR(song->bitrate(), audioRate, audioRate * 0.02);
        if (c.cbrRate) EXPECT_EQ(song->bitrate(), c.cbrRate);
    }
}
