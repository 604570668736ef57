#include "AudioInfoTag.h"

#include "app/PrefsController.h"
#include "cache/CachedInfoTag.h"
#include "common/FileReader.h"
#include "common/Log.h"
#include "common/TextValue.h"
#include "id3/MP3InfoTag.h"
#include "model/SongFile.h"
#include "mp4/AACInfoTag.h"
#include "web/FHStringExtensions.h"
#include "web/FHUtility.h"

#include <QFileInfo>
#include <QMutex>

#include <cmath>

const QString AudioInfoTag::kMDItemDurationSeconds = QStringLiteral("kMDItemDurationSeconds");
const QString AudioInfoTag::kMDItemAudioBitRate = QStringLiteral("kMDItemAudioBitRate");
const QString AudioInfoTag::kMDItemAudioSampleRate = QStringLiteral("kMDItemAudioSampleRate");

std::atomic<bool> AudioInfoTag::sDiscardMalformed{false};
std::atomic<bool> AudioInfoTag::sDiscardUnrecognized{false};

AudioInfoTag::AudioInfoTag() = default;
AudioInfoTag::~AudioInfoTag() = default;

namespace {
enum class TagKind { None, MP3, AAC };

std::shared_ptr<AudioInfoTag> makeTag(TagKind kind) {
    switch (kind) {
    case TagKind::MP3:
        return std::make_shared<MP3InfoTag>();
    case TagKind::AAC:
        return std::make_shared<AACInfoTag>();
    case TagKind::None:
        break;
    }
    return nullptr;
}

TagKind kindByName(const QString &path) {
    if (SongFile::claimsToBeMP3(path)) return TagKind::MP3;
    if (SongFile::claimsToBeAAC(path)) return TagKind::AAC;
    return TagKind::None;
}
} // namespace

std::shared_ptr<AudioInfoTag> AudioInfoTag::tagWithPath(const QString &path) {
    TagKind kind = TagKind::None;
    switch (SongFile::songDataTypeAtPath(path)) {
    case 1:
        kind = TagKind::MP3;
        break;
    case 2:
        kind = TagKind::AAC;
        break;
    case 0:
        kind = kindByName(path);
        break;
    default:
        return nullptr;
    }
    std::shared_ptr<AudioInfoTag> tag = makeTag(kind);
    if (!tag || !tag->initWithPath(path)) return nullptr;
    tag->gatherTagsFromPathname(path);
    tag->gatherFileMetadataFromPath(path);
    return tag;
}

std::shared_ptr<AudioInfoTag> AudioInfoTag::tagWithiTunesTrackInfo(const QVariantMap &info,
                                                                   const QString &path) {
    if (path.isNull()) return nullptr;
    std::shared_ptr<AudioInfoTag> tag = makeTag(kindByName(path));
    if (!tag) return nullptr;
    auto text = [&info](const char *key) {
        const QVariant v = info.value(QLatin1String(key));
        return v.isValid() ? v.toString() : QString();
    };
    if (const QString v = text("Name"); !v.isNull()) tag->setTitle(v);
    if (const QString v = text("Artist"); !v.isNull()) tag->setArtist(v);
    if (const QString v = text("Album"); !v.isNull()) tag->setAlbum(v);
    if (const QString v = text("Genre"); !v.isNull()) tag->setGenres(v);
    const int year = info.value(QStringLiteral("Year")).toInt();
    if (year >= 1 && year <= 2049) tag->setYear(QString::number(year));
    const int number = info.value(QStringLiteral("Track Number")).toInt();
    if (number != 0) {
        const int count = info.value(QStringLiteral("Track Count")).toInt();
        if (count != 0 && number <= count)
            tag->setTrack(QStringLiteral("%1/%2").arg(number).arg(count));
        else
            tag->setTrack(QString::number(number));
    }
    if (info.contains(QStringLiteral("Compilation"))) tag->setIsPartOfCompilation(true);
    tag->gatherFileMetadataFromiTunesTrackInfo(info);
    tag->setLazyNumberOfImages(info.value(QStringLiteral("Artwork Count")).toInt());
    tag->setIsLazy(true);
    return tag;
}

std::shared_ptr<AudioInfoTag> AudioInfoTag::tagWithCachedInfo(const QVariantMap &info) {
    if (info.isEmpty()) return nullptr;
    auto tag = std::make_shared<CachedInfoTag>();
    tag->setCachedInfo(info);
    tag->setIsLazy(true);
    return tag;
}

bool AudioInfoTag::initWithPath(const QString &) {
    _playlistIndex = NSNotFound;
    return true;
}

bool AudioInfoTag::modifySongFileAtPath(const QString &, QString *) {
    return false;
}

QList<ID3Image> AudioInfoTag::images() const {
    return miTunesArtworks;
}

int AudioInfoTag::numberOfImages() const {
    if (mLazy) return mLazyNumberOfImages;
    return int(images().size());
}

int AudioInfoTag::lazyOriTunesImageCount() const {
    if (mLazy) return mLazyNumberOfImages;
    return int(miTunesArtworks.size());
}

bool AudioInfoTag::addImage(const ID3Image &) {
    return false;
}

bool AudioInfoTag::removeImageAtIndex(int) {
    dropCachedIcon();
    if (mHasiTunesArtworks) {
        miTunesArtworks.clear();
        mHasiTunesArtworks = false;
        return true;
    }
    return false;
}

void AudioInfoTag::removeAllImages() {
    // Each removal must make progress; a subclass that refuses ends the loop.
    int before = numberOfImages();
    while (before >= 1) {
        removeImageAtIndex(0);
        const int after = numberOfImages();
        if (after >= before) break;
        before = after;
    }
}

QList<ID3Image> AudioInfoTag::takeiTunesArtworks() {
    QList<ID3Image> taken = miTunesArtworks;
    miTunesArtworks.clear();
    mHasiTunesArtworks = false;
    return taken;
}

void AudioInfoTag::setIsLazy(bool lazy) {
    mLazy = lazy;
    if (lazy) tagModified = false;
}

void AudioInfoTag::setPlayList(const QString &playlist, int index) {
    _playlist = playlist;
    _playlistIndex = index;
}

double AudioInfoTag::duration() const {
    const QVariant v = mMetadata.value(kMDItemDurationSeconds);
    return v.isValid() ? v.toDouble() : -1.0;
}

int AudioInfoTag::bitrate() const {
    const QVariant v = mMetadata.value(kMDItemAudioBitRate);
    return v.isValid() ? int(std::ceil(v.toDouble())) : -1;
}

int AudioInfoTag::samplerate() const {
    const QVariant v = mMetadata.value(kMDItemAudioSampleRate);
    return v.isValid() ? v.toInt() : -1;
}

int AudioInfoTag::trackNumber() const {
    const QString t = track();
    if (t.isEmpty()) return 0;
    const qsizetype slash = t.indexOf(QLatin1Char('/'));
    if (slash >= 1) return TextValue::intValue(QStringView(t).left(slash));
    return TextValue::intValue(t);
}

int AudioInfoTag::numberOfTracksOnAlbum() const {
    const QString t = track();
    if (t.isEmpty()) return 0;
    const qsizetype slash = t.indexOf(QLatin1Char('/'));
    if (slash >= 0 && slash != t.size() - 1) return TextValue::intValue(QStringView(t).mid(slash + 1));
    return TextValue::intValue(t);
}

QString AudioInfoTag::reversedArtist() const {
    const QString a = artist();
    if (a.isNull()) return {};
    if (a.contains(QLatin1Char(','))) return a;
    const QStringList parts = a.split(QLatin1Char(' '));
    if (parts.size() < 2) return a;
    const QString &last = parts.last();
    return QStringLiteral("%1, %2").arg(last, a.left(a.size() - last.size() - 1));
}

QString AudioInfoTag::normalizedArtist() const {
    const QString a = artist();
    if (a.isNull()) return {};
    const qsizetype c = a.indexOf(QLatin1Char(','));
    if (c < 0) return a;
    qsizetype j = c + 1;
    while (j < a.size() && a[j] == u' ')
        ++j;
    qsizetype k = j;
    while (k < a.size() && a[k] != u' ')
        ++k;
    if (k >= a.size()) return a.mid(j) + QLatin1Char(' ') + a.left(c);
    return a.mid(j, k - j) + QLatin1Char(' ') + a.left(c) + a.mid(k);
}

QString AudioInfoTag::formattedDuration() const {
    const double d = duration();
    if (!(d > 0)) return {};
    long long s = (long long)std::ceil(d);
    QString out;
    if (s / 3600 > 0) {
        out += QString::number(s / 3600) + QLatin1Char(':');
        s %= 3600;
    }
    const long long m = s / 60;
    if (!out.isEmpty() && m <= 9) out += QLatin1Char('0');
    out += QString::number(m) + QLatin1Char(':');
    const long long sec = s % 60;
    if (sec <= 9) out += QLatin1Char('0');
    out += QString::number(sec);
    return out;
}

bool AudioInfoTag::matchString(const QString &text) const {
    return FHUtility::doesString(title(), text) || FHUtility::doesString(artist(), text) ||
           FHUtility::doesString(album(), text) || FHUtility::doesString(genres(), text) ||
           FHUtility::doesString(year(), text);
}

namespace {
struct IconCache {
    QMutex lock;
    QByteArray bytes;
    QImage icon;
};
IconCache &iconCache() {
    static IconCache cache;
    return cache;
}
} // namespace

QImage AudioInfoTag::imageIconNoLargerThan(double maxWidth, double maxHeight) {
    if (!_cachedIcon.isNull() && (_cachedIcon.width() > maxWidth || _cachedIcon.height() > maxHeight))
        _cachedIcon = QImage();
    if (!_cachedIcon.isNull()) return _cachedIcon;
    const QList<ID3Image> pictures = images();
    if (pictures.isEmpty()) return {};
    const QByteArray bytes = pictures.first().imageData();
    IconCache &cache = iconCache();
    QMutexLocker lock(&cache.lock);
    if (!cache.bytes.isNull() && bytes == cache.bytes) {
        _cachedIcon = cache.icon;
    } else if (!bytes.isNull()) {
        _cachedIcon = ::imageIconNoLargerThan(bytes, maxWidth, maxHeight);
        cache.bytes = bytes;
        cache.icon = _cachedIcon;
    }
    return _cachedIcon;
}

void AudioInfoTag::gatherTagsFromPathname(const QString &path) {
    if (!title().isNull()) return;
    QString name = QFileInfo(path).fileName().trimmed();
    // Only a three-letter extension is cut: Song.aiff keeps its whole name.
    if (name.size() > 4 && name[name.size() - 4] == u'.') name.chop(4);
    setTitle(name);
}

void AudioInfoTag::gatherFileMetadataFromPath(const QString &) {
    // No platform metadata service on this system: the audio properties stay as they are.
}

void AudioInfoTag::gatherFileMetadataFromiTunesTrackInfo(const QVariantMap &info) {
    QVariantMap m = mMetadata;
    // iTunes' total time runs 0.75 s longer than the files' own figure; the difference is kept.
    m.insert(kMDItemDurationSeconds, info.value(QStringLiteral("Total Time")).toDouble() / 1000.0 - 0.75);
    m.insert(kMDItemAudioBitRate, info.value(QStringLiteral("Bit Rate")));
    m.insert(kMDItemAudioSampleRate, info.value(QStringLiteral("Sample Rate")));
    mMetadata = m;
}

void AudioInfoTag::addiTunesArtworkAtPath(const QString &path) {
    FileReader file(path);
    if (!file.isOpen() || file.size() < 1024) return;
    const QByteArray data = file.readAt(0, file.size());
    if (data.size() < 1024) return;
    const auto *b = reinterpret_cast<const unsigned char *>(data.constData());
    const quint64 L = quint64(b[0]) << 24 | quint64(b[1]) << 16 | quint64(b[2]) << 8 | quint64(b[3]);
    if (L > quint64(data.size() - 1024)) return;
    const bool png = data.mid(qsizetype(L + 48), 4) == "PNGf";
    const QByteArray picture = data.mid(qsizetype(L + 60));
    miTunesArtworks = {ID3Image(picture, png ? QStringLiteral("image/png") : QStringLiteral("image/jpeg"))};
    mHasiTunesArtworks = true;
    dropCachedIcon();
}

QStringList AudioInfoTag::allGenres() {
    return PrefsController::sharedPrefsController().genres();
}

QString AudioInfoTag::genreForIndex(int index) {
    const QStringList genres = allGenres();
    if (index < 0 || index >= genres.size()) return {};
    return genres.at(index);
}

int AudioInfoTag::indexOfGenre(const QString &name) {
    if (name.isNull()) return NSNotFound;
    const QString wanted = name.trimmed();
    const QStringList genres = allGenres();
    for (qsizetype i = genres.size() - 1; i >= 0; --i) {
        if (genres[i].compare(wanted, Qt::CaseInsensitive) == 0) return int(i);
    }
    return NSNotFound;
}

QString AudioInfoTag::standardizedGenreFrom(const QString &text) {
    if (text.size() < 2) return {};
    // Simplified once per process, deliberately not rebuilt when the resources change.
    static const QStringList simplified = [] {
        QStringList list;
        for (const QString &g : allGenres())
            list.append(FHUtility::simplifyString(g));
        return list;
    }();
    const QStringList genres = allGenres();
    const QString input = FHUtility::simplifyString(text);
    QString best = QStringLiteral("");
    for (qsizetype i = std::min(simplified.size(), genres.size()) - 1; i >= 0; --i) {
        if (input.contains(simplified[i]) && genres[i].size() > best.size()) best = genres[i];
    }
    Log::console(QStringLiteral("standardized '%1' -> %2").arg(text, best));
    return best.isEmpty() ? QString() : best;
}

QString AudioInfoTag::expandedGenres(const QString &text) {
    if (text.isNull()) return {};
    const QStringList genres = allGenres();
    QString s = text;
    // A vocabulary name holding a reference could otherwise expand for ever.
    for (int guard = 0; guard < 256; ++guard) {
        const qsizetype p = s.indexOf(QLatin1Char('('));
        if (p < 0) break;
        const qsizetype q = s.indexOf(QLatin1Char(')'));
        if (q < 0 || q <= p + 1) break;
        const QStringView inner = QStringView(s).mid(p + 1, q - p - 1);
        const int n = TextValue::intValue(inner);
        if ((n == 0 && inner != u"0") || n < 0 || n >= genres.size()) break;
        QString name = genres.at(n);
        if (q < s.size() - 2) name += QLatin1Char('/');
        s.replace(p, q - p + 1, name);
    }
    QStringList parts = s.split(QLatin1Char('/'));
    for (qsizetype i = parts.size() - 1; i >= 1; --i) {
        for (qsizetype j = 0; j < i; ++j) {
            if (parts[j] == parts[i]) {
                parts.removeAt(i);
                break;
            }
        }
    }
    return parts.join(QLatin1Char('/'));
}

void AudioInfoTag::encodeWithCoder(QDataStream &out) const {
    out << _playlist << qint32(_playlistIndex) << qint8(tagModified ? 1 : 0);
}

void AudioInfoTag::initWithCoder(QDataStream &in) {
    qint32 index = NSNotFound;
    qint8 modified = 0;
    in >> _playlist >> index >> modified;
    _playlistIndex = index;
    tagModified = modified != 0;
}
