// Feeds arbitrary bytes to the MP3 tag reader and the content sniffer, as a file on disk:
// nothing may crash, hang or read out of bounds.
#include "FuzzScratch.h"
#include "id3/MP3InfoTag.h"
#include "model/SongFile.h"

#include <QCoreApplication>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QString scratch = writeScratchFile(data, size, ".mp3");
    if (scratch.isEmpty()) return 0;

    for (bool discard : {false, true}) {
        AudioInfoTag::setShouldDiscardMalformedInfo(discard);
        AudioInfoTag::setShouldDiscardUnrecognizedInfo(discard);
        MP3InfoTag tag;
        if (tag.initWithPath(scratch)) {
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
    (void)SongFile::songDataTypeAtPath(scratch);
    return 0;
}
