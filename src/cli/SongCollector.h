#pragma once

#include "model/SongFile.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QTextStream>

// Collects the songs below the given files and folders: every file that its name or its
// content claims as a song. What is skipped, and why, goes to the error stream.
class SongCollector {
public:
    explicit SongCollector(QTextStream &errors)
        : mErrors(errors) {}

    QList<SongFilePtr> collect(const QStringList &paths);
    int skippedCount() const { return mSkipped; }

private:
    void addFile(const QString &path);
    void skip(const QString &path, const QString &why);

    QTextStream &mErrors;
    QList<SongFilePtr> mSongs;
    int mSkipped = 0;
};
