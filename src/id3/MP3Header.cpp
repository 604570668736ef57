#include "MP3Header.h"

#include "common/FileReader.h"
#include "common/Log.h"

#include <algorithm>
#include <climits>

namespace {
constexpr std::int64_t kBufferSize = 8192;
// Audio shorter than this behind the tag is not looked at.
constexpr std::int64_t kMinimumAudioBytes = 16384;
// The second try starts this far behind the first.
constexpr std::int64_t kSecondTryStep = 8191;
// The scan stops before this position of the buffer.
constexpr qsizetype kScanEnd = 8190;
// Bytes that must follow the header in the buffer for the hash to count.
constexpr qsizetype kHashSpan = 6144;
// A search ends at this candidate when no Xing header ended it before.
constexpr int kEnoughCandidates = 5;

// Version bits 00, 01, 10, 11 of byte 1.
constexpr int kVersions[4] = {3, 0, 2, 1};
// Layer bits 00, 01, 10, 11 of byte 1.
constexpr int kLayers[4] = {0, 3, 2, 1};

// kbit/s by bit-rate index; index 0 is free format, index 15 forbidden.
constexpr int kBitRatesMPEG1[3][16] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, -1},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, -1},
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, -1},
};
constexpr int kBitRatesMPEG2[3][16] = {
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, -1},
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, -1},
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, -1},
};
// Hz by version (MPEG 1, 2, 2.5) and sampling index; index 3 is reserved.
constexpr int kFrequencies[3][4] = {
    {44100, 48000, 32000, 0},
    {22050, 24000, 16000, 0},
    {11025, 12000, 8000, 0},
};

inline bool isCandidate(const uchar *b) {
    return b[0] == 0xFF && (b[1] & 0xE0) == 0xE0 && (b[1] & 0x06) != 0 && (b[2] & 0xF0) != 0xF0 &&
           (b[2] & 0x0C) != 0x0C;
}

inline int clampToInt(std::int64_t v) {
    return int(std::clamp<std::int64_t>(v, INT_MIN, INT_MAX));
}
} // namespace

void MP3Header::releaseAttributes() {
    mBuffer = QByteArray();
    mHash = QByteArray();
    mStartFrame = 0;
    mBufferOffsetInFile = 0;
    mFileSize = 0;
    mVersion = 0;
    mLayer = 0;
    mBitRate = 0;
    mFrequency = 0;
    mChannels = 0;
    mSeconds = 0;
    mNumberOfFrames = 0;
    mXINGHeaderFound = false;
}

bool MP3Header::openFile(const QString &path, std::int64_t tagLength) {
    releaseAttributes();
    tagLength = std::max<std::int64_t>(tagLength, 0);
    mStartFrame = tagLength;
    mBufferOffsetInFile = tagLength;

    FileReader file(path);
    if (!file.isOpen()) {
        Log::console(QStringLiteral("Can not open file :%1").arg(path));
        return false;
    }
    mFileSize = std::uint64_t(file.size());
    if (file.size() < tagLength + kMinimumAudioBytes) {
        Log::console(QStringLiteral("MP3 header processor file %1 to short to process ").arg(path));
        return false;
    }
    const QString noData = QStringLiteral("MP3 header processor could not load data from file %1").arg(path);
    mBuffer = file.readAt(mBufferOffsetInFile, kBufferSize);
    if (mBuffer.isEmpty()) {
        Log::console(noData);
        return false;
    }
    if (!findHeader()) {
        mStartFrame += kSecondTryStep;
        mBufferOffsetInFile += kSecondTryStep;
        mBuffer = file.readAt(mBufferOffsetInFile, kBufferSize);
        if (mBuffer.isEmpty()) {
            Log::console(noData);
            return false;
        }
        if (!findHeader()) {
            Log::console(QStringLiteral("MP3 header processor could not find a valid MPEG header in frame on "
                                        "two seperate tries, file name: %1")
                             .arg(path));
            return false;
        }
    }
    decodeHeader();
    // Keep a whole buffer behind a header that lies deep in the one read.
    if (mStartFrame - mBufferOffsetInFile + kHashSpan > kBufferSize) {
        QByteArray again = file.readAt(mStartFrame, kBufferSize);
        if (!again.isEmpty()) {
            mBuffer = again;
            mBufferOffsetInFile = mStartFrame;
        }
    }
    return true;
}

bool MP3Header::findHeader() {
    const auto *b = reinterpret_cast<const uchar *>(mBuffer.constData());
    // A candidate needs its first three bytes inside the buffer.
    const qsizetype end = std::min<qsizetype>(kScanEnd, mBuffer.size() - 2);
    int candidates = 0;
    std::int64_t firstCandidate = -1;
    qsizetype i = 0;
    while (i < end) {
        if (!isCandidate(b + i)) {
            ++i;
            continue;
        }
        ++candidates;
        mStartFrame = mBufferOffsetInFile + i;
        if (candidates == 1) firstCandidate = mStartFrame;
        if (!decodeHeader()) {
            ++i;
            continue;
        }
        if (mXINGHeaderFound || candidates >= kEnoughCandidates) return true;
        if (mBitRate > 0 && mFrequency > 0) {
            const std::int64_t padding = (b[i + 2] >> 1) & 1;
            const std::int64_t length = mLayer == 1 ? (12000LL * mBitRate / mFrequency + padding) * 4
                                                    : 144000LL * mBitRate / mFrequency + padding;
            i += qsizetype(std::max<std::int64_t>(length, 1));
        } else {
            ++i;
        }
    }
    // Audio that starts at the very first byte of the file is not taken from a short run.
    if (candidates > 0 && firstCandidate >= 1) {
        mStartFrame = firstCandidate;
        return decodeHeader();
    }
    return false;
}

qsizetype MP3Header::positionInBuffer() const {
    const std::int64_t pos = mStartFrame - mBufferOffsetInFile;
    return pos >= 0 && pos < mBuffer.size() ? qsizetype(pos) : -1;
}

bool MP3Header::decodeHeader() {
    const qsizetype pos = positionInBuffer();
    if (pos < 0 || mBuffer.size() - pos < 4) return false;
    const auto *b = reinterpret_cast<const uchar *>(mBuffer.constData()) + pos;

    mVersion = kVersions[(b[1] >> 3) & 3];
    mLayer = kLayers[(b[1] >> 1) & 3];
    const int bitRateIndex = b[2] >> 4;
    const int frequencyIndex = (b[2] >> 2) & 3;
    if (mVersion != 0 && mLayer != 0)
        mBitRate = (mVersion == 1 ? kBitRatesMPEG1 : kBitRatesMPEG2)[mLayer - 1][bitRateIndex];
    else
        mBitRate = 0;
    mFrequency = mVersion != 0 ? kFrequencies[mVersion - 1][frequencyIndex] : 0;
    mChannels = b[3] >> 6;

    const std::int64_t audioBytes = std::int64_t(mFileSize) - mStartFrame;
    mSeconds = mBitRate >= 1 ? clampToInt(audioBytes * 8 / (std::int64_t(mBitRate) * 1000)) : 0;

    mXINGHeaderFound = false;
    mNumberOfFrames = 0;
    // Where the Xing header sits behind the frame header; the MPEG 2 and 2.5 places are the
    // program's own and are kept.
    const bool single = mChannels == 3;
    const qsizetype xing = mVersion == 1 ? (single ? 21 : 36) : (single ? 14 : 17);
    if (mBuffer.size() - pos >= xing + 12 && std::equal(b + xing, b + xing + 4, "Xing") &&
        (b[xing + 7] & 1)) {
        const qint32 count = qint32(quint32(b[xing + 8]) << 24 | quint32(b[xing + 9]) << 16 |
                                    quint32(b[xing + 10]) << 8 | quint32(b[xing + 11]));
        if (count >= 1) {
            mXINGHeaderFound = true;
            mNumberOfFrames = count;
            // 26 ms per frame, whatever the version and layer.
            mSeconds = clampToInt(std::int64_t(count) * 26 / 1000);
            mBitRate = clampToInt((audioBytes * 7952 / (std::int64_t(count) * 26) + 500) / 1000);
        }
    }
    return true;
}

QByteArray MP3Header::getHash() const {
    const std::int64_t pos = mStartFrame - mBufferOffsetInFile;
    if (pos + kHashSpan > kBufferSize) return {};
    return mHash;
}

QString MP3Header::getVersionString() const {
    switch (mVersion) {
    case 1:
        return QStringLiteral("MPEG 1");
    case 2:
        return QStringLiteral("MPEG 2");
    case 3:
        return QStringLiteral("MPEG 2.5");
    default:
        return QStringLiteral("UNKNOWN");
    }
}

QString MP3Header::getLayerString() const {
    switch (mLayer) {
    case 1:
        return QStringLiteral("Layer 1");
    case 2:
        return QStringLiteral("Layer 2");
    case 3:
        return QStringLiteral("Layer 3");
    default:
        return QStringLiteral("UNKNOWN");
    }
}

QString MP3Header::getBitRateString() const {
    return QStringLiteral("%1 kbps").arg(mBitRate);
}

QString MP3Header::getFrequencyString() const {
    // The part behind the comma is not zero-padded: 8000 Hz reads 8,0 kHz.
    return QStringLiteral("%1,%2 kHz").arg(mFrequency / 1000).arg(mFrequency % 1000);
}

QString MP3Header::getChannelString() const {
    switch (mChannels) {
    case 0:
        return QStringLiteral("Stereo");
    case 1:
        return QStringLiteral("Joined Stereo");
    case 2:
        return QStringLiteral("Dual Channel");
    case 3:
        return QStringLiteral("Single Channel");
    default:
        return QStringLiteral("UNKNOWN");
    }
}

QString MP3Header::getSecondsString() const {
    int rest = mSeconds;
    const int days = rest / 86400;
    rest %= 86400;
    const int hours = rest / 3600;
    rest %= 3600;
    const int minutes = rest / 60;
    const int seconds = rest % 60;
    const QString ss = QStringLiteral("%1").arg(seconds, 2, 10, QLatin1Char('0'));
    // Minutes behind hours are not zero-padded (1:5:07); only the seconds are.
    if (days != 0) return QStringLiteral("%1:%2:%3:%4").arg(days).arg(hours).arg(minutes).arg(ss);
    if (hours != 0) return QStringLiteral("%1:%2:%3").arg(hours).arg(minutes).arg(ss);
    if (minutes != 0) return QStringLiteral("%1:%2").arg(minutes).arg(ss);
    return QString::number(seconds);
}

QString MP3Header::getEncodingString() const {
    QString s;
    s.reserve(40);
    s += getVersionString() + QLatin1String(", ");
    s += getLayerString() + QLatin1String(", ");
    s += QString::number(mBitRate) + QLatin1String("bps, ");
    s += QString::number(mFrequency) + QLatin1String("Hz, ");
    s += getChannelString() + QLatin1Char('.');
    return s;
}
