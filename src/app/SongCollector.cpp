#include "SongCollector.h"

#include "cache/CachedInfoTag.h"
#include "cache/SongFileInfoCache.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

QList<SongFilePtr> SongCollector::collect(const QStringList &paths) {
    mSongs.clear();
    for (const QString &given : paths) {
        const QFileInfo info(given);
        if (!info.exists()) {
            skip(given, QStringLiteral("no such file or folder"));
            continue;
        }
        if (info.isDir()) {
            // Folder symlinks are not followed, so that a link loop cannot trap the walk.
            QDirIterator it(info.absoluteFilePath(), QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot,
                            QDirIterator::Subdirectories);
            QStringList files;
            while (it.hasNext())
                files.append(it.next());
            files.sort();
            for (const QString &file : files)
                addFile(file);
        } else {
            addFile(info.absoluteFilePath());
        }
    }
    return mSongs;
}

void SongCollector::addFile(const QString &path) {
    const QVariantMap cached = mCache ? mCache->infoForSongFileAtPath(path) : QVariantMap();
    if (cached.isEmpty()) {
        if (!QFileInfo(path).isReadable()) {
            skip(path, QStringLiteral("not readable"));
            return;
        }
        const bool claimed = SongFile::claimsToBeMP3(path) || SongFile::claimsToBeAAC(path) ||
                             SongFile::songDataTypeAtPath(path) != SongFile::TypeUnknown;
        if (!claimed) {
            skip(path, QStringLiteral("not a song file"));
            return;
        }
    }
    SongFilePtr song = SongFile::songWithPath(path);
    if (!song) {
        const qint64 size = QFileInfo(path).size();
        skip(path, size < 255 ? QStringLiteral("too small to be a song (%1 bytes)").arg(size)
                              : QStringLiteral("cannot be examined"));
        return;
    }
    if (!cached.isEmpty()) {
        song->createInfotagUsingCachedInfoDict(cached);
    } else if (std::shared_ptr<AudioInfoTag> tag = song->infotag()) {
        // The tag just read stays (it knows its version and problems); its record serves next time.
        if (mCache) mCache->storeInfo(CachedInfoTag::infoDictForTag(*tag, path), path);
    } else {
        // A file that claims to be a song but whose tag cannot be read is still listed, as a problem.
        mErrors << "quillwave-cli: " << path << ": no readable tag" << Qt::endl;
        song->setActivityStatus(SongFile::StatusProblem);
    }
    mSongs.append(song);
}

void SongCollector::skip(const QString &path, const QString &why) {
    ++mSkipped;
    mErrors << "quillwave-cli: skipped " << path << ": " << why << Qt::endl;
}
