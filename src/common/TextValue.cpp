#include "TextValue.h"

#include <climits>

namespace TextValue {

long long longLongValue(QStringView text) {
    qsizetype i = 0;
    const qsizetype n = text.size();
    while (i < n && text[i].isSpace())
        ++i;
    bool negative = false;
    if (i < n && (text[i] == u'-' || text[i] == u'+')) {
        negative = text[i] == u'-';
        ++i;
    }
    long long value = 0;
    bool saturated = false;
    for (; i < n; ++i) {
        const char16_t c = text[i].unicode();
        if (c < u'0' || c > u'9') break;
        if (!saturated) {
            if (value > (LLONG_MAX - (c - u'0')) / 10)
                saturated = true;
            else
                value = value * 10 + (c - u'0');
        }
    }
    if (saturated) return negative ? LLONG_MIN : LLONG_MAX;
    return negative ? -value : value;
}

int intValue(QStringView text) {
    const long long v = longLongValue(text);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return int(v);
}

static inline bool isDigit(QChar c) {
    return c.unicode() >= u'0' && c.unicode() <= u'9';
}

static inline char16_t folded(QChar c) {
    const char16_t u = c.unicode();
    if (u < 0x80) return (u >= u'A' && u <= u'Z') ? char16_t(u + 32) : u;
    return c.toCaseFolded().unicode();
}

int compareCaseInsensitiveNumeric(const QString &a, const QString &b) {
    qsizetype i = 0, j = 0;
    const qsizetype na = a.size(), nb = b.size();
    while (i < na && j < nb) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            // Compare the digit runs by value: skip leading zeros, then the longer run is larger,
            // then the first differing digit decides.
            qsizetype si = i, sj = j;
            while (si < na && a[si] == u'0')
                ++si;
            while (sj < nb && b[sj] == u'0')
                ++sj;
            qsizetype ei = si, ej = sj;
            while (ei < na && isDigit(a[ei]))
                ++ei;
            while (ej < nb && isDigit(b[ej]))
                ++ej;
            if (ei - si != ej - sj) return (ei - si) < (ej - sj) ? -1 : 1;
            for (qsizetype k = 0; k < ei - si; ++k) {
                if (a[si + k] != b[sj + k]) return a[si + k] < b[sj + k] ? -1 : 1;
            }
            i = ei;
            j = ej;
            continue;
        }
        const char16_t ca = folded(a[i]), cb = folded(b[j]);
        if (ca != cb) return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < na) return 1;
    if (j < nb) return -1;
    return 0;
}

int compareCaseInsensitive(const QString &a, const QString &b) {
    const int r = QString::compare(a, b, Qt::CaseInsensitive);
    return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

} // namespace TextValue
