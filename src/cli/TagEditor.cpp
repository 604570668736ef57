#include "TagEditor.h"

#include <QBuffer>
#include <QFile>
#include <QImageReader>

bool TagEdits::isEmpty() const {
    return !title && !artist && !album && !year && !genre && !track && !bpm && !lyrics && !compilation &&
           addPictures.isEmpty() && !removePictures;
}

namespace TagEditor {

namespace {
std::optional<ID3Image> loadPicture(const QString &path, QString *error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read picture %1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    const QByteArray bytes = file.readAll();
    QByteArray copy = bytes;
    QBuffer buffer(&copy);
    buffer.open(QIODevice::ReadOnly);
    const QByteArray format = QImageReader(&buffer).format().toLower();
    if (format != "jpeg" && format != "jpg" && format != "png" && format != "gif") {
        *error = QStringLiteral("%1 is not a JPEG, PNG or GIF picture").arg(path);
        return std::nullopt;
    }
    ID3Image image(bytes, QStringLiteral("image/") + QString::fromLatin1(format == "jpg" ? "jpeg" : format));
    image.setPictureType(3); // front cover
    return image;
}
} // namespace

QString apply(SongFile &song, const TagEdits &edits, QString *error) {
    std::shared_ptr<AudioInfoTag> tag = song.infotag();
    if (!tag) {
        *error = QStringLiteral("no readable tag");
        return {};
    }
    if (song.activityStatus() == SongFile::StatusProblem) {
        *error = QStringLiteral("the tag had problems when it was read; it is left as it is");
        return {};
    }
    if (song.activityStatus() == SongFile::StatusReadOnly) {
        *error = QStringLiteral("the file is read-only");
        return {};
    }
    QList<ID3Image> pictures;
    for (const QString &path : edits.addPictures) {
        std::optional<ID3Image> picture = loadPicture(path, error);
        if (!picture) return {};
        pictures.append(*picture);
    }

    song.rememberOriginalValuesForLaterRefresh();
    if (edits.title) tag->setTitle(*edits.title);
    if (edits.artist) tag->setArtist(*edits.artist);
    if (edits.album) tag->setAlbum(*edits.album);
    if (edits.year) tag->setYear(*edits.year);
    if (edits.genre) tag->setGenres(*edits.genre);
    if (edits.track) tag->setTrack(*edits.track);
    if (edits.bpm) tag->setBPM(*edits.bpm);
    if (edits.lyrics) tag->setLyrics(*edits.lyrics);
    if (edits.compilation) tag->setIsPartOfCompilation(*edits.compilation);
    if (edits.removePictures) tag->removeAllImages();
    for (const ID3Image &picture : pictures)
        tag->addImage(picture);

    const QString version = tag->writeVersion();
    if (!song.writeToOriginalPath(error, false)) {
        if (error->isEmpty())
            *error = QStringLiteral(
                "the file could not be written (not writable, or it has no item list to hold tags)");
        return {};
    }
    return version;
}

} // namespace TagEditor
