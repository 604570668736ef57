// Feeds arbitrary bytes to the MP4 atom tree and the AAC tag reader, as a file on disk, and
// edits and flattens the tree the way a save does (without saving): nothing may crash.
#include "FuzzScratch.h"
#include "common/FormatError.h"
#include "mp4/AACInfoTag.h"
#include "mp4/Atom.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QString scratch = writeScratchFile(data, size, ".m4a");
    if (scratch.isEmpty()) return 0;

    AACInfoTag tag;
    if (tag.initWithPath(scratch)) {
        (void)tag.title();
        (void)tag.year();
        (void)tag.track();
        (void)tag.genres();
        (void)tag.duration();
        for (const ID3Image &image : tag.images())
            (void)image.mimeFormat();
    }

    auto reader = std::make_shared<FileReader>(scratch);
    try {
        std::unique_ptr<Atom> root = Atom::atomContainerFromFile(reader);
        (void)root->description();
        Atom::setAutoSizing(true);
        if (Atom *ilst = root->childAtAtomPath(QStringLiteral("FILE:moov:udta:meta:ilst"))) {
            if (Atom *title = ilst->childAtAtomPath(QStringLiteral(u"ilst:©nam:data"), true))
                title->setStringValue(QStringLiteral("fuzz"));
            if (Atom *covr = ilst->childAtAtomPath(QStringLiteral("ilst:covr"))) covr->removeFromContainer();
        }
        Atom::setAutoSizing(false);
        QByteArray bytes = root->flattenedData().mid(8);
        (void)AACInfoTag::setModifiedTime(QDateTime::currentDateTimeUtc(), bytes);
        (void)AACInfoTag::adjustChunkOffsets(bytes, *reader);
    } catch (const FormatError &) {
        Atom::setAutoSizing(false);
    }
    return 0;
}
