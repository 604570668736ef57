#pragma once

#include <QString>

// The bridge to a running iTunes. Where iTunes cannot run, it answers as for an iTunes that
// is not running: nothing is playing and no track is known.
class iTunesInterface {
public:
    static QString pathOfCurrentlyPlayingTrack();
    static void pausePlaying();
    static void resumePlaying();
    static QString refreshAndGetPathOfSongWithID(int dbid, const QString &playlist);
    static QString refreshAndGetPathOfSongWithTitle(const QString &title, const QString &artist);
};
