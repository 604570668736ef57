#pragma once

#include "model/SongFile.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QTextStream>

class SongFileInfoCache;

// Collects the songs below the given files and folders: every file that the song info cache
// knows, or that its name or content claims as a song. A song with a valid cache entry gets its
// tag from the cache without its file being opened; others are read and their records stored.
// What is skipped, and why, goes to the error stream.
class SongCollector {
public:
    // Without a cache every file is read afresh.
    SongCollector(QTextStream &errors, SongFileInfoCache *cache)
        : mErrors(errors)
        , mCache(cache) {}

    QList<SongFilePtr> collect(const QStringList &paths);
    int skippedCount() const { return mSkipped; }

private:
    void addFile(const QString &path);
    void skip(const QString &path, const QString &why);

    QTextStream &mErrors;
    SongFileInfoCache *mCache;
    QList<SongFilePtr> mSongs;
    int mSkipped = 0;
};
