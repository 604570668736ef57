// The writing side of AACInfoTag: the item list edited in the atom tree, the whole file
// flattened, time stamps and chunk offsets put right, and the file saved safely.
#include "AACInfoTag.h"

#include "common/FileReader.h"
#include "common/FormatError.h"
#include "common/Log.h"
#include "common/SafeSave.h"
#include "common/TextValue.h"
#include "itunes/iTunesInterface.h"
#include "mp4/Atom.h"

#include <QTimeZone>

#include <unistd.h>

namespace {

void putBE32(QByteArray &b, qsizetype at, std::uint32_t v) {
    b[at] = char(v >> 24);
    b[at + 1] = char(v >> 16);
    b[at + 2] = char(v >> 8);
    b[at + 3] = char(v);
}

std::uint32_t readBE32(const QByteArray &b, qsizetype at) {
    const auto *p = reinterpret_cast<const unsigned char *>(b.constData()) + at;
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}

QByteArray numberPayload(unsigned value, int bytes) {
    QByteArray p("\0\0\0\x15\0\0\0\0", 8);
    if (bytes == 2) p += char(value >> 8);
    p += char(value);
    return p;
}

} // namespace

bool AACInfoTag::writeItems(Atom &ilst) const {
    const auto item = [&ilst](const QString &name) {
        return ilst.childAtAtomPath(QStringLiteral("ilst:") + name);
    };
    const auto dataOf = [&ilst](const QString &name) {
        return ilst.childAtAtomPath(QStringLiteral("ilst:") + name + QStringLiteral(":data"), true);
    };
    const auto remove = [&item](const QString &name) {
        if (Atom *node = item(name)) node->removeFromContainer();
    };
    const auto text = [&](const QString &name, const QString &value) {
        if (value.isEmpty()) {
            remove(name);
        } else if (Atom *data = dataOf(name)) {
            data->setStringValue(value);
        }
    };
    text(QStringLiteral("©nam"), title());
    text(QStringLiteral("©ART"), artist());
    text(QStringLiteral("©alb"), album());
    text(QStringLiteral("©lyr"), lyrics());
    text(QStringLiteral("©day"), attribute("year")); // the whole date, not the four-character year

    // The binary genre is never written: the text says the same and more.
    remove(QStringLiteral("gnre"));
    text(QStringLiteral("©gen"), genres());

    const QString t = track();
    if (t.isEmpty()) {
        remove(QStringLiteral("trkn"));
    } else if (Atom *data = dataOf(QStringLiteral("trkn"))) {
        const qsizetype slash = t.indexOf(QLatin1Char('/'));
        int number = 0, total = 0;
        if (slash > 0 && slash < t.size() - 1) {
            number = TextValue::intValue(QStringView(t).first(slash));
            total = TextValue::intValue(QStringView(t).mid(slash + 1));
        } else {
            number = TextValue::intValue(t);
        }
        QByteArray payload(16, '\0');
        payload[10] = char(number >> 8);
        payload[11] = char(number);
        payload[12] = char(total >> 8);
        payload[13] = char(total);
        data->setData(payload);
    }

    const int tempo = TextValue::intValue(bpm());
    if (bpm().isEmpty() || tempo == 0)
        remove(QStringLiteral("tmpo"));
    else if (Atom *data = dataOf(QStringLiteral("tmpo")))
        data->setData(numberPayload(unsigned(tempo) & 0xFFFF, 2));

    if (Atom *data = dataOf(QStringLiteral("cpil")))
        data->setData(numberPayload(isPartOfCompilation() ? 1 : 0, 1));

    Atom *covr = item(QStringLiteral("covr"));
    if (mImages.isEmpty()) {
        if (covr) covr->removeFromContainer();
        return true;
    }
    if (!covr) {
        covr = ilst.childAtAtomPath(QStringLiteral("ilst:covr"), true);
        if (!covr) return false;
        covr->becomeContainer();
    }
    if (!covr->contents().empty()) {
        covr->resizeSiblingFreeBy(std::int32_t(covr->size()));
        while (!covr->contents().empty()) {
            // The space went back above in one piece; take the children out without counting it again.
            const bool previous = Atom::autoSizing();
            Atom::setAutoSizing(false);
            covr->contents().back()->removeFromContainer();
            Atom::setAutoSizing(previous);
        }
    }
    for (const ID3Image &picture : mImages) {
        // Every picture is labelled JPEG, whatever it is: the label has always been written so.
        auto data = Atom::atomWithName(Atom::codeFromString(QStringLiteral("data")));
        data->setData(QByteArray("\0\0\0\x0D\0\0\0\0", 8) + picture.imageData());
        Atom *added = covr->appendChild(std::move(data));
        added->resizeSiblingFreeBy(std::int32_t(-8 - std::int64_t(added->size())));
    }
    return true;
}

bool AACInfoTag::setModifiedTime(const QDateTime &date, QByteArray &atomData) {
    static const QDateTime epoch(QDate(1904, 1, 1), QTime(0, 0), Qt::UTC);
    const qint64 seconds = std::clamp<qint64>(epoch.secsTo(date), 0, 4294967295LL);
    const AtomSource source(&atomData);
    const struct {
        const char *path, *index;
    } stamps[] = {{"moov:mvhd", "1:1"}, {"moov:trak:tkhd", "1:1:1"}, {"moov:trak:mdia:mdhd", "1:1:1:1"}};
    for (const auto &s : stamps) {
        const std::uint64_t offset =
            Atom::offsetToAtomIn(source, QString::fromLatin1(s.path), QString::fromLatin1(s.index));
        if (offset == Atom::NotFound) return false;
        // Only version-0 headers of the first track are stamped.
        if (Atom::sizeOfAtomIn(source, offset) >= 20 && offset + 20 <= std::uint64_t(atomData.size()))
            putBE32(atomData, qsizetype(offset + 16), std::uint32_t(seconds));
    }
    return true;
}

bool AACInfoTag::adjustChunkOffsets(QByteArray &atomData, const FileReader &originalFile) {
    const AtomSource oldSource(&originalFile), newSource(&atomData);
    const std::uint64_t oldMdat =
        Atom::offsetToAtomIn(oldSource, QStringLiteral("mdat"), QStringLiteral("1"));
    const std::uint64_t newMdat =
        Atom::offsetToAtomIn(newSource, QStringLiteral("mdat"), QStringLiteral("1"));
    if (oldMdat == Atom::NotFound || newMdat == Atom::NotFound) return false;
    if (oldMdat == newMdat) return true;
    const std::uint32_t shift = std::uint32_t(newMdat - oldMdat);
    const QString path = QStringLiteral("moov:trak:mdia:minf:stbl:stco");
    const QString index = QStringLiteral("1:1:1:1:1:1");
    const std::uint64_t at = Atom::offsetToAtomIn(oldSource, path, index);
    if (at == Atom::NotFound) return false;
    const std::uint64_t size = Atom::sizeOfAtomIn(oldSource, at);
    QByteArray atom = oldSource.read(at, size);
    if (std::uint64_t(atom.size()) != size || size < 16) return false;
    const std::uint32_t count = readBE32(atom, 12);
    // The bound counts 12 header bytes although the entries start at 16, as it always has.
    if (size < std::uint64_t(count) * 4 + 12) {
        Log::console(QStringLiteral("adjustChunkOffsets failed sanity check (%1 > %2)")
                         .arg(std::uint64_t(count) * 4 + 12)
                         .arg(size));
        return false;
    }
    for (std::uint64_t i = 0; i < count && 16 + 4 * i + 4 <= size; ++i) {
        const qsizetype p = qsizetype(16 + 4 * i);
        const std::uint32_t entry = readBE32(atom, p);
        if (entry >= oldMdat) putBE32(atom, p, entry + shift);
    }
    const std::uint64_t target = Atom::offsetToAtomIn(newSource, path, index);
    if (target == Atom::NotFound || target + size > std::uint64_t(atomData.size())) return false;
    atomData.replace(qsizetype(target), atom.size(), atom);
    return true;
}

bool AACInfoTag::modifySongFileAtPath(const QString &path, QString *error) {
    const QString playing = iTunesInterface::pathOfCurrentlyPlayingTrack();
    const bool paused = !playing.isEmpty() && playing == path;
    if (paused) iTunesInterface::pausePlaying();
    const auto finish = [&](bool result, const char *message) {
        Atom::setAutoSizing(false);
        if (paused) iTunesInterface::resumePlaying();
        if (message && error) *error = QString::fromLatin1(message);
        return result;
    };

    auto file = std::make_shared<FileReader>(path);
    if (!file->isOpen() || ::access(path.toLocal8Bit().constData(), W_OK) != 0) return finish(false, nullptr);
    try {
        Atom::setAutoSizing(true);
        std::unique_ptr<Atom> root = Atom::atomContainerFromFile(file);
        Atom *meta = root->childAtAtomPath(QStringLiteral("FILE:moov:udta:meta"));
        if (!meta) return finish(false, nullptr); // a file without udta and meta is not tagged here
        const AtomSource oldSource(file.get());
        const QString metaPath = QStringLiteral("moov:udta:meta");
        const QString metaIndex = QStringLiteral("1:1:1");
        const std::uint64_t oldMeta = Atom::offsetToAtomIn(oldSource, metaPath, metaIndex);
        const std::uint64_t oldMetaSize =
            oldMeta == Atom::NotFound ? 0 : Atom::sizeOfAtomIn(oldSource, oldMeta);
        Atom *ilst = meta->childAtAtomPath(QStringLiteral("meta:ilst"));
        if (!ilst || !writeItems(*ilst)) return finish(false, nullptr);

        QByteArray bytes = root->flattenedData();
        root.reset();
        bytes.remove(0, 8); // the whole file, without the tree root's own header
        if (bytes.isEmpty()) return finish(false, "cannot generate atom data");
        if (!setModifiedTime(QDateTime::currentDateTimeUtc(), bytes))
            return finish(false, "cannot set modification date");

        const AtomSource newSource(&bytes);
        const std::uint64_t newMeta = Atom::offsetToAtomIn(newSource, metaPath, metaIndex);
        const std::uint64_t newMetaSize =
            newMeta == Atom::NotFound ? 0 : Atom::sizeOfAtomIn(newSource, newMeta);
        QString saveError;
        bool saved;
        if (oldMeta != Atom::NotFound && newMeta == oldMeta && newMetaSize == oldMetaSize) {
            // 'meta' kept its place and size: only the bytes up to its end are new.
            const std::uint64_t end = oldMeta + oldMetaSize;
            saved = SafeSave::replace(path, bytes.left(qsizetype(end)), std::int64_t(end),
                                      file->size() - std::int64_t(end), {}, &saveError);
        } else {
            if (!adjustChunkOffsets(bytes, *file)) return finish(false, "cannot update chunk offsets");
            saved = SafeSave::replace(path, bytes, 0, 0, {}, &saveError);
        }
        if (!saved) {
            Log::console(QStringLiteral("cannot save %1: %2").arg(path, saveError));
            return finish(false, nullptr);
        }
        tagModified = false;
        return finish(true, nullptr);
    } catch (const std::exception &) {
        // Deliberately leaves the size balancing on and iTunes paused, as this path always has.
        if (error) *error = QStringLiteral("can't modify (an error occurred): ");
        return false;
    }
}
