#include "SongTableColumns.h"

#include <algorithm>

namespace SongTableColumns {

namespace {
struct Column {
    const char *identifier;
    Compare compare;
};

const Column kColumns[] = {
    {"active", &SongFile::compareActivity},
    {"index", &SongFile::compareIndex},
    {"compilation", &SongFile::compareCompilation},
    {"artist", &SongFile::compareArtist},
    {"title", &SongFile::compareTitle},
    {"album", &SongFile::compareAlbum},
    {"year", &SongFile::compareYear},
    {"genre", &SongFile::compareGenre},
    {"track", &SongFile::compareTrack},
    {"version", &SongFile::compareReadVersion},
    {"bpm", &SongFile::compareBPM},
    {"lyrics", &SongFile::compareLyrics},
    {"art", &SongFile::compareArt},
    {"formattedDuration", &SongFile::compareDuration},
};
} // namespace

const QStringList &identifiers() {
    static const QStringList ids = [] {
        QStringList list;
        for (const Column &c : kColumns)
            list.append(QString::fromLatin1(c.identifier));
        return list;
    }();
    return ids;
}

Compare compareForColumn(const QString &identifier) {
    for (const Column &c : kColumns) {
        if (identifier == QLatin1String(c.identifier)) return c.compare;
    }
    return nullptr;
}

void sortSongs(QList<SongFilePtr> &songs, const QString &identifier, bool descending) {
    if (const Compare compare = compareForColumn(identifier)) {
        std::stable_sort(songs.begin(), songs.end(), [compare](const SongFilePtr &a, const SongFilePtr &b) {
            return ((*a).*compare)(*b) < 0;
        });
    }
    if (descending) std::reverse(songs.begin(), songs.end());
}

} // namespace SongTableColumns
