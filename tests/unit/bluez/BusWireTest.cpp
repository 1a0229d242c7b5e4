// Plain advertisements read from the bytes of a message: exactly the PropertiesChanged the intake may
// take past sd-bus, in either byte order; anything else is left to sd-bus.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/bluez/BusWire.h"

namespace lumerix {
namespace {

using buswire::Frame;

// Marshals values as the protocol lays them out; offsets count from the message's start (the
// header fields and the body both begin 8-aligned, so counting within each is the same).
class Wire {
public:
    explicit Wire(bool big) : big_(big) {}
    std::vector<uint8_t> bytes;

    void pad(size_t a) {
        while (bytes.size() % a) bytes.push_back(0);
    }
    void u8(uint8_t v) { bytes.push_back(v); }
    void u16(uint16_t v) {
        pad(2);
        put(v, 2);
    }
    void u32(uint32_t v) {
        pad(4);
        put(v, 4);
    }
    void str(const std::string& s) {
        u32(static_cast<uint32_t>(s.size()));
        bytes.insert(bytes.end(), s.begin(), s.end());
        bytes.push_back(0);
    }
    void sig(const std::string& s) {
        u8(static_cast<uint8_t>(s.size()));
        bytes.insert(bytes.end(), s.begin(), s.end());
        bytes.push_back(0);
    }
    // Returns where the array's elements start; end() fills in its length.
    size_t begin(size_t elementAlign) {
        u32(0);
        lengthAt_.push_back(bytes.size() - 4);
        pad(elementAlign);
        return bytes.size();
    }
    void end(size_t start) {
        const size_t at = lengthAt_.back();
        lengthAt_.pop_back();
        Wire n(big_);
        n.put(static_cast<uint32_t>(bytes.size() - start), 4);
        std::copy(n.bytes.begin(), n.bytes.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
    }

private:
    void put(uint32_t v, int size) {
        for (int i = 0; i < size; ++i) {
            const int shift = 8 * (big_ ? size - 1 - i : i);
            bytes.push_back(static_cast<uint8_t>(v >> shift));
        }
    }
    bool big_;
    std::vector<size_t> lengthAt_;
};

struct Property {
    std::string key;
    std::string type;  // "n", "a{qv}" (companies below) or "s"
    int16_t rssi = 0;
    std::vector<std::pair<uint16_t, std::string>> companies;  // value "s:..." marshals as a string
};

struct Message {
    bool big = false;
    uint8_t type = 4;  // signal
    std::string path = "/org/bluez/hci0/dev_AA_BB_CC_00_00_01";
    std::string interface = "org.freedesktop.DBus.Properties";
    std::string member = "PropertiesChanged";
    std::string signature = "sa{sv}as";
    bool destination = false;
    std::string changedInterface = "org.bluez.Device1";
    std::vector<Property> properties;
    std::vector<std::string> invalidated;
};

std::vector<uint8_t> marshal(const Message& m) {
    Wire body(m.big);
    body.str(m.changedInterface);
    const size_t dict = body.begin(8);
    for (const Property& p : m.properties) {
        body.pad(8);
        body.str(p.key);
        body.sig(p.type);
        if (p.type == "n") {
            body.u16(static_cast<uint16_t>(p.rssi));
        } else if (p.type == "s") {
            body.str("text");
        } else {
            const size_t entries = body.begin(8);
            for (const auto& [company, value] : p.companies) {
                body.pad(8);
                body.u16(company);
                if (value.rfind("s:", 0) == 0) {
                    body.sig("s");
                    body.str(value.substr(2));
                } else {
                    body.sig("ay");
                    const size_t start = body.begin(1);
                    body.bytes.insert(body.bytes.end(), value.begin(), value.end());
                    body.end(start);
                }
            }
            body.end(entries);
        }
    }
    body.end(dict);
    const size_t names = body.begin(4);
    for (const std::string& name : m.invalidated) body.str(name);
    body.end(names);

    Wire fields(m.big);
    auto field = [&](uint8_t code, const char* type, const std::string& value) {
        fields.pad(8);
        fields.u8(code);
        fields.sig(type);
        if (std::string(type) == "g")
            fields.sig(value);
        else
            fields.str(value);
    };
    field(1, "o", m.path);
    field(2, "s", m.interface);
    field(3, "s", m.member);
    if (m.destination) field(6, "s", ":1.7");
    field(7, "s", ":1.2");
    field(8, "g", m.signature);

    Wire out(m.big);
    out.u8(m.big ? 'B' : 'l');
    out.u8(m.type);
    out.u8(0);
    out.u8(1);
    out.u32(static_cast<uint32_t>(body.bytes.size()));
    out.u32(42);
    out.u32(static_cast<uint32_t>(fields.bytes.size()));
    out.bytes.insert(out.bytes.end(), fields.bytes.begin(), fields.bytes.end());
    out.pad(8);
    out.bytes.insert(out.bytes.end(), body.bytes.begin(), body.bytes.end());
    return out.bytes;
}

Property rssi(int16_t v) { return {"RSSI", "n", v, {}}; }
Property data(std::vector<std::pair<uint16_t, std::string>> companies) {
    return {"ManufacturerData", "a{qv}", 0, std::move(companies)};
}

TEST(BusWire, PlainAdvertisementsInEitherByteOrder) {
    for (const bool big : {false, true}) {
        SCOPED_TRACE(big ? "big-endian" : "little-endian");
        Message m;
        m.big = big;
        // The lowest company identifier wins, whatever the order.
        m.properties = {rssi(-61), data({{0x0900, "later"}, {0x004C, "\x01\x02"}})};
        const std::vector<uint8_t> bytes = marshal(m);
        size_t length = 0;
        ASSERT_EQ(buswire::frame(bytes.data(), bytes.size(), &length), Frame::kComplete);
        EXPECT_EQ(length, bytes.size());
        const auto plain = buswire::plainAdvertisement(bytes.data(), bytes.size());
        ASSERT_TRUE(plain);
        EXPECT_EQ(plain->path, m.path);
        EXPECT_TRUE(plain->advertisement.hasRssi);
        EXPECT_EQ(plain->advertisement.rssi, -61);
        EXPECT_TRUE(plain->advertisement.hasManufacturerData);
        EXPECT_EQ(plain->advertisement.manufacturerData, QByteArray("\x4C\x00\x01\x02", 4));
    }
}

TEST(BusWire, OneOfTheTwoProperties) {
    Message m;
    m.properties = {rssi(-70)};
    auto bytes = marshal(m);
    auto plain = buswire::plainAdvertisement(bytes.data(), bytes.size());
    ASSERT_TRUE(plain);
    EXPECT_TRUE(plain->advertisement.hasRssi);
    EXPECT_FALSE(plain->advertisement.hasManufacturerData);

    m.properties = {data({})};  // present and empty: the record is cleared
    bytes = marshal(m);
    plain = buswire::plainAdvertisement(bytes.data(), bytes.size());
    ASSERT_TRUE(plain);
    EXPECT_FALSE(plain->advertisement.hasRssi);
    EXPECT_TRUE(plain->advertisement.hasManufacturerData);
    EXPECT_FALSE(plain->advertisement.manufacturerData);
}

TEST(BusWire, EverythingElseIsLeftToSdBus) {
    struct Case {
        const char* what;
        std::function<void(Message&)> change;
    };
    const Case cases[] = {
        {"a name change too",
         [](Message& m) {
             m.properties.push_back({"Name", "s", 0, {}});
         }},
        {"RSSI of another type", [](Message& m) { m.properties[0].type = "s"; }},
        {"a company value that is no byte array",
         [](Message& m) {
             m.properties.push_back(data({{0x004C, "s:text"}}));
         }},
        {"something invalidated", [](Message& m) { m.invalidated = {"Name"}; }},
        {"sent to us alone", [](Message& m) { m.destination = true; }},
        {"another interface's properties", [](Message& m) { m.changedInterface = "org.bluez.Adapter1"; }},
        {"another member", [](Message& m) { m.member = "InterfacesAdded"; }},
        {"another signature", [](Message& m) { m.signature = "sa{sv}"; }},
        {"a method call", [](Message& m) { m.type = 1; }},
        {"no property", [](Message& m) { m.properties.clear(); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Message m;
        m.properties = {rssi(-50)};
        c.change(m);
        const std::vector<uint8_t> bytes = marshal(m);
        EXPECT_FALSE(buswire::plainAdvertisement(bytes.data(), bytes.size()));
    }
}

TEST(BusWire, FramesAndBrokenMessages) {
    Message m;
    m.properties = {rssi(-50), data({{0x004C, "abc"}})};
    const std::vector<uint8_t> good = marshal(m);
    size_t length = 0;
    EXPECT_EQ(buswire::frame(good.data(), 15, &length), Frame::kIncomplete);
    EXPECT_EQ(buswire::frame(good.data(), good.size() - 1, &length), Frame::kIncomplete);
    EXPECT_EQ(length, good.size());
    // Every shortened copy, and every copy with one length byte raised, is refused without a read
    // past its end (the sanitizer builds watch that).
    for (size_t n = 0; n < good.size(); ++n) {
        std::vector<uint8_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n));
        EXPECT_FALSE(buswire::plainAdvertisement(cut.data(), cut.size())) << n;
        std::vector<uint8_t> bent = good;
        bent[n] = static_cast<uint8_t>(bent[n] + 1);
        const auto plain = buswire::plainAdvertisement(bent.data(), bent.size());
        if (!plain) continue;
        const auto* path = reinterpret_cast<const uint8_t*>(plain->path.data());
        EXPECT_TRUE(path >= bent.data() && path + plain->path.size() <= bent.data() + bent.size()) << n;
    }
    std::vector<uint8_t> bad = good;
    bad[0] = 'x';
    EXPECT_EQ(buswire::frame(bad.data(), bad.size(), &length), Frame::kInvalid);
    bad = good;
    bad[3] = 2;  // protocol version
    EXPECT_EQ(buswire::frame(bad.data(), bad.size(), &length), Frame::kInvalid);
    bad = good;
    bad[7] = 0x7F;  // a body of about 2 GiB
    EXPECT_EQ(buswire::frame(bad.data(), bad.size(), &length), Frame::kInvalid);
}

}  // namespace
}  // namespace lumerix
