#pragma once

#include "id3/ID3Image.h"

#include <QByteArray>
#include <QDataStream>
#include <QImage>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <atomic>
#include <climits>
#include <memory>

// The tag of one song: text fields, pictures and audio properties. Concrete kinds read and
// write a file format; this base holds what they share and answers "nothing" for the fields.
// A null QString stands for an absent value.
class AudioInfoTag {
public:
    static constexpr int NSNotFound = INT_MAX;

    // Audio-property keys of metadata().
    static const QString kMDItemDurationSeconds;
    static const QString kMDItemAudioBitRate;
    static const QString kMDItemAudioSampleRate;

    AudioInfoTag();
    virtual ~AudioInfoTag();
    AudioInfoTag(const AudioInfoTag &) = delete;
    AudioInfoTag &operator=(const AudioInfoTag &) = delete;

    // The factory: picks the kind by content, then by name, and reads the file.
    static std::shared_ptr<AudioInfoTag> tagWithPath(const QString &path);
    // A lazy tag from an iTunes library track record; the file is not read.
    static std::shared_ptr<AudioInfoTag> tagWithiTunesTrackInfo(const QVariantMap &info, const QString &path);

    // A lazy, read-only tag from a song info record; nothing for an empty record.
    static std::shared_ptr<AudioInfoTag> tagWithCachedInfo(const QVariantMap &info);

    // Reads the file; false means no tag could be made (the factory then gives nothing).
    virtual bool initWithPath(const QString &path);

    virtual QString title() const { return {}; }
    virtual QString artist() const { return {}; }
    virtual QString album() const { return {}; }
    virtual QString year() const { return {}; }
    virtual QString genres() const { return {}; }
    virtual QString lyrics() const { return {}; }
    virtual QString bpm() const { return {}; }
    virtual QString track() const { return {}; }
    virtual void setTitle(const QString &) {}
    virtual void setArtist(const QString &) {}
    virtual void setAlbum(const QString &) {}
    virtual void setYear(const QString &) {}
    virtual void setGenres(const QString &) {}
    virtual void setTrack(const QString &) {}
    virtual void setLyrics(const QString &) {}
    virtual void setBPM(const QString &) {}
    virtual bool isPartOfCompilation() const { return false; }
    virtual void setIsPartOfCompilation(bool) {}
    virtual QString readVersion() const { return {}; }
    virtual QString writeVersion() const { return {}; }
    virtual bool modifySongFileAtPath(const QString &path, QString *error);

    virtual QList<ID3Image> images() const;
    virtual int numberOfImages() const;
    virtual bool addImage(const ID3Image &image);
    virtual bool removeImageAtIndex(int index);
    void removeAllImages();

    bool isLazy() const { return mLazy; }
    void setIsLazy(bool lazy);
    void setLazyNumberOfImages(int count) { mLazyNumberOfImages = count; }
    bool tagHasBeenModified() const { return tagModified; }
    void setTagHasBeenModified(bool modified) { tagModified = modified; }
    bool encounteredProblemDecoding() const { return mEncounteredProblemDecoding; }

    void setPlayList(const QString &playlist, int index);
    QString playlist() const { return _playlist; }
    int playlistIndex() const { return _playlist.isNull() ? NSNotFound : _playlistIndex; }

    QVariantMap metadata() const { return mMetadata; }
    double duration() const;
    int bitrate() const;
    int samplerate() const;

    int trackNumber() const;
    int numberOfTracksOnAlbum() const;
    QString reversedArtist() const;
    QString normalizedArtist() const;
    QString formattedDuration() const;
    bool matchString(const QString &text) const;
    virtual QImage imageIconNoLargerThan(double maxWidth, double maxHeight);

    void gatherTagsFromPathname(const QString &path);
    virtual void gatherFileMetadataFromPath(const QString &path);
    void gatherFileMetadataFromiTunesTrackInfo(const QVariantMap &info);
    void addiTunesArtworkAtPath(const QString &path);

    // The genre vocabulary of the live resources: a name's position is its ID3v1 number.
    static QStringList allGenres();
    static QString genreForIndex(int index);
    static int indexOfGenre(const QString &name);
    static QString standardizedGenreFrom(const QString &text);
    static QString expandedGenres(const QString &text);

    static bool shouldDiscardMalformedInfo() { return sDiscardMalformed.load(std::memory_order_relaxed); }
    static bool shouldDiscardUnrecognizedInfo() {
        return sDiscardUnrecognized.load(std::memory_order_relaxed);
    }
    static void setShouldDiscardMalformedInfo(bool on) {
        sDiscardMalformed.store(on, std::memory_order_relaxed);
    }
    static void setShouldDiscardUnrecognizedInfo(bool on) {
        sDiscardUnrecognized.store(on, std::memory_order_relaxed);
    }

    // Archiving of the playlist position and the modified flag.
    void encodeWithCoder(QDataStream &out) const;
    void initWithCoder(QDataStream &in);

protected:
    void setEncounteredProblemDecoding() { mEncounteredProblemDecoding = true; }
    void dropCachedIcon() { _cachedIcon = QImage(); }
    void setMetadata(const QVariantMap &metadata) { mMetadata = metadata; }
    // The pictures taken from iTunes' artwork cache; subclasses move them into their own list.
    QList<ID3Image> takeiTunesArtworks();
    bool hasiTunesArtworks() const { return mHasiTunesArtworks; }
    // The count a lazy tag was given, or else the number of pictures taken from iTunes.
    int lazyOriTunesImageCount() const;

    bool tagModified = false;

private:
    QImage _cachedIcon;
    bool mEncounteredProblemDecoding = false;
    bool mLazy = false;
    int mLazyNumberOfImages = 0;
    QString _playlist;
    int _playlistIndex = NSNotFound;
    QList<ID3Image> miTunesArtworks;
    bool mHasiTunesArtworks = false;
    QVariantMap mMetadata;

    static std::atomic<bool> sDiscardMalformed;
    static std::atomic<bool> sDiscardUnrecognized;
};
