// The audio properties of an MPEG audio song, read from its first frame header.
#include "MP3InfoTag.h"

#include "id3/MP3Header.h"

#include <QVariantMap>

void MP3InfoTag::gatherFileMetadataFromPath(const QString &path) {
    mEncodingString = QString();
    MP3Header header;
    // The search for audio starts behind the ID3v2 tag.
    if (header.openFile(path, id3v2Range().length)) {
        mEncodingString = header.getEncodingString();
        const double seconds = header.getSeconds();
        if (seconds > 0 && header.getBitRate() >= 1 && header.getFrequency() >= 1) {
            QVariantMap m;
            m.insert(kMDItemDurationSeconds, seconds);
            m.insert(kMDItemAudioBitRate, header.getBitRate());
            m.insert(kMDItemAudioSampleRate, header.getFrequency());
            setMetadata(m);
            return;
        }
    }
    AudioInfoTag::gatherFileMetadataFromPath(path);
}
