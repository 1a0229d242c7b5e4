#include "shell/ReferenceTable.h"

#include <plist/plist.h>

#include <QDateTime>
#include <QTimeZone>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "io/RegularFile.h"
#include "log/Log.h"

namespace lumerix {

namespace {

// Plist dates count from 2001-01-01T00:00:00Z.
constexpr qint64 kPlistEpochSecs = 978307200;
constexpr int kMaxDepth = ReferenceTable::kMaxDepth;

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
            uint64_t length = 0;
            const char* s = plist_get_string_ptr(node, &length);
            return QVariant(s ? QString::fromUtf8(s, static_cast<qsizetype>(length)) : QString());
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
            if (depth >= kMaxDepth) return std::nullopt;
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
            if (depth >= kMaxDepth) return std::nullopt;
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
            if (depth >= kMaxDepth) return nullptr;
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
            if (depth >= kMaxDepth) return nullptr;
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

// ---- Nesting checks, run before the parser sees a document ---------------------------------------

bool startsWith(const char* p, const char* end, const char* text) {
    const size_t n = std::strlen(text);
    return static_cast<size_t>(end - p) >= n && std::memcmp(p, text, n) == 0;
}

// Just past the first `marker` at or after p; end when there is none.
const char* pastMarker(const char* p, const char* end, const char* marker) {
    const size_t n = std::strlen(marker);
    for (; static_cast<size_t>(end - p) >= n; ++p) {
        if (std::memcmp(p, marker, n) == 0) return p + n;
    }
    return end;
}

// Every element counts, whatever its name: the plist element, up to kMaxDepth containers and the
// value inside the innermost one. Comments, CDATA, declarations and quoted attribute values are
// stepped over as the parser steps over them, so no tag can hide from the count.
bool xmlNestingWithinLimit(const QByteArray& data) {
    constexpr int kMaxElements = kMaxDepth + 2;
    const char* p = data.constData();
    const char* const end = p + data.size();
    int depth = 0;
    while (p < end) {
        p = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(end - p)));
        if (!p) return true;
        ++p;
        if (startsWith(p, end, "!--")) {
            p = pastMarker(p + 3, end, "-->");
            continue;
        }
        if (startsWith(p, end, "![CDATA[")) {
            p = pastMarker(p + 8, end, "]]>");
            continue;
        }
        const bool declaration = p < end && (*p == '?' || *p == '!');
        const bool closing = p < end && *p == '/';
        char quote = 0;
        const char* q = p;
        for (; q < end; ++q) {
            if (quote) {
                if (*q == quote) quote = 0;
            } else if (*q == '"' || *q == '\'') {
                quote = *q;
            } else if (*q == '>') {
                break;
            }
        }
        if (q == end) return true;  // an unfinished tag: the parser refuses the document
        const bool selfClosing = q[-1] == '/';
        p = q + 1;
        if (declaration || selfClosing) continue;
        if (closing) {
            depth = std::max(0, depth - 1);
        } else if (++depth > kMaxElements) {
            return false;
        }
    }
    return true;
}

uint64_t bigEndian(const uchar* p, unsigned size) {
    uint64_t v = 0;
    for (unsigned i = 0; i < size; ++i) v = (v << 8) | p[i];
    return v;
}

// A binary plist as a graph of objects: containers (arrays, sets, dictionaries) refer to others by
// index. The parser recurses along every path of references and copies a shared object for each
// path, so both the longest chain of containers and the number of values it would make are
// bounded here, in one walk over the objects. A malformed document is refused too; the parser
// would refuse it as well.
class BinaryPlistShape {
public:
    explicit BinaryPlistShape(const QByteArray& data)
        : p_(reinterpret_cast<const uchar*>(data.constData())), size_(static_cast<uint64_t>(data.size())) {}

    bool withinLimits() {
        constexpr uint64_t kHeader = 8;
        constexpr uint64_t kTrailer = 32;
        if (size_ < kHeader + kTrailer) return false;
        const uchar* trailer = p_ + size_ - kTrailer;
        offsetSize_ = trailer[6];
        refSize_ = trailer[7];
        count_ = bigEndian(trailer + 8, 8);
        const uint64_t top = bigEndian(trailer + 16, 8);
        table_ = bigEndian(trailer + 24, 8);
        body_ = size_ - kTrailer;
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return false;
        if (count_ == 0 || count_ > body_ || top >= count_ || table_ > body_) return false;
        if ((body_ - table_) / offsetSize_ < count_) return false;

        state_.assign(count_, kNew);
        chain_.assign(count_, 0);
        values_.assign(count_, 0);
        Frame root{};
        if (!visit(top, root)) return false;
        if (root.children == 0) return true;  // a single value
        stack_.push_back(root);
        while (!stack_.empty()) {
            Frame& f = stack_.back();
            if (f.next < f.children) {
                const uint64_t child = bigEndian(p_ + f.refs + f.next * refSize_, refSize_);
                ++f.next;
                if (child >= count_) return false;
                if (state_[child] == kOnPath) return false;  // a cycle
                if (state_[child] == kDone) {
                    if (!addChild(f, child)) return false;
                    continue;
                }
                Frame next{};
                if (!visit(child, next)) return false;
                if (next.children == 0) {
                    if (!addChild(f, child)) return false;
                    continue;
                }
                if (stack_.size() >= static_cast<size_t>(kMaxDepth)) return false;
                stack_.push_back(next);
                continue;
            }
            const Frame done = f;
            stack_.pop_back();
            state_[done.object] = kDone;
            chain_[done.object] = static_cast<uint8_t>(done.chain + 1);
            values_[done.object] = done.values + 1;
            if (!stack_.empty() && !addChild(stack_.back(), done.object)) return false;
        }
        return true;
    }

private:
    enum : uint8_t { kNew, kOnPath, kDone };
    struct Frame {
        uint64_t object = 0;
        uint64_t refs = 0;      // offset of the first reference
        uint64_t children = 0;  // references to follow
        uint64_t next = 0;
        uint8_t chain = 0;    // the longest chain of containers below, so far
        uint64_t values = 0;  // values the parser would make below, so far
    };

    // The count in an object's marker, or the integer object after it; `next` is where the
    // object's contents start.
    bool countAt(uint64_t at, uint64_t& n, uint64_t& next) const {
        n = p_[at] & 0x0F;
        next = at + 1;
        if (n != 0x0F) return true;
        if (next >= body_ || (p_[next] >> 4) != 0x1) return false;
        const unsigned width = 1u << (p_[next] & 0x0F);
        if (width > 8 || body_ - next - 1 < width) return false;
        n = bigEndian(p_ + next + 1, width);
        next += 1 + width;
        return true;
    }

    // A string holding a zero character: the parser stops the process on one (an assertion
    // compares its length with strlen), so the document is refused.
    bool hasZeroCharacter(uint64_t at, unsigned type) const {
        uint64_t n = 0;
        uint64_t text = 0;
        if (!countAt(at, n, text)) return true;
        const uint64_t unit = type == 0x6 ? 2 : 1;  // UTF-16, else single bytes
        if (n > body_ || text > body_ || (body_ - text) / unit < n) return true;
        for (uint64_t i = 0; i < n; ++i) {
            if (p_[text + i * unit] == 0 && (unit == 1 || p_[text + i * unit + 1] == 0)) return true;
        }
        return false;
    }

    // Reads the object's header; a container gets its references, anything else none.
    bool visit(uint64_t object, Frame& frame) {
        const uint64_t at = bigEndian(p_ + table_ + object * offsetSize_, offsetSize_);
        if (at >= body_) return false;
        frame.object = object;
        const unsigned type = p_[at] >> 4;
        if (type == 0x5 || type == 0x6 || type == 0x7) {
            if (hasZeroCharacter(at, type)) return false;
        }
        if (type != 0xA && type != 0xC && type != 0xD) {
            state_[object] = kDone;
            values_[object] = 1;
            return true;
        }
        uint64_t n = 0;
        uint64_t refs = 0;
        if (!countAt(at, n, refs)) return false;
        if (type == 0xD) {
            if (n > body_) return false;
            n *= 2;  // keys, then values
        }
        if (n > body_ || refs > body_ || (body_ - refs) / refSize_ < n) return false;
        frame.refs = refs;
        frame.children = n;
        state_[object] = n == 0 ? kDone : kOnPath;
        if (n == 0) values_[object] = 1;
        return true;
    }

    bool addChild(Frame& parent, uint64_t child) {
        parent.chain = std::max(parent.chain, chain_[child]);
        parent.values += values_[child];
        return stack_.size() + parent.chain <= static_cast<size_t>(kMaxDepth) &&
               parent.values < kMaxBinaryValues;
    }

    static constexpr uint64_t kMaxBinaryValues = ReferenceTable::kMaxBinaryValues;
    const uchar* p_;
    const uint64_t size_;
    uint64_t body_ = 0;
    unsigned offsetSize_ = 0;
    unsigned refSize_ = 0;
    uint64_t count_ = 0;
    uint64_t table_ = 0;
    std::vector<uint8_t> state_;
    std::vector<uint8_t> chain_;    // containers on the longest chain from each object (done ones)
    std::vector<uint64_t> values_;  // values the parser makes for each object (done ones)
    std::vector<Frame> stack_;
};

bool nestingWithinLimit(const QByteArray& data) {
    if (data.startsWith("bplist")) return BinaryPlistShape(data).withinLimits();
    return xmlNestingWithinLimit(data);
}

}  // namespace

std::optional<QVariant> ReferenceTable::propertyListFromData(const QByteArray& data) {
    if (data.isEmpty() || data.size() > kMaxFileSize) return std::nullopt;
    if (!nestingWithinLimit(data)) return std::nullopt;
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

std::optional<QVariantList> ReferenceTable::arrayWithContentsOfFile(const QString& path, bool followLinks) {
    if (!RegularFile::exists(path)) return std::nullopt;
    QString why;
    const auto data = RegularFile::readAll(path, kMaxFileSize, followLinks, &why);
    if (!data) {
        Log::logf("ReferenceTable: %s is not read: %s", qUtf8Printable(path), qUtf8Printable(why));
        return std::nullopt;
    }
    const auto value = propertyListFromData(*data);
    if (!value || value->typeId() != QMetaType::QVariantList) return std::nullopt;
    return value->toList();
}

bool ReferenceTable::writeToFile(const QVariantList& array, const QString& path) {
    const QByteArray xml = xmlFromPropertyList(QVariant(array));
    if (xml.isEmpty() || path.isEmpty()) return false;
    QString why;
    if (RegularFile::writeAtomically(path, xml, &why)) return true;
    Log::logf("ReferenceTable: %s is not written: %s", qUtf8Printable(path), qUtf8Printable(why));
    return false;
}

}  // namespace lumerix
