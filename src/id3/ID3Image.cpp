#include "ID3Image.h"

#include "common/Log.h"
#include "id3/MP3InfoTag.h"

#include <cstring>

namespace {
inline int byteAt(const QByteArray &data, qsizetype i) {
    return (i >= 0 && i < data.size()) ? static_cast<unsigned char>(data[i]) : 0;
}
} // namespace

ID3Image::ID3Image(const QByteArray &data, const QString &mimeType)
    : mMimeFormat(mimeType)
    , mPictureData(data) {}

std::optional<ID3Image> ID3Image::imageWithID3v23Frame(const QByteArray &content) {
    const qsizetype n = content.size();
    if (n < 4) return std::nullopt;
    ID3Image image;
    image.mTextEncoding = byteAt(content, 0);
    qsizetype typePos;
    qsizetype descStart;
    if (byteAt(content, 1) != 0) {
        qsizetype i = content.indexOf('\0', 1);
        if (i < 0) i = n;
        const QString text = QString::fromLatin1(content.constData() + 1, i - 1);
        if (text.startsWith(QLatin1String("image/"))) {
            image.mMimeFormat = text;
            typePos = i + 1;
        } else {
            // A bare format name such as JPG, as some writers put it.
            image.mMimeFormat = QStringLiteral("image/") + text;
            typePos = i;
        }
    } else {
        typePos = 1;
    }
    descStart = typePos + 1;
    image.mPictureType = byteAt(content, typePos);

    qsizetype pictureStart = typePos + 2;
    if (byteAt(content, descStart) != 0) {
        qsizetype consumed = n - descStart;
        image.mDescription = MP3InfoTag::id3v23StringIn(content, descStart, image.mTextEncoding, &consumed);
        pictureStart = descStart + consumed;
    }
    if (pictureStart < n) image.mPictureData = content.mid(pictureStart);
    return image;
}

std::optional<ID3Image> ID3Image::imageWithID3v22Frame(const QByteArray &content) {
    const qsizetype n = content.size();
    if (n <= 6) {
        Log::console(QStringLiteral("initWithID3v22Frame insufficient data"));
        return std::nullopt;
    }
    ID3Image image;
    image.mTextEncoding = byteAt(content, 0);
    image.mMimeFormat = QStringLiteral("image/") + QString::fromLatin1(content.constData() + 1, 3).toLower();
    image.mPictureType = byteAt(content, 4);
    qsizetype pictureStart = 6;
    if (byteAt(content, 5) != 0) {
        const char *begin = content.constData() + 5;
        const void *zero = std::memchr(begin, 0, size_t(n - 5));
        const qsizetype len = zero ? static_cast<const char *>(zero) - begin : n - 5;
        image.mDescription = QString::fromLatin1(begin, len);
        // The picture starts at the description's terminator, which stays its first byte.
        const qsizetype z = content.indexOf('\0', 6);
        pictureStart = z < 0 ? n : z;
    }
    if (pictureStart < n) image.mPictureData = content.mid(pictureStart);
    return image;
}

QString ID3Image::mimeFormat() const {
    if (mMimeFormat.isNull()) mMimeFormat = autodetectMIMEFormat();
    return mMimeFormat;
}

QString ID3Image::autodetectMIMEFormat() const {
    if (mPictureData.isEmpty()) return {};
    if (mPictureData.size() >= 4 && mPictureData.mid(1, 3) == "PNG") return QStringLiteral("image/png");
    // The first four bytes as a little-endian number against FFD8FFE0: this matches the bytes
    // E0 FF D8 FF, which is how the detection has always behaved.
    if (mPictureData.size() >= 4) {
        const auto *b = reinterpret_cast<const unsigned char *>(mPictureData.constData());
        const quint32 le = quint32(b[0]) | quint32(b[1]) << 8 | quint32(b[2]) << 16 | quint32(b[3]) << 24;
        if (le == 0xFFD8FFE0u) return QStringLiteral("image/jpeg");
    }
    return {};
}

QString ID3Image::filenameSuffix() const {
    const QString mime = mimeFormat();
    if (mime.isNull()) return {};
    QString suffix = mime.mid(6);
    suffix.replace(QLatin1String("jpeg"), QLatin1String("jpg"));
    return suffix.toUpper();
}

QString ID3Image::description() const {
    return QStringLiteral("{enc=%1 type=%2 format='%3' suffix='%4' desc='%5' image=%6 bytes}")
        .arg(mTextEncoding)
        .arg(mPictureType)
        .arg(mimeFormat(), filenameSuffix(), mDescription)
        .arg(mPictureData.size());
}

bool ID3Image::operator==(const ID3Image &other) const {
    return mTextEncoding == other.mTextEncoding && mPictureType == other.mPictureType &&
           mimeFormat() == other.mimeFormat() && mDescription == other.mDescription &&
           mPictureData == other.mPictureData;
}

QDataStream &operator<<(QDataStream &out, const ID3Image &image) {
    out << image.mimeFormat() << image.mDescription << qint32(image.mTextEncoding)
        << qint32(image.mPictureType) << image.mPictureData;
    return out;
}

QDataStream &operator>>(QDataStream &in, ID3Image &image) {
    qint32 enc = 0, type = 0;
    in >> image.mMimeFormat >> image.mDescription >> enc >> type >> image.mPictureData;
    image.mTextEncoding = enc;
    image.mPictureType = type;
    return in;
}
