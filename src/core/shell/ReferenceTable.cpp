#include "shell/ReferenceTable.h"

#include <plist/plist.h>

#include <QDateTime>
#include <QFile>
#include <QSaveFile>
#include <QTimeZone>
#include <cstdlib>
#include <limits>
#include <memory>

#include "log/Log.h"

namespace lumerix {

namespace {

// Plist dates count from 2001-01-01T00:00:00Z.
constexpr qint64 kPlistEpochSecs = 978307200;
// Nesting beyond this is refused rather than risking the stack on hostile files.
constexpr int kMaxDepth = 64;

struct PlistFree {
    void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistFree>;

std::optional<QVariant> toVariant(plist_t node, int depth) {
    if (!node || depth > kMaxDepth) return std::nullopt;
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t v = 0;
            plist_get_bool_val(node, &v);
            return QVariant(v != 0);
        }
        case PLIST_UINT: {
            // Stored as 64 raw bits; negative integers come back through the signed view.
            uint64_t v = 0;
            plist_get_uint_val(node, &v);
            return QVariant(static_cast<qint64>(v));
        }
        case PLIST_REAL: {
            double v = 0;
            plist_get_real_val(node, &v);
            return QVariant(v);
        }
        case PLIST_STRING: {
            char* s = nullptr;
            plist_get_string_val(node, &s);
            QString v = QString::fromUtf8(s ? s : "");
            std::free(s);
            return QVariant(v);
        }
        case PLIST_DATE: {
            int32_t sec = 0;
            int32_t usec = 0;
            plist_get_date_val(node, &sec, &usec);
            const qint64 ms = (kPlistEpochSecs + sec) * 1000 + usec / 1000;
            return QVariant(QDateTime::fromMSecsSinceEpoch(ms, QTimeZone::utc()));
        }
        case PLIST_DATA: {
            char* d = nullptr;
            uint64_t len = 0;
            plist_get_data_val(node, &d, &len);
            QByteArray v(d ? d : "", d ? static_cast<qsizetype>(len) : 0);
            std::free(d);
            return QVariant(v);
        }
        case PLIST_ARRAY: {
            QVariantList list;
            const uint32_t n = plist_array_get_size(node);
            for (uint32_t i = 0; i < n; ++i) {
                auto v = toVariant(plist_array_get_item(node, i), depth + 1);
                if (!v) return std::nullopt;
                list.append(*v);
            }
            return QVariant(list);
        }
        case PLIST_DICT: {
            QVariantMap map;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            for (;;) {
                char* key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, it, &key, &value);
                if (!value) {
                    std::free(key);
                    break;
                }
                auto v = toVariant(value, depth + 1);
                const QString k = QString::fromUtf8(key ? key : "");
                std::free(key);
                if (!v) {
                    std::free(it);
                    return std::nullopt;
                }
                map.insert(k, *v);
            }
            std::free(it);
            return QVariant(map);
        }
        case PLIST_UID: {
            // Archive references keep the form XML gives them.
            uint64_t v = 0;
            plist_get_uid_val(node, &v);
            return QVariant(QVariantMap{{QStringLiteral("CF$UID"), QVariant(static_cast<qint64>(v))}});
        }
        default:
            return std::nullopt;
    }
}

plist_t fromVariant(const QVariant& value, int depth) {
    if (depth > kMaxDepth) return nullptr;
    switch (value.typeId()) {
        case QMetaType::Bool:
            return plist_new_bool(value.toBool() ? 1 : 0);
        case QMetaType::Int:
        case QMetaType::Long:
        case QMetaType::LongLong:
        case QMetaType::Short:
        case QMetaType::Char:
        case QMetaType::SChar:
            return plist_new_uint(static_cast<uint64_t>(value.toLongLong()));
        case QMetaType::UInt:
        case QMetaType::ULong:
        case QMetaType::ULongLong:
        case QMetaType::UShort:
        case QMetaType::UChar:
            return plist_new_uint(value.toULongLong());
        case QMetaType::Double:
        case QMetaType::Float:
            return plist_new_real(value.toDouble());
        case QMetaType::QString:
            return plist_new_string(value.toString().toUtf8().constData());
        case QMetaType::QByteArray: {
            const QByteArray b = value.toByteArray();
            return plist_new_data(b.constData(), static_cast<uint64_t>(b.size()));
        }
        case QMetaType::QDateTime:
        case QMetaType::QDate: {
            const qint64 ms = value.toDateTime().toMSecsSinceEpoch() - kPlistEpochSecs * 1000;
            qint64 sec = ms / 1000;
            qint64 msRest = ms % 1000;
            if (msRest < 0) {
                msRest += 1000;
                sec -= 1;
            }
            if (sec < std::numeric_limits<int32_t>::min() || sec > std::numeric_limits<int32_t>::max()) {
                return nullptr;
            }
            return plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>(msRest * 1000));
        }
        case QMetaType::QVariantList:
        case QMetaType::QStringList: {
            PlistPtr array(plist_new_array());
            for (const QVariant& v : value.toList()) {
                plist_t item = fromVariant(v, depth + 1);
                if (!item) return nullptr;
                plist_array_append_item(array.get(), item);
            }
            return array.release();
        }
        case QMetaType::QVariantMap:
        case QMetaType::QVariantHash: {
            PlistPtr dict(plist_new_dict());
            const QVariantMap map = value.toMap();
            for (auto it = map.cbegin(); it != map.cend(); ++it) {
                plist_t item = fromVariant(it.value(), depth + 1);
                if (!item) return nullptr;
                plist_dict_set_item(dict.get(), it.key().toUtf8().constData(), item);
            }
            return dict.release();
        }
        default:
            return nullptr;
    }
}

}  // namespace

std::optional<QVariant> ReferenceTable::propertyListFromData(const QByteArray& data) {
    if (data.isEmpty() || data.size() > kMaxFileSize) return std::nullopt;
    plist_t root = nullptr;
    plist_from_memory(data.constData(), static_cast<uint32_t>(data.size()), &root);
    PlistPtr owned(root);
    if (!root) return std::nullopt;
    return toVariant(root, 0);
}

QByteArray ReferenceTable::xmlFromPropertyList(const QVariant& value) {
    PlistPtr root(fromVariant(value, 0));
    if (!root) return {};
    char* xml = nullptr;
    uint32_t len = 0;
    plist_to_xml(root.get(), &xml, &len);
    QByteArray out(xml ? xml : "", xml ? static_cast<qsizetype>(len) : 0);
    plist_to_xml_free(xml);
    return out;
}

std::optional<QVariantList> ReferenceTable::arrayWithContentsOfFile(const QString& path) {
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly)) return std::nullopt;
    if (file.size() > kMaxFileSize) {
        Log::logf("ReferenceTable: %s is too large to be a reference table", qUtf8Printable(path));
        return std::nullopt;
    }
    const auto value = propertyListFromData(file.readAll());
    if (!value || value->typeId() != QMetaType::QVariantList) return std::nullopt;
    return value->toList();
}

bool ReferenceTable::writeToFile(const QVariantList& array, const QString& path) {
    const QByteArray xml = xmlFromPropertyList(QVariant(array));
    if (xml.isEmpty() || path.isEmpty()) return false;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) return false;
    if (file.write(xml) != xml.size()) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
}

}  // namespace lumerix
