#include "PropertyList.h"

#include <QDateTime>
#include <QHash>
#include <QTimeZone>

#include <plist/plist.h>

#include <cstdlib>
#include <memory>

namespace {

// Property-list dates count seconds from 2001-01-01 00:00 UTC.
const QDateTime &referenceDate() {
    static const QDateTime ref(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
    return ref;
}

// Records repeat the same few keys thousands of times: share one string for each.
QString internedKey(const char *key) {
    thread_local QHash<QByteArray, QString> keys;
    const QByteArray bytes(key);
    auto it = keys.constFind(bytes);
    if (it != keys.constEnd()) return it.value();
    const QString s = QString::fromUtf8(bytes);
    if (keys.size() < 4096) keys.insert(bytes, s);
    return s;
}

struct PlistDeleter {
    void operator()(void *p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

QVariant toVariant(plist_t node, int depth) {
    if (!node || depth > 512) return {};
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return bool(b);
    }
    case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        // libplist keeps negative integers as their two's-complement bits.
        return qlonglong(static_cast<int64_t>(v));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return d;
    }
    case PLIST_STRING: {
        uint64_t len = 0;
        const char *s = plist_get_string_ptr(node, &len);
        return QString::fromUtf8(s, qsizetype(len));
    }
    case PLIST_DATA: {
        uint64_t len = 0;
        const char *d = plist_get_data_ptr(node, &len);
        return QByteArray(d, qsizetype(len));
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        // Binary property lists keep dates as doubles: round to the nearest millisecond.
        return referenceDate().addMSecs(qint64(sec) * 1000 + (usec + (usec >= 0 ? 500 : -500)) / 1000);
    }
    case PLIST_UID: {
        uint64_t v = 0;
        plist_get_uid_val(node, &v);
        return qulonglong(v);
    }
    case PLIST_ARRAY: {
        QVariantList list;
        const uint32_t n = plist_array_get_size(node);
        list.reserve(n);
        for (uint32_t i = 0; i < n; ++i)
            list.append(toVariant(plist_array_get_item(node, i), depth + 1));
        return list;
    }
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char *key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, it, &key, &value);
            if (!value) {
                std::free(key);
                break;
            }
            map.insert(internedKey(key), toVariant(value, depth + 1));
            std::free(key);
        }
        std::free(it);
        return map;
    }
    default:
        return {};
    }
}

plist_t fromVariant(const QVariant &value) {
    switch (value.typeId()) {
    case QMetaType::Bool:
        return plist_new_bool(value.toBool());
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return plist_new_uint(static_cast<uint64_t>(value.toLongLong()));
    case QMetaType::Double:
    case QMetaType::Float:
        return plist_new_real(value.toDouble());
    case QMetaType::QByteArray: {
        const QByteArray b = value.toByteArray();
        return plist_new_data(b.constData(), uint64_t(b.size()));
    }
    case QMetaType::QDateTime: {
        const qint64 ms = referenceDate().msecsTo(value.toDateTime());
        return plist_new_date(int32_t(ms / 1000), int32_t((ms % 1000) * 1000));
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        plist_t array = plist_new_array();
        for (const QVariant &v : value.toList())
            plist_array_append_item(array, fromVariant(v));
        return array;
    }
    case QMetaType::QVariantMap: {
        plist_t dict = plist_new_dict();
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            plist_dict_set_item(dict, it.key().toUtf8().constData(), fromVariant(it.value()));
        return dict;
    }
    default:
        return plist_new_string(value.toString().toUtf8().constData());
    }
}

} // namespace

namespace PropertyList {

QVariant fromData(const QByteArray &data, QString *error) {
    if (data.isEmpty()) {
        if (error) *error = QStringLiteral("empty property list");
        return {};
    }
    plist_t root = nullptr;
    plist_from_memory(data.constData(), uint32_t(data.size()), &root);
    PlistPtr guard(root);
    if (!root) {
        if (error) *error = QStringLiteral("not a property list");
        return {};
    }
    return toVariant(root, 0);
}

QByteArray toXml(const QVariant &value) {
    PlistPtr root(fromVariant(value));
    char *xml = nullptr;
    uint32_t len = 0;
    plist_to_xml(static_cast<plist_t>(root.get()), &xml, &len);
    QByteArray out(xml, qsizetype(len));
    plist_to_xml_free(xml);
    return out;
}

QByteArray toBinary(const QVariant &value) {
    PlistPtr root(fromVariant(value));
    char *bin = nullptr;
    uint32_t len = 0;
    plist_to_bin(static_cast<plist_t>(root.get()), &bin, &len);
    QByteArray out(bin, qsizetype(len));
    plist_to_bin_free(bin);
    return out;
}

} // namespace PropertyList
