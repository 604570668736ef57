#include "SongFile.h"

#include "cache/SongFileInfoCache.h"
#include "common/FileReader.h"
#include "common/Log.h"
#include "common/SafeSave.h"
#include "common/TextValue.h"
#include "id3/MP3InfoTag.h"
#include "itunes/iTunesInterface.h"

#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {
struct FileStat {
    bool ok = false;
    QDateTime modified;
    qint64 size = 0;
};

// Attributes following symbolic links, as the song's identity needs them.
FileStat statPath(const QString &path) {
    FileStat result;
    struct stat st;
    if (path.isEmpty() || ::stat(path.toLocal8Bit().constData(), &st) != 0) return result;
    result.ok = true;
    result.size = st.st_size;
    result.modified = QDateTime::fromMSecsSinceEpoch(
        qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000, Qt::UTC);
    return result;
}

QString lowerSuffix(const QString &path) {
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    const qsizetype dot = path.lastIndexOf(QLatin1Char('.'));
    return dot > slash ? path.mid(dot + 1).toLower() : QString();
}
} // namespace

SongFile::SongFile() = default;

std::shared_ptr<SongFile> SongFile::songWithPath(const QString &path) {
    auto song = std::make_shared<SongFile>();
    if (!song->initWithPath(path)) return nullptr;
    return song;
}

bool SongFile::initWithPath(const QString &path) {
    const FileStat st = statPath(path);
    // Files under 255 bytes are not songs.
    if (!st.ok || !st.modified.isValid() || st.size < 255) return false;
    mPath = path;
    mModDate = st.modified;
    mIsWritableFile = ::access(path.toLocal8Bit().constData(), W_OK) == 0;
    setDefaultActivityStatus();
    return true;
}

std::shared_ptr<SongFile> SongFile::copy() const {
    std::shared_ptr<SongFile> song = songWithPath(mPath);
    if (!song) return nullptr;
    song->mStatus = mStatus;
    song->miTunesDBID = miTunesDBID;
    song->mPersistentID = mPersistentID;
    song->mPlaylist = mPlaylist;
    song->mPlaylistIndex = mPlaylistIndex;
    return song;
}

std::shared_ptr<SongFile> SongFile::songWithPath(const QString &path,
                                                 const QList<std::shared_ptr<SongFile>> &songs) {
    if (path.isNull()) return nullptr;
    for (qsizetype i = songs.size() - 1; i >= 0; --i) {
        if (songs[i] && songs[i]->mPath == path) return songs[i];
    }
    return nullptr;
}

QString SongFile::description() const {
    return QStringLiteral("<SongFile %1: %2>")
        .arg(QStringLiteral("0x%1").arg(quintptr(this), 0, 16), filename());
}

void SongFile::setPath(const QString &path) {
    if (path == mPath) return;
    mPath = path;
    mAlias.reset();
}

QString SongFile::filename() const {
    const qsizetype slash = mPath.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? mPath : mPath.mid(slash + 1);
}

void SongFile::setPlayList(const QString &playlist, int index) {
    mPlaylist = playlist;
    mPlaylistIndex = index;
    if (mInfotag) mInfotag->setPlayList(playlist, index);
}

std::shared_ptr<AudioInfoTag> SongFile::infotag() {
    if (!mInfotag) {
        mInfotag = AudioInfoTag::tagWithPath(mPath);
        if (mInfotag && !mPlaylist.isNull()) mInfotag->setPlayList(mPlaylist, mPlaylistIndex);
        setDefaultActivityStatus();
        gatheriTunesArtwork();
    }
    return mInfotag;
}

void SongFile::createLazyInfoTagFromDictionary(const QVariantMap &trackInfo, const QString &path) {
    mInfotag = AudioInfoTag::tagWithiTunesTrackInfo(trackInfo, path);
    setDefaultActivityStatus();
}

void SongFile::createInfotagUsingCachedInfoDict(const QVariantMap &info) {
    mInfotag = AudioInfoTag::tagWithCachedInfo(info);
    setDefaultActivityStatus();
}

bool SongFile::revertToCachedInfotag() {
    if (mPath.isEmpty()) return false;
    const QVariantMap info = SongFileInfoCache::sharedCache().infoForSongFileAtPath(mPath);
    if (info.isEmpty()) return false;
    uncacheInfotag();
    createInfotagUsingCachedInfoDict(info);
    return true;
}

void SongFile::ensureInfotagIsReal() {
    if (mInfotag && mInfotag->isLazy()) mInfotag.reset();
}

void SongFile::setDefaultActivityStatus() {
    if (mInfotag && mInfotag->encounteredProblemDecoding())
        mStatus = StatusProblem;
    else
        mStatus = mIsWritableFile ? StatusIdle : StatusReadOnly;
}

void SongFile::adoptCurrentModificationDate() {
    const FileStat st = statPath(mPath);
    if (st.ok) mModDate = st.modified;
}

bool SongFile::refresh() {
    updatePathFromAlias();
    if (mPath.isNull()) return false;
    const FileStat st = statPath(mPath);
    if (!st.ok || !st.modified.isValid()) {
        mStatus = StatusProblem;
        return false;
    }
    if (mModDate.isValid() && mModDate == st.modified) return false;
    mModDate = st.modified;
    uncacheInfotag();
    mHasiTunesArtwork = -1;
    return true;
}

void SongFile::setAliasFromPath() {
    if (!mAlias) mAlias = mPath;
}

void SongFile::updatePathFromAlias() {
    if (!mAlias) return;
    // Without aliases the remembered path is the identity: a file gone from it is lost.
    if (!QFileInfo::exists(*mAlias)) {
        mStatus = StatusProblem;
        return;
    }
    if (*mAlias != mPath) mPath = *mAlias;
}

void SongFile::rememberOriginalValuesForLaterRefresh() {
    mOriginalProperties.clear();
    if (!mInfotag) return;
    if (const QString t = mInfotag->title(); !t.isNull())
        mOriginalProperties.insert(QStringLiteral("Title"), t);
    if (const QString a = mInfotag->artist(); !a.isNull())
        mOriginalProperties.insert(QStringLiteral("Artist"), a);
}

bool SongFile::writeToOriginalPath(QString *error, bool refreshiTunes) {
    if (mPath.isEmpty()) return true;
    setAliasFromPath();
    if (!mInfotag) {
        mStatus = StatusProblem;
        return false;
    }
    struct stat kept;
    const bool haveAttributes = ::stat(mPath.toLocal8Bit().constData(), &kept) == 0;
    if (!mInfotag->modifySongFileAtPath(mPath, error)) {
        mStatus = StatusProblem;
        return false;
    }
    if (haveAttributes) {
        // The rewrite made a new file: give it back what the old one had.
        const QByteArray native = mPath.toLocal8Bit();
        (void)::chown(native.constData(), kept.st_uid, kept.st_gid);
        (void)::chmod(native.constData(), kept.st_mode & 07777);
    }
    if (refreshiTunes) {
        const QString known = iTunesInterface::refreshAndGetPathOfSongWithID(miTunesDBID, mPlaylist);
        if (!known.isEmpty()) {
            setPath(known);
        } else {
            updatePathFromAlias();
            const QString found = iTunesInterface::refreshAndGetPathOfSongWithTitle(
                mOriginalProperties.value(QStringLiteral("Title")).toString(),
                mOriginalProperties.value(QStringLiteral("Artist")).toString());
            if (!found.isEmpty() && !QFileInfo::exists(mPath)) setPath(found);
        }
    }
    adoptCurrentModificationDate();
    return true;
}

bool SongFile::removeID3v2TagFromFileAtPath(const QString &path) {
    FileReader file(path);
    if (!file.isOpen()) return false;
    if (file.size() <= 10) {
        Log::console(QStringLiteral("removeID3 file only %1 bytes: %2").arg(file.size()).arg(path));
        return false;
    }
    const QByteArray header = file.readAt(0, 10);
    // Only version 2.4 tags are taken off; 2.2 and 2.3 stay.
    if (header.size() < 10 || !header.startsWith("ID3") || header[3] != 4) return false;
    const std::int64_t tagLength = std::int64_t(MP3InfoTag::getSynchSafeIntIn(header, 6)) + 10;
    if (file.size() <= tagLength) {
        Log::console(QStringLiteral("removeID3 invalid tag size: %1").arg(path));
        return false;
    }
    QString error;
    return SafeSave::replace(path, {}, tagLength, file.size() - tagLength, {}, &error);
}

bool SongFile::claimsToBeMP3(const QString &path) {
    const QString ext = lowerSuffix(path);
    // No type codes on this platform: the name decides.
    return ext == QLatin1String("mp3") || ext == QLatin1String("mp2");
}

bool SongFile::claimsToBeAAC(const QString &path) {
    const QString ext = lowerSuffix(path);
    return ext == QLatin1String("m4a") || ext == QLatin1String("m4p");
}

bool SongFile::claimsToBeOGG(const QString &path) {
    return lowerSuffix(path) == QLatin1String("ogg");
}

int SongFile::songDataTypeAtPath(const QString &path) {
    constexpr qint64 block = 4096;
    FileReader file(path);
    if (!file.isOpen() || file.size() < block) return TypeUnknown;
    const qint64 length = file.size();
    // Blocks are taken from larger reads: the same bytes, fewer calls into the system.
    constexpr qint64 chunk = 4 * block;
    unsigned char buffer[chunk];
    qint64 bufferStart = 0,
           bufferLength = file.readInto(0, reinterpret_cast<char *>(buffer), std::min(chunk, length));
    if (bufferLength < block) return TypeUnknown;
    const unsigned char *b = buffer;

    qint64 position = 0;
    if (std::memcmp(b, "ID3", 3) == 0 && b[3] != 0xFF && b[4] != 0xFF &&
        !((b[6] | b[7] | b[8] | b[9]) & 0x80)) {
        const qint64 size = qint64(b[6]) << 21 | qint64(b[7]) << 14 | qint64(b[8]) << 7 | qint64(b[9]);
        if (size > 6) position = (length < size + 10) ? 0 : size + 10;
    }

    int frameHeaders = 0;
    bool moov = false, udta = false, mdia = false;
    while (position <= 499999 && position < length - block) {
        if (position < bufferStart || position + block > bufferStart + bufferLength) {
            bufferStart = position;
            bufferLength =
                file.readInto(position, reinterpret_cast<char *>(buffer), std::min(chunk, length - position));
            if (bufferLength < block) break;
        }
        b = buffer + (position - bufferStart);
        // Offsets 0 to 4091: a sync byte FF, then MPEG-1 Layer III or II, then a usable
        // sampling-rate and bit-rate index. After a header the next 200 bytes are passed over.
        for (qsizetype i = 0; i < block - 4;) {
            const void *sync = std::memchr(b + i, 0xFF, size_t(block - 4 - i));
            if (!sync) break;
            i = static_cast<const unsigned char *>(sync) - b;
            if (b[i + 1] >= 0xFA && b[i + 1] <= 0xFD && (b[i + 2] & 0x0C) != 0x0C &&
                (b[i + 2] & 0xF0) != 0xF0) {
                ++frameHeaders;
                i += 200;
            } else {
                ++i;
            }
        }
        if (frameHeaders < 30) {
            // Words starting at offsets 0 to 4091.
            moov = moov || ::memmem(b, block - 1, "moov", 4);
            udta = udta || ::memmem(b, block - 1, "udta", 4);
            mdia = mdia || ::memmem(b, block - 1, "mdia", 4);
        }
        position += block;
        if (frameHeaders >= 30) {
            // Enough headers, and dense enough counted from the start of the file: MPEG audio.
            if (float(position) / float(frameHeaders) < 800.0f) return TypeMP3;
        } else if (frameHeaders < 10 && moov && udta && mdia) {
            return TypeAAC;
        }
    }
    return TypeUnknown;
}

int SongFile::compare(long long a, long long b) {
    if (a < b) return 1;
    if (a > b) return -1;
    return 0;
}

namespace {
template <typename F> auto tagValue(SongFile &song, F f) -> decltype(f(std::declval<AudioInfoTag &>())) {
    const std::shared_ptr<AudioInfoTag> tag = song.infotag();
    if (!tag) return {};
    return f(*tag);
}

// Missing values sort last; -2 means both are present and the caller compares them.
int compareNils(const QString &a, const QString &b) {
    if (a.isNull() && b.isNull()) return 0;
    if (b.isNull()) return -1;
    if (a.isNull()) return 1;
    return -2;
}
} // namespace

int SongFile::rawCompareText(SongFile &other, Getter getter, bool numeric) {
    const QString a = tagValue(*this, [getter](AudioInfoTag &t) { return (t.*getter)(); });
    const QString b = tagValue(other, [getter](AudioInfoTag &t) { return (t.*getter)(); });
    const int nils = compareNils(a, b);
    if (nils != -2) return nils;
    return numeric ? TextValue::compareCaseInsensitiveNumeric(a, b) : TextValue::compareCaseInsensitive(a, b);
}

int SongFile::rawCompareArtist(SongFile &other) {
    return rawCompareText(other, &AudioInfoTag::artist, true);
}
int SongFile::rawCompareTitle(SongFile &other) {
    return rawCompareText(other, &AudioInfoTag::title, true);
}
int SongFile::rawCompareAlbum(SongFile &other) {
    return rawCompareText(other, &AudioInfoTag::album, true);
}
int SongFile::rawCompareGenre(SongFile &other) {
    return rawCompareText(other, &AudioInfoTag::genres, true);
}
int SongFile::rawCompareReadVersion(SongFile &other) {
    return rawCompareText(other, &AudioInfoTag::readVersion, false);
}

int SongFile::rawCompareTrack(SongFile &other) {
    const QString a = tagValue(*this, [](AudioInfoTag &t) { return t.track(); });
    const QString b = tagValue(other, [](AudioInfoTag &t) { return t.track(); });
    const int nils = compareNils(a, b);
    if (nils != -2) return nils;
    const int na = tagValue(*this, [](AudioInfoTag &t) { return t.trackNumber(); });
    const int nb = tagValue(other, [](AudioInfoTag &t) { return t.trackNumber(); });
    return compare(nb, na);
}

int SongFile::rawCompareYear(SongFile &other) {
    const QString a = tagValue(*this, [](AudioInfoTag &t) { return t.year(); });
    const QString b = tagValue(other, [](AudioInfoTag &t) { return t.year(); });
    const int nils = compareNils(a, b);
    if (nils != -2) return nils;
    return compare(TextValue::intValue(b), TextValue::intValue(a));
}

int SongFile::rawCompareBPM(SongFile &other) {
    const int a = TextValue::intValue(tagValue(*this, [](AudioInfoTag &t) { return t.bpm(); }));
    const int b = TextValue::intValue(tagValue(other, [](AudioInfoTag &t) { return t.bpm(); }));
    return compare(b, a);
}

int SongFile::rawCompareIndex(SongFile &other) {
    const int a = tagValue(*this, [](AudioInfoTag &t) { return t.playlistIndex(); });
    const int b = tagValue(other, [](AudioInfoTag &t) { return t.playlistIndex(); });
    return compare(b, a);
}

int SongFile::rawCompareDuration(SongFile &other) {
    const auto ms = [](SongFile &s) {
        const std::shared_ptr<AudioInfoTag> tag = s.infotag();
        return tag ? (long long)(tag->duration() * 1000.0) : (long long)-1000;
    };
    return compare(ms(*this), ms(other)); // longer songs first
}

int SongFile::rawCompareLyrics(SongFile &other) {
    const auto has = [](SongFile &s) {
        const std::shared_ptr<AudioInfoTag> tag = s.infotag();
        return tag && !tag->lyrics().isEmpty();
    };
    return compare(has(*this), has(other));
}

int SongFile::rawCompareArt(SongFile &other) {
    const auto count = [](SongFile &s) {
        const std::shared_ptr<AudioInfoTag> tag = s.infotag();
        return tag ? tag->numberOfImages() : 0;
    };
    return compare(count(*this), count(other));
}

int SongFile::rawCompareIsCompilation(SongFile &other) {
    const auto comp = [](SongFile &s) {
        const std::shared_ptr<AudioInfoTag> tag = s.infotag();
        return tag && tag->isPartOfCompilation();
    };
    return compare(comp(*this), comp(other));
}

int SongFile::rawCompareActivity(SongFile &other) {
    return compare(mStatus, other.mStatus);
}

namespace {
using Raw = int (SongFile::*)(SongFile &);
int chain(SongFile &a, SongFile &b, std::initializer_list<Raw> steps) {
    for (Raw step : steps) {
        const int r = (a.*step)(b);
        if (r != 0) return r;
    }
    return 0;
}
} // namespace

int SongFile::compareArtist(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareArtist, &SongFile::rawCompareAlbum, &SongFile::rawCompareTrack});
}
int SongFile::compareTitle(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareTitle, &SongFile::rawCompareArtist, &SongFile::rawCompareAlbum});
}
int SongFile::compareAlbum(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareAlbum, &SongFile::rawCompareTrack, &SongFile::rawCompareTitle,
                  &SongFile::rawCompareArtist});
}
int SongFile::compareTrack(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareTrack, &SongFile::rawCompareAlbum, &SongFile::rawCompareTitle,
                  &SongFile::rawCompareArtist});
}
int SongFile::compareYear(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareYear, &SongFile::rawCompareAlbum, &SongFile::rawCompareArtist,
                  &SongFile::rawCompareTrack});
}
int SongFile::compareGenre(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareGenre, &SongFile::rawCompareAlbum, &SongFile::rawCompareArtist});
}
int SongFile::compareReadVersion(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareReadVersion, &SongFile::rawCompareAlbum, &SongFile::rawCompareArtist});
}
int SongFile::compareArt(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareArt, &SongFile::rawCompareArtist, &SongFile::rawCompareAlbum,
                  &SongFile::rawCompareTrack});
}
int SongFile::compareBPM(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareBPM, &SongFile::rawCompareTitle, &SongFile::rawCompareArtist,
                  &SongFile::rawCompareAlbum});
}
int SongFile::compareDuration(SongFile &o) {
    return chain(*this, o,
                 {&SongFile::rawCompareDuration, &SongFile::rawCompareTitle, &SongFile::rawCompareArtist,
                  &SongFile::rawCompareAlbum});
}
int SongFile::compareIndex(SongFile &o) {
    const int r = rawCompareIndex(o);
    return r != 0 ? r : compareTitle(o);
}
int SongFile::compareCompilation(SongFile &o) {
    const int r = rawCompareIsCompilation(o);
    return r != 0 ? r : compareAlbum(o);
}
int SongFile::compareLyrics(SongFile &o) {
    const int r = rawCompareLyrics(o);
    return r != 0 ? r : compareAlbum(o);
}
int SongFile::compareActivity(SongFile &o) {
    return rawCompareActivity(o);
}
