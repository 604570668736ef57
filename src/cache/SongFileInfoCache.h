#pragma once

#include <QHash>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVariantMap>

// The per-user cache of what was last read from each song: one record per song path, valid
// while the file's modification date is unchanged. Records are grouped by folder into small host
// files ("%02d/%02d/%x.cache" below the cache folder), kept in memory once loaded, and written
// back one host file per quarter second after the stores have gone quiet. Safe to use from
// several threads; the write timer runs on the thread that made the cache.
class SongFileInfoCache : public QObject {
    Q_OBJECT
public:
    // The one cache of the process, in "Quillwave Song Info" below the platform's cache folder.
    // When that folder cannot be made the cache is unusable: it finds and keeps nothing.
    static SongFileInfoCache &sharedCache();

    explicit SongFileInfoCache(const QString &folder, QObject *parent = nullptr);
    ~SongFileInfoCache() override;

    bool isUsable() const { return !mCacheBasePath.isEmpty(); }
    QString basePath() const { return mCacheBasePath; }

    // The host key of a song; false when its folder path is too short to have one.
    static bool keyNumberForPath(const QString &songPath, quint32 *key);
    QString pathForKeyNumber(quint32 key) const;

    // The record, when it is still valid for the file's modification date.
    QVariantMap infoForSongFileAtPath(const QString &path);
    void storeInfo(const QVariantMap &info, const QString &path);

    void cacheMemoryDirty();
    // Writes one dirty host file.
    void writeSomeCacheToDisk();
    bool isDirty() const;
    // Writes everything still unsaved; the cache stays usable.
    void detach();
    // Host files written so far (for tests and figures).
    int hostFilesWritten() const;

private:
    // Called with mLock held.
    QVariantMap &hostDictionaryForKey(const QString &key, quint32 number);
    void restartTimer();

    QString mCacheBasePath;
    QHash<QString, QVariantMap> mMemoryCache;
    QMap<QString, quint32> mDirtyDicts;
    QHash<QString, quint64> mGenerations;
    QTimer mMemoryCacheWriteTimer;
    mutable QMutex mLock;
    int mWritten = 0;
};
