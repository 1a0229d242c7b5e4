#include "platform/bluez/BusWire.h"

#include <QByteArray>

namespace lumerix::buswire {
namespace {

constexpr size_t kFixedHeader = 16;

constexpr size_t align8(size_t n) { return (n + 7) & ~size_t(7); }

// Reads the marshalled values of one message; every read checks its bounds, alignment counts from
// the message's first byte.
class Reader {
public:
    Reader(const uint8_t* data, size_t end, bool bigEndian) : d_(data), end_(end), big_(bigEndian) {}

    size_t pos() const { return pos_; }
    void seek(size_t pos) { pos_ = pos; }
    bool setEnd(size_t end) {
        if (end < pos_) return false;
        end_ = end;
        return true;
    }

    bool align(size_t a) {
        const size_t p = (pos_ + a - 1) & ~(a - 1);
        if (p > end_) return false;
        pos_ = p;
        return true;
    }
    bool u8(uint8_t* v) {
        if (end_ - pos_ < 1) return false;
        *v = d_[pos_++];
        return true;
    }
    bool u16(uint16_t* v) {
        if (!align(2) || end_ - pos_ < 2) return false;
        const uint16_t a = d_[pos_];
        const uint16_t b = d_[pos_ + 1];
        *v = big_ ? uint16_t(a << 8 | b) : uint16_t(b << 8 | a);
        pos_ += 2;
        return true;
    }
    bool u32(uint32_t* v) {
        if (!align(4) || end_ - pos_ < 4) return false;
        uint32_t r = 0;
        for (size_t i = 0; i < 4; ++i) {
            const uint32_t byte = d_[pos_ + (big_ ? i : 3 - i)];
            r = r << 8 | byte;
        }
        *v = r;
        pos_ += 4;
        return true;
    }
    // A string or object path: length, bytes, a terminating NUL.
    bool string(std::string_view* s) {
        uint32_t n = 0;
        if (!u32(&n) || end_ - pos_ < size_t(n) + 1 || d_[pos_ + n] != 0) return false;
        *s = std::string_view(reinterpret_cast<const char*>(d_ + pos_), n);
        pos_ += size_t(n) + 1;
        return true;
    }
    bool signature(std::string_view* s) {
        uint8_t n = 0;
        if (!u8(&n) || end_ - pos_ < size_t(n) + 1 || d_[pos_ + n] != 0) return false;
        *s = std::string_view(reinterpret_cast<const char*>(d_ + pos_), n);
        pos_ += size_t(n) + 1;
        return true;
    }
    // An array's byte length; on return pos() is at its first element (aligned to elementAlign).
    bool array(size_t elementAlign, size_t* end) {
        uint32_t n = 0;
        if (!u32(&n) || !align(elementAlign) || end_ - pos_ < n) return false;
        *end = pos_ + n;
        return true;
    }
    const uint8_t* here() const { return d_ + pos_; }
    bool skip(size_t n) {
        if (end_ - pos_ < n) return false;
        pos_ += n;
        return true;
    }

private:
    const uint8_t* d_;
    size_t end_;
    size_t pos_ = 0;
    bool big_;
};

enum Field : uint8_t {
    kPath = 1,
    kInterface = 2,
    kMember = 3,
    kErrorName = 4,
    kReplySerial = 5,
    kDestination = 6,
    kSender = 7,
    kSignature = 8,
    kUnixFds = 9,
};

constexpr uint8_t kSignal = 4;

struct Header {
    std::string_view path, interface, member, signature;
    bool destination = false;
    uint32_t unixFds = 0;
};

bool readHeader(Reader& r, size_t fieldsEnd, Header* h) {
    while (r.pos() < fieldsEnd) {
        uint8_t code = 0;
        std::string_view type;
        if (!r.align(8) || !r.u8(&code) || !r.signature(&type)) return false;
        std::string_view text;
        uint32_t number = 0;
        if (type == "s" || type == "o") {
            if (!r.string(&text)) return false;
        } else if (type == "g") {
            if (!r.signature(&text)) return false;
        } else if (type == "u") {
            if (!r.u32(&number)) return false;
        } else {
            return false;  // no header field of the protocol has another type
        }
        switch (code) {
            case kPath:
                h->path = text;
                break;
            case kInterface:
                h->interface = text;
                break;
            case kMember:
                h->member = text;
                break;
            case kDestination:
                h->destination = true;
                break;
            case kSignature:
                h->signature = text;
                break;
            case kUnixFds:
                h->unixFds = number;
                break;
            default:
                break;  // error name, reply serial, sender, or a field added later
        }
    }
    return r.pos() == fieldsEnd;
}

// ManufacturerData's a{qv}, every value a byte array; the lowest company identifier wins.
bool readManufacturerData(Reader& r, std::optional<QByteArray>* out) {
    size_t end = 0;
    if (!r.array(8, &end)) return false;
    bool any = false;
    uint16_t best = 0;
    const uint8_t* bytes = nullptr;
    uint32_t size = 0;
    while (r.pos() < end) {
        uint16_t company = 0;
        std::string_view type;
        uint32_t n = 0;
        if (!r.align(8) || !r.u16(&company) || !r.signature(&type) || type != "ay" || !r.u32(&n))
            return false;
        const uint8_t* data = r.here();
        if (!r.skip(n)) return false;
        if (!any || company < best) {
            best = company;
            bytes = data;
            size = n;
        }
        any = true;
    }
    if (r.pos() != end) return false;
    out->reset();
    if (!any) return true;
    *out = manufacturerRecord(best, bytes, size);
    return true;
}

}  // namespace

Frame frame(const uint8_t* data, size_t available, size_t* length) {
    if (available < kFixedHeader) return Frame::kIncomplete;
    const uint8_t order = data[0];
    if ((order != 'l' && order != 'B') || data[3] != 1) return Frame::kInvalid;
    Reader r(data, kFixedHeader, order == 'B');
    uint32_t body = 0;
    uint32_t serial = 0;
    uint32_t fields = 0;
    r.seek(4);
    if (!r.u32(&body) || !r.u32(&serial) || !r.u32(&fields)) return Frame::kInvalid;
    const uint64_t total = uint64_t(align8(kFixedHeader + uint64_t(fields))) + body;
    if (total > kMaxMessageSize) return Frame::kInvalid;
    *length = static_cast<size_t>(total);
    return available >= total ? Frame::kComplete : Frame::kIncomplete;
}

std::optional<PlainAdvertisement> plainAdvertisement(const uint8_t* data, size_t length) {
    size_t expected = 0;
    if (frame(data, length, &expected) != Frame::kComplete || expected != length || data[1] != kSignal)
        return std::nullopt;
    Reader r(data, length, data[0] == 'B');
    uint32_t fields = 0;
    r.seek(12);
    if (!r.u32(&fields)) return std::nullopt;
    const size_t fieldsEnd = kFixedHeader + fields;
    Header h;
    if (!r.setEnd(fieldsEnd) || !readHeader(r, fieldsEnd, &h) || !r.setEnd(length)) return std::nullopt;
    if (h.destination || h.unixFds != 0 || h.path.empty() ||
        h.interface != "org.freedesktop.DBus.Properties" || h.member != "PropertiesChanged" ||
        h.signature != "sa{sv}as")
        return std::nullopt;

    r.seek(align8(fieldsEnd));
    std::string_view interface;
    size_t end = 0;
    if (!r.string(&interface) || interface != "org.bluez.Device1" || !r.array(8, &end)) return std::nullopt;
    PlainAdvertisement out{h.path, {}};
    BluezAdvertisement& a = out.advertisement;
    while (r.pos() < end) {
        std::string_view key;
        std::string_view type;
        if (!r.align(8) || !r.string(&key) || !r.signature(&type)) return std::nullopt;
        if (key == "RSSI" && type == "n") {
            uint16_t v = 0;
            if (!r.u16(&v)) return std::nullopt;
            a.hasRssi = true;
            a.rssi = static_cast<qint16>(v);
        } else if (key == "ManufacturerData" && type == "a{qv}") {
            if (!readManufacturerData(r, &a.manufacturerData)) return std::nullopt;
            a.hasManufacturerData = true;
        } else {
            return std::nullopt;  // another property: a change sd-bus's reader takes
        }
    }
    uint32_t invalidated = 1;
    if (r.pos() != end || !r.u32(&invalidated) || invalidated != 0 || r.pos() != length) return std::nullopt;
    if (!a.hasRssi && !a.hasManufacturerData) return std::nullopt;
    return out;
}

}  // namespace lumerix::buswire
