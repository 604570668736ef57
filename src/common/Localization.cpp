#include "Localization.h"

#include <QCoreApplication>
#include <QLocale>
#include <QMutex>
#include <QTranslator>

namespace Localization {

namespace {
struct Tables {
    QMutex lock;
    bool loaded = false;
    QTranslator local;   // the user's language, when the program has it
    QTranslator english; // always there, so that no key shows through
};

Tables &tables() {
    static Tables t;
    QMutexLocker guard(&t.lock);
    if (!t.loaded) {
        t.loaded = true;
        (void)t.english.load(QStringLiteral(":/i18n/quillwave_en.qm"));
        (void)t.local.load(QLocale(), QStringLiteral("quillwave"), QStringLiteral("_"),
                           QStringLiteral(":/i18n"));
    }
    return t;
}
} // namespace

QString text(const char *key) {
    Tables &t = tables();
    QString s = t.local.translate(nullptr, key);
    if (s.isEmpty()) s = t.english.translate(nullptr, key);
    return s.isEmpty() ? QString::fromLatin1(key) : s;
}

} // namespace Localization
