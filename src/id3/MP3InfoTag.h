#pragma once

#include "id3/ID3Image.h"
#include "model/AudioInfoTag.h"

#include <QByteArray>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <variant>

// A lyrics or comment block: language, descriptor and text; a null field is absent.
struct TextBlock {
    QString lang;
    QString desc;
    QString text;
    bool operator==(const TextBlock &) const = default;
};

// What one frame of the list holds: the strings of a text frame, a lyrics block, a picture,
// or the raw bytes of a frame this program does not decode (for version 2.3/2.4 the two flag
// bytes come first).
using FrameObject = std::variant<QStringList, TextBlock, ID3Image, QByteArray>;

// A byte range in a file.
struct ByteRange {
    std::int64_t location = 0;
    std::int64_t length = 0;
};

// The tag of an MPEG audio file: ID3v2.2/2.3/2.4 at the front, ID3v1/1.1 at the end. Frames
// are kept in file order as a list of IDs and decoded contents.
class MP3InfoTag : public AudioInfoTag {
public:
    static const QString ImageFrameID; // "[image]"

    MP3InfoTag();
    ~MP3InfoTag() override;

    bool initWithPath(const QString &path) override;
    void gatherFileMetadataFromPath(const QString &path) override;
    QString encodingString() const { return mEncodingString; }

    QString title() const override { return firstStringForFrameID(u"TIT2", u"TT2"); }
    QString artist() const override { return firstStringForFrameID(u"TPE1", u"TP1"); }
    QString album() const override { return firstStringForFrameID(u"TALB", u"TAL"); }
    QString track() const override { return firstStringForFrameID(u"TRCK", u"TRK"); }
    QString year() const override { return firstStringForFrameID(u"TDRC", u"TYE"); }
    QString genres() const override { return firstStringForFrameID(u"TCON", u"TCO"); }
    QString bpm() const override { return firstStringForFrameID(u"TBPM", u"TBP"); }
    QString lyrics() const override;
    bool isPartOfCompilation() const override;
    void setTitle(const QString &v) override { setString(v, u"TT2", u"TIT2"); }
    void setArtist(const QString &v) override { setString(v, u"TP1", u"TPE1"); }
    void setAlbum(const QString &v) override { setString(v, u"TAL", u"TALB"); }
    void setYear(const QString &v) override { setString(v, u"TYE", u"TDRC"); }
    void setGenres(const QString &v) override { setString(v, u"TCO", u"TCON"); }
    void setTrack(const QString &v) override { setString(v, u"TRK", u"TRCK"); }
    void setBPM(const QString &v) override { setString(v, u"TBP", u"TBPM"); }
    void setLyrics(const QString &lyrics) override;
    void setIsPartOfCompilation(bool compilation) override;

    QString readVersion() const override { return mReadVersionString; }
    QString writeVersion() const override;
    bool modifySongFileAtPath(const QString &path, QString *error) override;
    // The complete tag bytes, header included.
    QByteArray dataForID3V23orV24(bool isV24) const;
    QByteArray dataForID3v22() const;
    // Frame sizes in version 2.4 tags: synchsafe when on, plain big-endian numbers when off.
    static void setWriteSynchSafeSizesInV24(bool on);
    static bool writeSynchSafeSizesInV24();
    void setReadVersion(const QString &version) { mReadVersionString = version; }
    ByteRange id3v1Range() const { return _id3v1Range; }
    ByteRange id3v2Range() const { return _id3v2Range; }

    QList<ID3Image> images() const override;
    int numberOfImages() const override;
    bool addImage(const ID3Image &image) override;
    bool removeImageAtIndex(int index) override;

    // The frame list.
    const QStringList &frameIDs() const { return mFrameIDs; }
    const QList<FrameObject> &frameObjects() const { return mFrameObjects; }
    const FrameObject *firstObjectForFrameID(QStringView id, QStringView orID = {}) const;
    QString firstStringForFrameID(QStringView id, QStringView orID = {}) const;
    void addObject(const FrameObject &object, const QString &frameID);
    void setObject(const FrameObject &object, const QString &frameID);
    void setStringForFrameID(const QString &string, const QString &frameID);
    void removeAllObjectsForFrameID(QStringView frameID);

    // ID3v1: decoding, and whether and how the values fit an ID3v1.1 tag.
    void getAttributesFromID3v1(const QByteArray &tag);
    bool canWriteID3v11WithoutLoss() const;
    QByteArray dataForID3v11() const;

    static const QSet<QString> &internalRecognizedFrameIDs();
    static const QSet<QString> &iTunesRecognizedFrameIDs();
    static const QSet<QString> &dangerousFrameIDs();

    // String readers shared with the picture and ID3v1 code. maxLength is in-out: the bytes
    // available in, the bytes consumed out.
    static quint32 getSynchSafeIntIn(const QByteArray &data, qsizetype offset);
    static QString id3v1StringIn(const QByteArray &data, qsizetype offset, qsizetype maxLength);
    static QString id3v22StringIn(const QByteArray &data, qsizetype offset, int encoding,
                                  qsizetype maxLength);
    static QString id3v23StringIn(const QByteArray &data, qsizetype offset, int encoding,
                                  qsizetype *maxLength);
    static QStringList id3v23StringsIn(const QByteArray &data, qsizetype location, qsizetype length);
    static std::optional<TextBlock> textBlockIn(const QByteArray &data, qsizetype location, qsizetype length);

private:
    void setString(const QString &value, QStringView v22ID, QStringView v24ID);
    bool readsVersion22() const { return mReadVersionString.startsWith(QLatin1String("2.2")); }
    void getAttributesFromID3v2(const QByteArray &tag);
    void getAttributesFromID3v2x(const QByteArray &tag, bool assumeSynchSafeSizes);
    void getAttributesFromID3v22(const QByteArray &tag);
    void readFile(const QString &path);

    QStringList mFrameIDs;
    QList<FrameObject> mFrameObjects;
    QString mReadVersionString;
    ByteRange _id3v1Range;
    ByteRange _id3v2Range;
    QString mEncodingString;
};
