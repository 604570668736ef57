// Feeds arbitrary bytes to the MP3 tag reader and the content sniffer, as a file on disk:
// nothing may crash, hang or read out of bounds.
#include "common/Log.h"
#include "id3/MP3InfoTag.h"
#include "model/SongFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdint>
#include <unistd.h>

namespace {
QString scratchPath() {
    static const QString path = QDir::tempPath() + QStringLiteral("/qw-fuzz-%1.mp3").arg(::getpid());
    return path;
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    Log::setConsoleEnabled(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    QFile file(scratchPath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return 0;
    file.write(reinterpret_cast<const char *>(data), qint64(size));
    file.close();

    for (bool discard : {false, true}) {
        AudioInfoTag::setShouldDiscardMalformedInfo(discard);
        AudioInfoTag::setShouldDiscardUnrecognizedInfo(discard);
        MP3InfoTag tag;
        if (tag.initWithPath(scratchPath())) {
            // Touch every getter and the ID3v1 writer's view of the values.
            (void)tag.title();
            (void)tag.artist();
            (void)tag.album();
            (void)tag.year();
            (void)tag.genres();
            (void)tag.track();
            (void)tag.trackNumber();
            (void)tag.numberOfTracksOnAlbum();
            (void)tag.lyrics();
            (void)tag.isPartOfCompilation();
            for (const ID3Image &image : tag.images()) {
                (void)image.mimeFormat();
                (void)image.filenameSuffix();
            }
            (void)tag.canWriteID3v11WithoutLoss();
            (void)tag.dataForID3v11();
            // Whatever the reader made must also turn back into tag bytes.
            (void)tag.writeVersion();
            (void)tag.dataForID3V23orV24(discard);
            (void)tag.dataForID3v22();
        }
    }
    (void)SongFile::songDataTypeAtPath(scratchPath());
    return 0;
}
