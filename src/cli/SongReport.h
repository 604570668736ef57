#pragma once

#include "model/SongFile.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QTextStream>

// What the command line prints about songs: one row per song for listings, every field and
// frame for a close look. The JSON forms are for scripts and keep their keys stable.
namespace SongReport {
QJsonObject listRow(SongFile &song);
void writeListTsv(QTextStream &out, const QList<SongFilePtr> &songs);
QJsonArray listJson(const QList<SongFilePtr> &songs);

QJsonObject showObject(SongFile &song);
void writeShowText(QTextStream &out, SongFile &song);
} // namespace SongReport
