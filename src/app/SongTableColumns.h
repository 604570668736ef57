#pragma once

#include "model/SongFile.h"

#include <QList>
#include <QString>
#include <QStringList>

// The columns of the song table, by identifier, and the song comparison each one sorts by.
namespace SongTableColumns {
using Compare = int (SongFile::*)(SongFile &);

const QStringList &identifiers();
// Nothing for an unknown column.
Compare compareForColumn(const QString &identifier);
// Sorts by the column's comparison (stable; a column without one keeps the order), then
// reverses the whole list when descending: the comparisons are always ascending.
void sortSongs(QList<SongFilePtr> &songs, const QString &identifier, bool descending);
} // namespace SongTableColumns
