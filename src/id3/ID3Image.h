#pragma once

#include <QByteArray>
#include <QDataStream>
#include <QString>

#include <optional>

// One picture carried in a tag: bytes, MIME type, ID3 picture type, text encoding and
// description. A value: copies share the picture bytes.
class ID3Image {
public:
    ID3Image() = default;
    ID3Image(const QByteArray &data, const QString &mimeType);

    static ID3Image imageWithData(const QByteArray &data, const QString &mimeType) {
        return {data, mimeType};
    }
    // From the content of an ID3v2.3/2.4 APIC frame or an ID3v2.2 PIC frame (header excluded);
    // nothing when the content is too short.
    static std::optional<ID3Image> imageWithID3v23Frame(const QByteArray &content);
    static std::optional<ID3Image> imageWithID3v22Frame(const QByteArray &content);

    const QByteArray &imageData() const { return mPictureData; }
    // The MIME type; when none was given, the one detected from the bytes, kept from then on.
    QString mimeFormat() const;
    QString autodetectMIMEFormat() const;
    QString filenameSuffix() const;
    QString pictureDescription() const { return mDescription; }
    int pictureType() const { return mPictureType; }
    int textEncoding() const { return mTextEncoding; }
    void setPictureType(int type) { mPictureType = type; }
    void setTextEncoding(int encoding) { mTextEncoding = encoding; }
    void setPictureDescription(const QString &description) { mDescription = description; }
    QString description() const;

    bool operator==(const ID3Image &other) const;

    friend QDataStream &operator<<(QDataStream &out, const ID3Image &image);
    friend QDataStream &operator>>(QDataStream &in, ID3Image &image);

private:
    int mTextEncoding = 0;
    int mPictureType = 0;
    mutable QString mMimeFormat;
    QString mDescription;
    QByteArray mPictureData;
};
