#pragma once

#include "model/SongFile.h"

#include <QString>
#include <QStringList>

#include <optional>

// The edits the command line's `set` applies to each file. An option that is absent leaves the
// field alone; an empty value removes it.
struct TagEdits {
    std::optional<QString> title, artist, album, year, genre, track, bpm, lyrics;
    std::optional<bool> compilation;
    QStringList addPictures;
    bool removePictures = false;

    bool isEmpty() const;
};

namespace TagEditor {
// Applies the edits to the song's tag and saves it. On success gives the version written;
// otherwise a null string and the reason in error.
QString apply(SongFile &song, const TagEdits &edits, QString *error);
} // namespace TagEditor
