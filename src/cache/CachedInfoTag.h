#pragma once

#include "model/AudioInfoTag.h"

#include <QImage>
#include <QVariantMap>

// Keys of a song info record.
extern const QString CachedInfoModDate;
extern const QString CachedInfoTitle;
extern const QString CachedInfoArtist;
extern const QString CachedInfoAlbum;
extern const QString CachedInfoTrack;
extern const QString CachedInfoYear;
extern const QString CachedInfoGenre;
extern const QString CachedInfoBPM;
extern const QString CachedInfoLyrics;
extern const QString CachedInfoMetadata;
extern const QString CachedInfoNumberOfArtworks;
extern const QString CachedInfoIsCompilation;
extern const QString CachedInfoArtIcon;
extern const QString CachedInfoOrgTagType;

// A read-only tag answered from a song info record, so that a song can be listed without
// opening its file. Every change is refused with a console line.
class CachedInfoTag : public AudioInfoTag {
public:
    // A record of what the tag holds; nothing when the file's modification date cannot be read.
    static QVariantMap infoDictForTag(AudioInfoTag &tag, const QString &path);

    void setCachedInfo(const QVariantMap &info);
    QVariantMap cachedInfo() const { return mCachedInfo; }

    QString title() const override { return value(CachedInfoTitle); }
    QString artist() const override { return value(CachedInfoArtist); }
    QString album() const override { return value(CachedInfoAlbum); }
    QString track() const override { return value(CachedInfoTrack); }
    QString year() const override { return value(CachedInfoYear); }
    QString genres() const override { return value(CachedInfoGenre); }
    QString bpm() const override { return value(CachedInfoBPM); }
    QString lyrics() const override { return value(CachedInfoLyrics); }
    bool isPartOfCompilation() const override { return mCachedInfo.contains(CachedInfoIsCompilation); }
    int numberOfImages() const override { return mCachedInfo.value(CachedInfoNumberOfArtworks).toInt(); }
    // The stored icon, whatever size is asked for.
    QImage imageIconNoLargerThan(double, double) override;

    void setTitle(const QString &) override { whineAboutImmutability(); }
    void setArtist(const QString &) override { whineAboutImmutability(); }
    void setAlbum(const QString &) override { whineAboutImmutability(); }
    void setYear(const QString &) override { whineAboutImmutability(); }
    void setGenres(const QString &) override { whineAboutImmutability(); }
    void setTrack(const QString &) override { whineAboutImmutability(); }
    void setLyrics(const QString &) override { whineAboutImmutability(); }
    void setBPM(const QString &) override { whineAboutImmutability(); }
    void setIsPartOfCompilation(bool) override { whineAboutImmutability(); }
    bool addImage(const ID3Image &) override;
    bool removeImageAtIndex(int) override;
    QString description() const;

private:
    QString value(const QString &key) const;
    void whineAboutImmutability() const;

    QVariantMap mCachedInfo;
};
