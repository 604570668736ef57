#include "FHUtility.h"

#include "web/FHStringExtensions.h"

#include <QList>
#include <QPair>
#include <QReadWriteLock>

namespace FHUtility {

namespace {
struct Simplifiers {
    QReadWriteLock lock;
    QList<QPair<QString, QString>> ordered; // by decreasing key length
};
Simplifiers &simplifiers() {
    static Simplifiers s;
    return s;
}
} // namespace

const QStringList &minorWords() {
    static const QStringList words = {QStringLiteral("a"),  QStringLiteral("an"),  QStringLiteral("and"),
                                      QStringLiteral("of"), QStringLiteral("the"), QStringLiteral("is")};
    return words;
}

void setSimplifiersDictionary(const QVariantMap &dictionary) {
    QList<QPair<QString, QString>> remaining;
    for (auto it = dictionary.cbegin(); it != dictionary.cend(); ++it)
        remaining.append({it.key(), it.value().toString()});
    // Repeatedly take the longest remaining key; the first in listing order wins a tie.
    QList<QPair<QString, QString>> ordered;
    while (!remaining.isEmpty()) {
        qsizetype best = 0;
        for (qsizetype i = 1; i < remaining.size(); ++i) {
            if (remaining[i].first.size() > remaining[best].first.size()) best = i;
        }
        ordered.append(remaining.takeAt(best));
    }
    Simplifiers &s = simplifiers();
    QWriteLocker lock(&s.lock);
    s.ordered = ordered;
}

QString simplifyString(const QString &text) {
    if (text.isEmpty()) return text;
    QString s = plainASCIIString(stringWithoutWords(text, minorWords()));
    QString padded = QLatin1Char(' ') + s + QLatin1Char(' ');
    {
        Simplifiers &simp = simplifiers();
        QReadLocker lock(&simp.lock);
        for (const auto &[key, value] : simp.ordered) {
            if (!key.isEmpty()) padded.replace(key, value, Qt::CaseInsensitive);
        }
    }
    QString kept;
    kept.reserve(padded.size());
    for (QChar c : padded) {
        const char16_t u = c.unicode();
        if (u >= u'A' && u <= u'Z')
            kept.append(QChar(char16_t(u + 32)));
        else if ((u >= u'a' && u <= u'z') || (u >= u'0' && u <= u'9'))
            kept.append(c);
    }
    return kept.isEmpty() ? s : kept;
}

bool isString(const QString &a, const QString &b) {
    if (a.isNull() || b.isNull()) return false;
    return simplifyString(a) == simplifyString(b);
}

bool doesString(const QString &text, const QString &part) {
    if (text.isNull() || part.isNull()) return false;
    return text.contains(part, Qt::CaseInsensitive);
}

} // namespace FHUtility
