#include "SongFileInfoCache.h"

#include "cache/CachedInfoTag.h"
#include "common/Log.h"
#include "common/PropertyList.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>
#include <QThread>

#include <sys/stat.h>

namespace {
QDateTime modificationDate(const QString &path) {
    struct stat st;
    if (path.isEmpty() || ::stat(path.toLocal8Bit().constData(), &st) != 0) return {};
    return QDateTime::fromMSecsSinceEpoch(qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000,
                                          Qt::UTC);
}
} // namespace

SongFileInfoCache &SongFileInfoCache::sharedCache() {
    static SongFileInfoCache *shared = [] {
        const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                               QStringLiteral("/Quillwave Song Info");
        // One level only: the platform's cache folder itself is expected to be there.
        if (!QFileInfo(folder).isDir() && !QDir().mkdir(folder)) {
            Log::warning(QStringLiteral("song info cache unavailable: cannot create %1").arg(folder));
            return new SongFileInfoCache(QString());
        }
        auto *cache = new SongFileInfoCache(folder);
        if (QCoreApplication *app = QCoreApplication::instance())
            QObject::connect(app, &QCoreApplication::aboutToQuit, cache, &SongFileInfoCache::detach);
        return cache;
    }();
    return *shared;
}

SongFileInfoCache::SongFileInfoCache(const QString &folder, QObject *parent)
    : QObject(parent)
    , mCacheBasePath(folder) {
    mMemoryCacheWriteTimer.setSingleShot(true);
    mMemoryCacheWriteTimer.setInterval(250);
    connect(&mMemoryCacheWriteTimer, &QTimer::timeout, this, &SongFileInfoCache::writeSomeCacheToDisk);
}

SongFileInfoCache::~SongFileInfoCache() {
    detach();
}

bool SongFileInfoCache::keyNumberForPath(const QString &songPath, quint32 *key) {
    const qsizetype slash = songPath.lastIndexOf(QLatin1Char('/'));
    const QStringView folder = slash < 0 ? QStringView() : QStringView(songPath).first(slash);
    if (folder.size() < 5) return false;
    const qsizetype n = folder.size();
    // Folders whose paths end in the same four characters share a host file.
    *key = quint32(folder[n - 4].unicode()) * (1u << 21) + quint32(folder[n - 3].unicode()) * (1u << 14) +
           quint32(folder[n - 2].unicode()) * (1u << 7) + quint32(folder[n - 1].unicode());
    return true;
}

QString SongFileInfoCache::pathForKeyNumber(quint32 key) const {
    return QString::asprintf("%s/%02u/%02u/%x.cache", mCacheBasePath.toUtf8().constData(), (key & 0xF0) >> 4,
                             key & 0x0F, key);
}

QVariantMap &SongFileInfoCache::hostDictionaryForKey(const QString &key, quint32 number) {
    auto it = mMemoryCache.find(key);
    if (it != mMemoryCache.end()) return it.value();
    QVariantMap host;
    QFile file(pathForKeyNumber(number));
    if (file.open(QIODevice::ReadOnly)) {
        const QVariant archived = PropertyList::fromData(file.readAll());
        if (archived.typeId() == QMetaType::QVariantMap)
            host = archived.toMap();
        else
            Log::console(QStringLiteral("Couldn't unarchive %1").arg(file.fileName()));
    }
    return mMemoryCache.insert(key, host).value();
}

QVariantMap SongFileInfoCache::infoForSongFileAtPath(const QString &path) {
    quint32 number = 0;
    if (!isUsable() || !keyNumberForPath(path, &number)) return {};
    QVariantMap record;
    {
        QMutexLocker lock(&mLock);
        const QVariantMap &host = hostDictionaryForKey(QString::number(number, 16), number);
        const auto it = host.constFind(path);
        if (it == host.constEnd()) return {};
        record = it.value().toMap();
    }
    const QDateTime modified = modificationDate(path);
    if (!modified.isValid() || record.value(CachedInfoModDate).toDateTime() != modified) return {};
    return record;
}

void SongFileInfoCache::storeInfo(const QVariantMap &info, const QString &path) {
    quint32 number = 0;
    if (!isUsable() || info.isEmpty() || !keyNumberForPath(path, &number))
        return; // a song without a host is not cached
    {
        QMutexLocker lock(&mLock);
        const QString key = QString::number(number, 16);
        hostDictionaryForKey(key, number).insert(path, info);
        mDirtyDicts.insert(key, number);
        ++mGenerations[key];
    }
    cacheMemoryDirty();
}

void SongFileInfoCache::cacheMemoryDirty() {
    // Every store postpones the write to a quarter second after the last one.
    if (QThread::currentThread() == thread())
        restartTimer();
    else
        QMetaObject::invokeMethod(this, &SongFileInfoCache::restartTimer, Qt::QueuedConnection);
}

void SongFileInfoCache::restartTimer() {
    mMemoryCacheWriteTimer.start();
}

void SongFileInfoCache::writeSomeCacheToDisk() {
    QString key;
    quint32 number = 0;
    QVariantMap host;
    quint64 generation = 0;
    {
        QMutexLocker lock(&mLock);
        if (mDirtyDicts.isEmpty()) return;
        key = mDirtyDicts.lastKey();
        number = mDirtyDicts.last();
        host = mMemoryCache.value(key);
        generation = mGenerations.value(key);
    }
    const QString path = pathForKeyNumber(number);
    if (!QDir().mkpath(QFileInfo(path).path())) return; // stays dirty
    const QByteArray archive = PropertyList::toBinary(host);
    QSaveFile file(path);
    if (archive.isEmpty() || !file.open(QIODevice::WriteOnly) || file.write(archive) != archive.size() ||
        !file.commit()) {
        Log::console(QStringLiteral("couldn't serialize <QVariantMap %1> to %2").arg(key, path));
        return;
    }
    {
        QMutexLocker lock(&mLock);
        // A store that came in while writing keeps the host dirty for the next tick.
        if (mGenerations.value(key) == generation) mDirtyDicts.remove(key);
        ++mWritten;
    }
    cacheMemoryDirty();
}

bool SongFileInfoCache::isDirty() const {
    QMutexLocker lock(&mLock);
    return !mDirtyDicts.isEmpty();
}

void SongFileInfoCache::detach() {
    if (QThread::currentThread() == thread()) mMemoryCacheWriteTimer.stop();
    // A host that cannot be written is tried once more, not for ever.
    for (int attempts = 0; isDirty() && attempts < 2 * 65536; ++attempts) {
        const int before = hostFilesWritten();
        writeSomeCacheToDisk();
        if (hostFilesWritten() == before) break;
    }
    if (QThread::currentThread() == thread()) mMemoryCacheWriteTimer.stop();
}

int SongFileInfoCache::hostFilesWritten() const {
    QMutexLocker lock(&mLock);
    return mWritten;
}
