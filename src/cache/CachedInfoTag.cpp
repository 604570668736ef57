#include "CachedInfoTag.h"

#include "common/Log.h"

#include <QBuffer>
#include <QFileInfo>

#include <sys/stat.h>

const QString CachedInfoModDate = QStringLiteral("mod");
const QString CachedInfoTitle = QStringLiteral("tit");
const QString CachedInfoArtist = QStringLiteral("perf");
const QString CachedInfoAlbum = QStringLiteral("alb");
const QString CachedInfoTrack = QStringLiteral("trk");
const QString CachedInfoYear = QStringLiteral("yr");
const QString CachedInfoGenre = QStringLiteral("gnr");
const QString CachedInfoBPM = QStringLiteral("bpm");
const QString CachedInfoLyrics = QStringLiteral("lyr");
const QString CachedInfoMetadata = QStringLiteral("dat");
const QString CachedInfoNumberOfArtworks = QStringLiteral("nart");
const QString CachedInfoIsCompilation = QStringLiteral("comp");
const QString CachedInfoArtIcon = QStringLiteral("icon");
const QString CachedInfoOrgTagType = QStringLiteral("typ");

namespace {
// The modification date, following links, to the millisecond; invalid when there is none.
QDateTime modificationDate(const QString &path) {
    struct stat st;
    if (path.isEmpty() || ::stat(path.toLocal8Bit().constData(), &st) != 0) return {};
    return QDateTime::fromMSecsSinceEpoch(qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000,
                                          Qt::UTC);
}
} // namespace

QVariantMap CachedInfoTag::infoDictForTag(AudioInfoTag &tag, const QString &path) {
    const QDateTime modified = modificationDate(path);
    if (!modified.isValid()) return {};
    QVariantMap info{{CachedInfoModDate, modified}};
    const auto put = [&info](const QString &key, const QString &value) {
        if (!value.isNull()) info.insert(key, value);
    };
    put(CachedInfoTitle, tag.title());
    put(CachedInfoArtist, tag.artist());
    put(CachedInfoAlbum, tag.album());
    put(CachedInfoTrack, tag.track());
    put(CachedInfoYear, tag.year());
    put(CachedInfoGenre, tag.genres());
    put(CachedInfoBPM, tag.bpm());
    put(CachedInfoLyrics, tag.lyrics());
    if (!tag.metadata().isEmpty()) info.insert(CachedInfoMetadata, tag.metadata());
    const int pictures = tag.numberOfImages();
    if (pictures > 0) info.insert(CachedInfoNumberOfArtworks, pictures);
    if (tag.isPartOfCompilation()) info.insert(CachedInfoIsCompilation, QStringLiteral("y"));
    if (pictures > 0) {
        const QImage icon = tag.imageIconNoLargerThan(28, 14);
        if (!icon.isNull()) {
            QByteArray png;
            QBuffer buffer(&png);
            buffer.open(QIODevice::WriteOnly);
            icon.save(&buffer, "PNG");
            info.insert(CachedInfoArtIcon, png);
        }
    }
    return info;
}

void CachedInfoTag::setCachedInfo(const QVariantMap &info) {
    mCachedInfo = info;
    setMetadata(info.value(CachedInfoMetadata).toMap());
}

QString CachedInfoTag::value(const QString &key) const {
    const QVariant v = mCachedInfo.value(key);
    return v.isValid() ? v.toString() : QString();
}

QImage CachedInfoTag::imageIconNoLargerThan(double, double) {
    const QByteArray png = mCachedInfo.value(CachedInfoArtIcon).toByteArray();
    return png.isEmpty() ? QImage() : QImage::fromData(png, "PNG");
}

bool CachedInfoTag::addImage(const ID3Image &) {
    whineAboutImmutability();
    return false;
}

bool CachedInfoTag::removeImageAtIndex(int) {
    whineAboutImmutability();
    return false;
}

QString CachedInfoTag::description() const {
    return QStringLiteral("<CachedInfoTag 0x%1: %2>").arg(quintptr(this), 0, 16).arg(title());
}

void CachedInfoTag::whineAboutImmutability() const {
    Log::console(QStringLiteral("Cannot mutate %1!").arg(description()));
}
