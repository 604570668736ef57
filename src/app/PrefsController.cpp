#include "PrefsController.h"

#include "common/Log.h"
#include "common/PropertyList.h"

#include <QFile>

PrefsController &PrefsController::sharedPrefsController() {
    static PrefsController shared;
    return shared;
}

QVariantMap PrefsController::defaultResources() {
    QFile file(QStringLiteral(":/defaultres.xml"));
    if (!file.open(QIODevice::ReadOnly)) {
        Log::console(QStringLiteral("decode defres: %1").arg(file.errorString()));
        return {};
    }
    QString error;
    const QVariant parsed = PropertyList::fromData(file.readAll(), &error);
    if (parsed.typeId() != QMetaType::QVariantMap) {
        Log::console(QStringLiteral("decode defres: %1")
                         .arg(error.isEmpty() ? QStringLiteral("not a dictionary") : error));
        return {};
    }
    return parsed.toMap();
}

void PrefsController::loadIfNeeded() {
    if (mLoaded) return;
    mResources = defaultResources();
    mGenres = mResources.value(QStringLiteral("genres")).toStringList();
    mLoaded = true;
}

QVariantMap PrefsController::liveResources() {
    QMutexLocker lock(&mLock);
    loadIfNeeded();
    return mResources;
}

void PrefsController::setLiveResources(const QVariantMap &resources) {
    QMutexLocker lock(&mLock);
    mResources = resources;
    mGenres = mResources.value(QStringLiteral("genres")).toStringList();
    mLoaded = true;
}

QStringList PrefsController::genres() {
    QMutexLocker lock(&mLock);
    loadIfNeeded();
    return mGenres;
}
