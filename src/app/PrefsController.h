#pragma once

#include <QMutex>
#include <QStringList>
#include <QVariantMap>

// The shared holder of the live resources: the data that drives the online sources and the
// genre vocabulary. Loaded on first use from the default resources shipped with the program.
class PrefsController {
public:
    static PrefsController &sharedPrefsController();

    QVariantMap liveResources();
    // Replaces the live resources (a refresh, or a test that needs other data).
    void setLiveResources(const QVariantMap &resources);
    // The "genres" list of the live resources, kept ready because tag reading asks for it often.
    QStringList genres();

    // The default resources as shipped, parsed afresh.
    static QVariantMap defaultResources();

private:
    PrefsController() = default;
    void loadIfNeeded();

    QMutex mLock;
    bool mLoaded = false;
    QVariantMap mResources;
    QStringList mGenres;
};
