// The one reader of Device1 properties, on the hot path of every advertisement (PropertiesChanged)
// and for new devices (InterfacesAdded, the same shape as each object of the snapshot), read
// straight from the sd-bus message. Messages are built on a connection that never reaches a bus,
// sealed, and read back as the intake reads them.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "OfflineBus.h"
#include "platform/bluez/BluezInterfaces.h"
#include "platform/bluez/ObjectManager.h"

namespace lumerix {
namespace {

using bluez::Device1;

struct Company {
    uint16_t id;
    std::vector<uint8_t> bytes;  // as an ay; empty with asString for a value of another type
    bool asString = false;
};

class Messages {
public:
    // A PropertiesChanged whose a{sv} the body function appends entries to, rewound past its name.
    sdbus::MessagePtr changed(const std::function<void(sd_bus_message*)>& body) {
        sd_bus_message* m = nullptr;
        if (sd_bus_message_new_signal(bus_.get(), &m, "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF",
                                      "org.freedesktop.DBus.Properties", "PropertiesChanged") < 0)
            return nullptr;
        sdbus::MessagePtr owned(m);
        sd_bus_message_append(m, "s", "org.bluez.Device1");
        sd_bus_message_open_container(m, 'a', "{sv}");
        body(m);
        sd_bus_message_close_container(m);
        sd_bus_message_append(m, "as", 0);
        if (!seal(m)) return nullptr;
        const char* iface = nullptr;
        sd_bus_message_read_basic(m, 's', &iface);
        return owned;
    }

    // An InterfacesAdded for a device whose Device1 a{sv} the body function appends entries to.
    sdbus::MessagePtr added(const std::function<void(sd_bus_message*)>& body) {
        sd_bus_message* m = nullptr;
        if (sd_bus_message_new_signal(bus_.get(), &m, "/", "org.freedesktop.DBus.ObjectManager",
                                      "InterfacesAdded") < 0)
            return nullptr;
        sdbus::MessagePtr owned(m);
        sd_bus_message_append(m, "o", "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF");
        sd_bus_message_open_container(m, 'a', "{sa{sv}}");
        sd_bus_message_append(m, "{sa{sv}}", "org.freedesktop.DBus.Properties", 0);
        sd_bus_message_open_container(m, 'e', "sa{sv}");
        sd_bus_message_append(m, "s", "org.bluez.Device1");
        sd_bus_message_open_container(m, 'a', "{sv}");
        body(m);
        sd_bus_message_close_container(m);
        sd_bus_message_close_container(m);
        sd_bus_message_close_container(m);
        if (!seal(m)) return nullptr;
        return owned;
    }

private:
    bool seal(sd_bus_message* m) {
        return sd_bus_message_seal(m, ++cookie_, 0) >= 0 && sd_bus_message_rewind(m, 1) >= 0;
    }

    test::OfflineBus bus_;
    uint64_t cookie_ = 0;
};

void manufacturerData(sd_bus_message* m, const std::vector<Company>& companies) {
    sd_bus_message_open_container(m, 'e', "sv");
    sd_bus_message_append(m, "s", "ManufacturerData");
    sd_bus_message_open_container(m, 'v', "a{qv}");
    sd_bus_message_open_container(m, 'a', "{qv}");
    for (const Company& c : companies) {
        sd_bus_message_open_container(m, 'e', "qv");
        sd_bus_message_append(m, "q", c.id);
        if (c.asString) {
            sd_bus_message_append(m, "v", "s", "not bytes");
        } else {
            sd_bus_message_open_container(m, 'v', "ay");
            sd_bus_message_append_array(m, 'y', c.bytes.data(), c.bytes.size());
            sd_bus_message_close_container(m);
        }
        sd_bus_message_close_container(m);
    }
    sd_bus_message_close_container(m);
    sd_bus_message_close_container(m);
    sd_bus_message_close_container(m);
}

// What was read, in one line: "rssi -61, data 4c00bbcc, <problem>, changed Name".
std::string reading(const Device1::Advertisement& ad, const QVariantMap& changed) {
    QStringList parts;
    if (ad.hasRssi) parts << QStringLiteral("rssi %1").arg(ad.rssi);
    if (ad.hasManufacturerData || ad.manufacturerData)
        parts << (ad.hasManufacturerData ? QStringLiteral("data ") : QStringLiteral("unflagged data ")) +
                     (ad.manufacturerData ? QString::fromLatin1(ad.manufacturerData->toHex())
                                          : QStringLiteral("-"));
    if (!ad.problem.isEmpty()) parts << ad.problem;
    if (!changed.isEmpty()) parts << QStringLiteral("changed ") + changed.keys().join(u' ');
    return parts.join(QStringLiteral(", ")).toStdString();
}

TEST(Device1Reader, ReadsAdvertisementsStraightAndEverythingElseAsProperties) {
    struct Case {
        std::string name;
        bool ignored;
        std::function<void(sd_bus_message*)> body;
        std::string read;
    };
    const std::vector<Case> cases = {
        {"RSSI, name and the lowest company's bytes", false,
         [](sd_bus_message* m) {
             sd_bus_message_append(m, "{sv}", "RSSI", "n", int16_t(-61));
             manufacturerData(m, {{0x0075, {0xAA}}, {0x004C, {0xBB, 0xCC}}, {0x0200, {}}});
             sd_bus_message_append(m, "{sv}", "Name", "s", "LX");
         },
         "rssi -61, data 4c00bbcc, changed Name"},
        {"a device the filter ignores: its advertisement is skipped unread, its name is not", true,
         [](sd_bus_message* m) {
             sd_bus_message_append(m, "{sv}", "RSSI", "n", int16_t(-40));
             manufacturerData(m, {{0x004C, {0x01}}});
             sd_bus_message_append(m, "{sv}", "TxPower", "n", int16_t(4));
             sd_bus_message_append(m, "{sv}", "Name", "s", "Phone");
         },
         "changed Name"},
        {"an RSSI of another type takes the general path, where it is refused later", false,
         [](sd_bus_message* m) { sd_bus_message_append(m, "{sv}", "RSSI", "i", int32_t(-50)); },
         "changed RSSI"},
        {"the lowest company's value is no byte array: refused, naming the company", false,
         [](sd_bus_message* m) {
             manufacturerData(m, {{0x0100, {0x01}}, {0x0042, {}, true}});
         },
         "data -, ManufacturerData for company 0x0042 is not a byte array (D-Bus s)"},
        {"an empty map: data seen, no record", false, [](sd_bus_message* m) { manufacturerData(m, {}); },
         "data -"},
    };
    Messages messages;
    for (const bool viaAdded : {false, true}) {
        for (const Case& c : cases) {
            if (viaAdded && c.ignored) continue;  // a new device is read whole
            SCOPED_TRACE(c.name + (viaAdded ? " (InterfacesAdded)" : " (PropertiesChanged)"));
            sdbus::MessagePtr m = viaAdded ? messages.added(c.body) : messages.changed(c.body);
            ASSERT_TRUE(m);
            Device1::Advertisement ad;
            QVariantMap changed;
            if (!viaAdded) {
                ASSERT_TRUE(Device1::readChanges(m.get(), c.ignored, &ad, &changed));
                EXPECT_EQ(reading(ad, changed), c.read);
                // The whole dictionary was read: the invalidated list (as, no a{sv}) comes next.
                char type = 0;
                const char* contents = nullptr;
                EXPECT_GT(sd_bus_message_peek_type(m.get(), &type, &contents), 0);
                EXPECT_EQ(type, 'a');
                EXPECT_FALSE(Device1::readChanges(m.get(), false, &ad, &changed));
                continue;
            }
            QString path;
            bluez::InterfaceMap interfaces;
            ASSERT_TRUE(bluez::ObjectManager::readInterfacesAdded(m.get(), &path, &interfaces, &ad));
            EXPECT_EQ(interfaces.keys(), QStringList({QStringLiteral("org.bluez.Device1"),
                                                      QStringLiteral("org.freedesktop.DBus.Properties")}));
            EXPECT_EQ(reading(ad, interfaces.value(QStringLiteral("org.bluez.Device1"))), c.read);
        }
    }
}

}  // namespace
}  // namespace lumerix
