#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

// The first MPEG audio frame header behind a file's ID3v2 tag: version, layer, bit rate,
// sampling frequency and channel mode, a Xing header's frame count when the chosen frame
// carries one, and an estimate of the song's length.
//
// The estimates are the program's own and are kept as they are: the frame length used to hop
// from header to header takes the MPEG-1 factor 144000 for every version of Layers II and III,
// a Xing frame counts as 26 ms whatever its version and layer, and the Xing bit rate uses the
// factor 7952.
class MP3Header {
public:
    MP3Header() = default;

    // Drops the buffer and the hash and zeroes every number and flag.
    void releaseAttributes();
    // Looks for a header behind the first tagLength bytes of the file (0: no ID3v2 tag);
    // true when one was found and decoded.
    bool openFile(const QString &path, std::int64_t tagLength);
    // Scans the buffer for a header and makes it current; false when none qualifies.
    bool findHeader();
    // Decodes the 4 bytes at the current header; false only when they are not in the buffer.
    bool decodeHeader();

    std::uint64_t fileSize() const { return mFileSize; }
    int getSeconds() const { return mSeconds; }
    // 1 MPEG 1, 2 MPEG 2, 3 MPEG 2.5, 0 unknown.
    int getVersion() const { return mVersion; }
    // 1, 2, 3 for Layer I, II, III; 0 unknown.
    int getLayer() const { return mLayer; }
    // kbit/s; 0 for free format or unknown, -1 for the forbidden index.
    int getBitRate() const { return mBitRate; }
    int getFrequency() const { return mFrequency; }
    // 0 stereo, 1 joint stereo, 2 dual channel, 3 single channel.
    int getChannels() const { return mChannels; }
    int getNumberOfFrames() const { return mNumberOfFrames; }
    bool getXINGHeaderFound() const { return mXINGHeaderFound; }
    // The stored hash; null while the header lies too far into the buffer for 6144 bytes to follow.
    QByteArray getHash() const;

    QString getVersionString() const;
    QString getLayerString() const;
    QString getBitRateString() const;
    QString getFrequencyString() const;
    QString getChannelString() const;
    QString getSecondsString() const;
    QString getEncodingString() const;

    // The file offset of the current header.
    std::int64_t startFrameOffset() const { return mStartFrame; }

private:
    // Where the current header lies in the buffer, or -1 when it lies outside.
    qsizetype positionInBuffer() const;

    QByteArray mBuffer;
    QByteArray mHash; // nothing in the program fills it
    std::int64_t mStartFrame = 0;
    std::int64_t mBufferOffsetInFile = 0;
    std::uint64_t mFileSize = 0;
    int mVersion = 0;
    int mLayer = 0;
    int mBitRate = 0;
    int mFrequency = 0;
    int mChannels = 0;
    int mSeconds = 0;
    int mNumberOfFrames = 0;
    bool mXINGHeaderFound = false;
};
