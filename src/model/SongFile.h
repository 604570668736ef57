#pragma once

#include "model/AudioInfoTag.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QVariantMap>

#include <memory>
#include <optional>

// One song of the list: a file on disk, its tag (loaded on first use), its iTunes identity and
// its activity status. Songs are shared between the lists that hold them.
class SongFile {
public:
    enum ActivityStatus {
        StatusIdle = 0,
        StatusQueued = 1,
        StatusProcessing = 2,
        StatusReadOnly = 3,
        StatusProblem = 4
    };
    enum DataType { TypeUnknown = 0, TypeMP3 = 1, TypeAAC = 2 };
    static constexpr int NSNotFound = AudioInfoTag::NSNotFound;

    SongFile();
    // Nothing for a missing or undated file, or one shorter than 255 bytes.
    static std::shared_ptr<SongFile> songWithPath(const QString &path);
    // A fresh song on the same path with the source's status and iTunes identity; no tag.
    std::shared_ptr<SongFile> copy() const;
    static std::shared_ptr<SongFile> songWithPath(const QString &path,
                                                  const QList<std::shared_ptr<SongFile>> &songs);
    QString description() const;

    QString path() const { return mPath; }
    void setPath(const QString &path);
    QString filename() const;

    void setPlayList(const QString &playlist, int index);
    QString playlist() const { return mPlaylist; }
    int playlistIndex() const { return mPlaylistIndex; }
    void setPersistentID(const QString &persistentID) { mPersistentID = persistentID; }
    QString persistentID() const { return mPersistentID; }
    void setiTunesDBID(int dbid) { miTunesDBID = dbid; }
    int iTunesDBID() const { return miTunesDBID; }
    void flushiTunesDBID() { miTunesDBID = 0; }
    void setHasiTunesArtwork(int has) { mHasiTunesArtwork = has; }
    int hasiTunesArtwork() const { return mHasiTunesArtwork; }
    // Called after a tag is loaded; the iTunes-aware collection hooks in here.
    virtual void gatheriTunesArtwork() {}
    virtual ~SongFile() = default;

    // The tag, read from the file on first use; nothing when the file has no known type.
    std::shared_ptr<AudioInfoTag> infotag();
    void setInfotag(std::shared_ptr<AudioInfoTag> tag) { mInfotag = std::move(tag); }
    void uncacheInfotag() { mInfotag.reset(); }
    bool hasInfotagCached() const { return mInfotag != nullptr; }
    void createLazyInfoTagFromDictionary(const QVariantMap &trackInfo, const QString &path);
    void ensureInfotagIsReal();
    void createInfotagUsingCachedInfoDict(const QVariantMap &info);
    // Swaps the tag for one from the song info cache; false when the cache has no valid entry.
    bool revertToCachedInfotag();

    int activityStatus() const { return mStatus; }
    void setActivityStatus(int status) { mStatus = status; }
    void setDefaultActivityStatus();
    bool canWriteToOriginalPath() const { return mStatus != StatusReadOnly && mStatus != StatusProblem; }

    QDateTime modificationDate() const { return mModDate; }
    void adoptCurrentModificationDate();
    bool refresh();
    void setAliasFromPath();
    void updatePathFromAlias();
    bool hasAlias() const { return mAlias.has_value(); }

    void rememberOriginalValuesForLaterRefresh();
    // Writes the loaded tag into the file (safely), keeps the file's owner, group and
    // permissions, and optionally asks iTunes to re-read the track. True on success; with
    // nothing to write (no path) true at once.
    bool writeToOriginalPath(QString *error, bool refreshiTunes);
    // Removes a leading ID3v2.4 tag; other versions are left alone.
    static bool removeID3v2TagFromFileAtPath(const QString &path);
    QVariantMap originalProperties() const { return mOriginalProperties; }

    static bool claimsToBeMP3(const QString &path);
    static bool claimsToBeAAC(const QString &path);
    static bool claimsToBeOGG(const QString &path);
    static int songDataTypeAtPath(const QString &path);

    // Sorting: -1 when this song sorts first. compare() is inverted (1 when a < b); each
    // caller passes its operands in the order that gives its direction.
    static int compare(long long a, long long b);
    int rawCompareArtist(SongFile &other);
    int rawCompareTitle(SongFile &other);
    int rawCompareAlbum(SongFile &other);
    int rawCompareGenre(SongFile &other);
    int rawCompareReadVersion(SongFile &other);
    int rawCompareTrack(SongFile &other);
    int rawCompareYear(SongFile &other);
    int rawCompareBPM(SongFile &other);
    int rawCompareIndex(SongFile &other);
    int rawCompareDuration(SongFile &other);
    int rawCompareLyrics(SongFile &other);
    int rawCompareArt(SongFile &other);
    int rawCompareIsCompilation(SongFile &other);
    int rawCompareActivity(SongFile &other);

    int compareArtist(SongFile &other);
    int compareTitle(SongFile &other);
    int compareAlbum(SongFile &other);
    int compareTrack(SongFile &other);
    int compareYear(SongFile &other);
    int compareGenre(SongFile &other);
    int compareReadVersion(SongFile &other);
    int compareArt(SongFile &other);
    int compareBPM(SongFile &other);
    int compareDuration(SongFile &other);
    int compareIndex(SongFile &other);
    int compareCompilation(SongFile &other);
    int compareLyrics(SongFile &other);
    int compareActivity(SongFile &other);

private:
    bool initWithPath(const QString &path);
    using Getter = QString (AudioInfoTag::*)() const;
    int rawCompareText(SongFile &other, Getter getter, bool numeric);

    QString mPath;
    // No file-system aliases here: a song is tracked by the path it had when first written.
    std::optional<QString> mAlias;
    QDateTime mModDate;
    std::shared_ptr<AudioInfoTag> mInfotag;
    QVariantMap mOriginalProperties;
    bool mIsWritableFile = false;
    int mHasiTunesArtwork = -1;
    int mStatus = StatusIdle;
    int miTunesDBID = 0;
    QString mPlaylist;
    int mPlaylistIndex = NSNotFound;
    QString mPersistentID;
};

using SongFilePtr = std::shared_ptr<SongFile>;
