#include "iTunesInterface.h"

QString iTunesInterface::pathOfCurrentlyPlayingTrack() {
    return {};
}

void iTunesInterface::pausePlaying() {}

void iTunesInterface::resumePlaying() {}

QString iTunesInterface::refreshAndGetPathOfSongWithID(int, const QString &) {
    return {};
}

QString iTunesInterface::refreshAndGetPathOfSongWithTitle(const QString &, const QString &) {
    return {};
}
