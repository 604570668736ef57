#include "FHStringExtensions.h"

#include <QBuffer>
#include <QImageReader>
#include <QMutex>
#include <QPainter>

#include <unicode/translit.h>
#include <unicode/unistr.h>

#include <cmath>
#include <memory>

QString stringWithoutWords(const QString &text, const QStringList &words) {
    QString s = QLatin1Char(' ') + text + QLatin1Char(' ');
    for (const QString &word : words) {
        const QString needle = QLatin1Char(' ') + word + QLatin1Char(' ');
        qsizetype from = 0;
        for (;;) {
            const qsizetype at = s.indexOf(needle, from, Qt::CaseInsensitive);
            if (at < 0) break;
            s.replace(at, needle.size(), QLatin1Char(' '));
            from = at + 1;
        }
    }
    return s.trimmed();
}

namespace {
bool isPlainASCII(const QString &text) {
    for (QChar c : text) {
        if (c.unicode() >= 0x80) return false;
    }
    return true;
}

struct Transliterator {
    QMutex lock;
    std::unique_ptr<icu::Transliterator> impl;
    bool tried = false;
};

Transliterator &sharedTransliterator() {
    static Transliterator t;
    return t;
}
} // namespace

QString plainASCIIString(const QString &text) {
    if (isPlainASCII(text)) return text;
    Transliterator &t = sharedTransliterator();
    QMutexLocker lock(&t.lock);
    if (!t.tried) {
        t.tried = true;
        UErrorCode status = U_ZERO_ERROR;
        t.impl.reset(icu::Transliterator::createInstance("Any-Latin; Latin-ASCII", UTRANS_FORWARD, status));
        if (U_FAILURE(status)) t.impl.reset();
    }
    QString out;
    if (t.impl) {
        icu::UnicodeString u(reinterpret_cast<const UChar *>(text.utf16()), int32_t(text.size()));
        t.impl->transliterate(u);
        out = QString(reinterpret_cast<const QChar *>(u.getBuffer()), u.length());
    } else {
        out = text;
    }
    // What has no ASCII form is replaced, as a lossy conversion does.
    for (QChar &c : out) {
        if (c.unicode() >= 0x80) c = QLatin1Char('?');
    }
    return out;
}

QImage imageIconNoLargerThan(const QByteArray &imageData, double maxWidth, double maxHeight) {
    // Decode at a reduced size where the format allows (JPEG decodes at 1/2 to 1/8 directly):
    // an icon needs only a few pixels of a large cover.
    QByteArray bytes = imageData;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    const QSize full = reader.size();
    if (full.width() > 0 && full.height() > 0) {
        const double fit = std::min(maxWidth / full.width(), maxHeight / full.height());
        if (fit < 0.25)
            reader.setScaledSize(
                QSize(std::max(1, int(full.width() * fit * 4)), std::max(1, int(full.height() * fit * 4))));
    }
    QImage source = reader.read();
    if (source.isNull() || source.width() < 1 || source.height() < 1) {
        source = QImage(QStringLiteral(":/images/unreadable_art.png"));
        if (source.isNull()) return {};
    }
    // The scale is taken from the picture's own size, whatever size it was decoded at.
    const QSize original =
        (full.width() > 0 && full.height() > 0 && reader.error() == QImageReader::UnknownError)
            ? full
            : source.size();
    const double scale = std::min(maxWidth / original.width(), maxHeight / original.height());
    int w = int(std::lround(original.width() * scale));
    int h = int(std::lround(original.height() * scale));
    if (w % 2) --w;
    if (h % 2) --h;
    if (w < 1 || h < 1) return {};
    QImage icon(w, h, QImage::Format_ARGB32_Premultiplied);
    icon.fill(Qt::transparent);
    QPainter painter(&icon);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(QRectF(0, 0, w, h), source);
    painter.setPen(QPen(Qt::black, 0.5));
    painter.drawRect(QRectF(0.5, 0.5, w - 1.0, h - 1.0));
    painter.end();
    return icon;
}
