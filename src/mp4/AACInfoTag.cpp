#include "AACInfoTag.h"

#include "common/FileReader.h"
#include "common/FormatError.h"
#include "common/TextValue.h"
#include "mp4/Atom.h"

#include <cmath>

namespace {
inline unsigned byteAt(const QByteArray &b, qsizetype i) {
    return (i >= 0 && i < b.size()) ? static_cast<unsigned char>(b[i]) : 0u;
}
inline unsigned be16(const QByteArray &b, qsizetype i) {
    return byteAt(b, i) << 8 | byteAt(b, i + 1);
}
inline std::uint32_t be32(const QByteArray &b, qsizetype i) {
    return std::uint32_t(byteAt(b, i)) << 24 | std::uint32_t(byteAt(b, i + 1)) << 16 |
           std::uint32_t(byteAt(b, i + 2)) << 8 | byteAt(b, i + 3);
}
} // namespace

AACInfoTag::AACInfoTag() = default;
AACInfoTag::~AACInfoTag() = default;

bool AACInfoTag::initWithPath(const QString &path) {
    AudioInfoTag::initWithPath(path);
    auto file = std::make_shared<FileReader>(path);
    if (!file->isOpen()) return false;
    try {
        getAttributesFromAACFile(file);
    } catch (const FormatError &) {
        return false;
    } catch (const std::bad_alloc &) {
        return false;
    }
    return true;
}

void AACInfoTag::getAttributesFromAACFile(const std::shared_ptr<FileReader> &file) {
    std::unique_ptr<Atom> root = Atom::atomContainerFromFile(file);
    if (Atom *ilst = root->childAtAtomPath(QStringLiteral("FILE:moov:udta:meta:ilst"))) {
        const auto item = [ilst](const QString &name) {
            return ilst->childAtAtomPath(QStringLiteral("ilst:") + name);
        };
        const struct {
            const char16_t *item;
            const char *key;
        } texts[] = {{u"©nam:data", "title"},
                     {u"©ART:data", "artist"},
                     {u"©alb:data", "album"},
                     {u"©day:data", "year"},
                     {u"©lyr:data", "lyrics"}};
        for (const auto &t : texts) {
            if (Atom *node = item(QString::fromUtf16(t.item))) {
                const QString text = node->stringValue();
                if (!text.isNull()) mAttribs.insert(QLatin1String(t.key), text);
            }
        }
        if (Atom *node = item(QStringLiteral("trkn:data"))) {
            const QByteArray payload = node->data().value_or(QByteArray());
            const unsigned number = be16(payload, 10), total = be16(payload, 12);
            if (number != 0)
                mAttribs.insert(QStringLiteral("track"), total != 0
                                                             ? QStringLiteral("%1/%2").arg(number).arg(total)
                                                             : QString::number(number));
        }
        QString genre;
        if (Atom *node = item(QStringLiteral("gnre:data"))) {
            const QByteArray payload = node->data().value_or(QByteArray());
            // The binary genre counts from 1, the numeric text form from 0.
            if (payload.size() > 8 && be16(payload, 8) != 0)
                genre = QStringLiteral("(%1)").arg(int(be16(payload, 8)) - 1);
        }
        if (genre.isNull()) {
            if (Atom *node = item(QStringLiteral("©gen:data"))) genre = node->stringValue();
        }
        if (!genre.isNull()) mAttribs.insert(QStringLiteral("genre"), expandedGenres(genre));
        if (Atom *node = item(QStringLiteral("tmpo:data"))) {
            const QByteArray payload = node->data().value_or(QByteArray());
            if (payload.size() > 8 && be16(payload, 8) > 0)
                mAttribs.insert(QStringLiteral("bpm"), QString::number(be16(payload, 8)));
        }
        if (Atom *node = item(QStringLiteral("cpil:data"))) {
            const QByteArray payload = node->data().value_or(QByteArray());
            if (!payload.isEmpty()) mAttribs.insert(QStringLiteral("compilation"), byteAt(payload, 8) != 0);
        }
        for (Atom *node = item(QStringLiteral("covr:data")); node; node = node->nextSibling()) {
            const QByteArray payload = node->data().value_or(QByteArray());
            if (payload.size() > 8) mImages.append(ID3Image(payload.mid(8), QString()));
        }
    }

    QVariantMap metadata = this->metadata();
    double duration = -1;
    if (Atom *mvhd = root->childAtAtomPath(QStringLiteral("FILE:moov:mvhd"))) {
        const QByteArray payload = mvhd->data().value_or(QByteArray());
        const std::uint32_t timeScale = be32(payload, 12);
        if (payload.size() >= 16 && timeScale >= 1 && timeScale <= 99999) {
            const float units = float(be16(payload, 16)) * 65536.0f + float(be16(payload, 18));
            duration = units / float(timeScale);
        }
    }
    int bitRate = -1, sampleRate = -1;
    bool isProtected = false;
    if (Atom *stsd = root->childAtAtomPath(QStringLiteral("FILE:moov:trak:mdia:minf:stbl:stsd"))) {
        const QByteArray payload = stsd->data().value_or(QByteArray());
        if (payload.size() >= 16) {
            for (qsizetype p = 12; (bitRate < 0 || sampleRate < 0) && p < payload.size() - 8; p += 36) {
                const std::uint32_t code = be32(payload, p);
                if (code == Atom::codeFromString(QStringLiteral("esds"))) {
                    bitRate = std::min(std::int32_t(be32(payload, p + 26)) / 1000, 320);
                } else if (code == Atom::codeFromString(QStringLiteral("mp4a"))) {
                    sampleRate = int(be16(payload, p + 28));
                } else if (code == Atom::codeFromString(QStringLiteral("drms"))) {
                    sampleRate = int(be16(payload, p + 28));
                    isProtected = true;
                }
            }
        }
    }
    if (isProtected) bitRate = -1;
    if (duration > 0 && bitRate < 0) {
        if (Atom *mdat = root->childAtAtomPath(QStringLiteral("FILE:mdat"))) {
            // The 124 and the 125-131 band reported as 128 are the program's own calibration.
            bitRate = int(double(mdat->size()) / (duration * 124.0));
            if (bitRate >= 125 && bitRate <= 131) bitRate = 128;
        }
    }
    if (sampleRate > 0) metadata.insert(kMDItemAudioSampleRate, sampleRate);
    if (bitRate > 0) metadata.insert(kMDItemAudioBitRate, bitRate);
    if (duration > 0) metadata.insert(kMDItemDurationSeconds, duration);
    setMetadata(metadata);
}

void AACInfoTag::gatherFileMetadataFromPath(const QString &path) {
    if (duration() > 0 && bitrate() > 0 && samplerate() > 0) return;
    AudioInfoTag::gatherFileMetadataFromPath(path);
}

QString AACInfoTag::attribute(const char *key) const {
    const QVariant v = mAttribs.value(QLatin1String(key));
    return v.isValid() ? v.toString() : QString();
}

QString AACInfoTag::year() const {
    const QString y = attribute("year");
    return y.size() < 4 ? QString() : y.left(4);
}

bool AACInfoTag::isPartOfCompilation() const {
    return mAttribs.value(QStringLiteral("compilation")).toBool();
}

void AACInfoTag::setString(const QString &value, const char *key) {
    tagModified = true;
    if (value.isEmpty())
        mAttribs.remove(QLatin1String(key));
    else
        mAttribs.insert(QLatin1String(key), value);
}

void AACInfoTag::setIsPartOfCompilation(bool compilation) {
    tagModified = true;
    mAttribs.insert(QStringLiteral("compilation"), compilation);
}

QList<ID3Image> AACInfoTag::images() const {
    const QList<ID3Image> fromBase = AudioInfoTag::images();
    return fromBase.isEmpty() ? mImages : fromBase;
}

bool AACInfoTag::addImage(const ID3Image &image) {
    mImages += takeiTunesArtworks();
    tagModified = true;
    mImages.append(image);
    dropCachedIcon();
    return true;
}

bool AACInfoTag::removeImageAtIndex(int index) {
    if (AudioInfoTag::removeImageAtIndex(index)) return true;
    if (index < 0 || index >= mImages.size()) return false;
    mImages.removeAt(index);
    tagModified = true;
    return true;
}

QString AACInfoTag::description() const {
    QStringList parts;
    for (auto it = mAttribs.cbegin(); it != mAttribs.cend(); ++it)
        parts.append(QStringLiteral("%1 = %2").arg(it.key(), it.value().toString()));
    return QStringLiteral("<AACInfoTag 0x%1:{%2}>")
        .arg(quintptr(this), 0, 16)
        .arg(parts.join(QStringLiteral("; ")));
}

QString AACInfoTag::atomTreeDescription(const QString &path) {
    auto file = std::make_shared<FileReader>(path);
    if (!file->isOpen()) return {};
    try {
        return Atom::atomContainerFromFile(file)->description();
    } catch (const FormatError &) {
        return QStringLiteral("(the atom tree cannot be read)");
    }
}
