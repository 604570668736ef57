#pragma once

#include "id3/ID3Image.h"
#include "model/AudioInfoTag.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QVariantMap>

class Atom;
class FileReader;

// The tag of an MPEG-4 audio file: the iTunes-style item list in moov:udta:meta:ilst, its cover
// pictures, and the audio properties taken from the movie and sample-description atoms.
class AACInfoTag : public AudioInfoTag {
public:
    AACInfoTag();
    ~AACInfoTag() override;

    bool initWithPath(const QString &path) override;

    QString title() const override { return attribute("title"); }
    QString artist() const override { return attribute("artist"); }
    QString album() const override { return attribute("album"); }
    QString year() const override;
    QString genres() const override { return attribute("genre"); }
    QString lyrics() const override { return attribute("lyrics"); }
    QString bpm() const override { return attribute("bpm"); }
    QString track() const override { return attribute("track"); }
    bool isPartOfCompilation() const override;
    void setTitle(const QString &v) override { setString(v, "title"); }
    void setArtist(const QString &v) override { setString(v, "artist"); }
    void setAlbum(const QString &v) override { setString(v, "album"); }
    void setYear(const QString &v) override { setString(v, "year"); }
    void setGenres(const QString &v) override { setString(v, "genre"); }
    void setTrack(const QString &v) override { setString(v, "track"); }
    void setLyrics(const QString &v) override { setString(v, "lyrics"); }
    void setBPM(const QString &v) override { setString(v, "bpm"); }
    void setIsPartOfCompilation(bool compilation) override;
    QString readVersion() const override { return QStringLiteral("AAC"); }
    QString writeVersion() const override { return QStringLiteral("AAC"); }
    bool modifySongFileAtPath(const QString &path, QString *error) override;

    QList<ID3Image> images() const override;
    bool addImage(const ID3Image &image) override;
    bool removeImageAtIndex(int index) override;

    void gatherFileMetadataFromPath(const QString &path) override;
    QVariantMap attributes() const { return mAttribs; }
    QString description() const;
    // The file's atom tree as text, for a close look at a file.
    static QString atomTreeDescription(const QString &path);

    // Movie times count seconds from 1904-01-01 00:00:00 UTC.
    static bool setModifiedTime(const QDateTime &date, QByteArray &atomData);
    static bool adjustChunkOffsets(QByteArray &atomData, const FileReader &originalFile);

private:
    QString attribute(const char *key) const;
    void setString(const QString &value, const char *key);
    void getAttributesFromAACFile(const std::shared_ptr<FileReader> &file);
    bool writeItems(Atom &ilst) const;

    QVariantMap mAttribs;
    QList<ID3Image> mImages;
};
