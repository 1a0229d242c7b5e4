// The one reader of Device1 properties, on the hot path of every advertisement (PropertiesChanged)
// and for new devices (InterfacesAdded, the same shape as each object of the snapshot), read
// straight from the sd-bus message. Messages are built on a connection that never reaches a bus (it only has
// to exist to make messages), sealed, and read back as the intake reads them.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

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
    Messages() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) < 0) return;
        sd_bus_new(&bus_);
        sd_bus_set_fd(bus_, fds_[0], fds_[0]);
        sd_bus_start(bus_);
    }
    ~Messages() {
        sd_bus_unref(bus_);  // closes fds_[0]
        if (fds_[1] >= 0) close(fds_[1]);
    }
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    // A PropertiesChanged whose a{sv} the body function appends entries to, sealed and rewound.
    sdbus::MessagePtr changed(const std::function<void(sd_bus_message*)>& body) {
        sd_bus_message* m = nullptr;
        if (sd_bus_message_new_signal(bus_, &m, "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF",
                                      "org.freedesktop.DBus.Properties", "PropertiesChanged") < 0)
            return nullptr;
        sdbus::MessagePtr owned(m);
        sd_bus_message_append(m, "s", "org.bluez.Device1");
        sd_bus_message_open_container(m, 'a', "{sv}");
        body(m);
        sd_bus_message_close_container(m);
        sd_bus_message_append(m, "as", 0);
        if (sd_bus_message_seal(m, ++cookie_, 0) < 0 || sd_bus_message_rewind(m, 1) < 0) return nullptr;
        const char* iface = nullptr;
        sd_bus_message_read_basic(m, 's', &iface);
        return owned;
    }

    // An InterfacesAdded for a device whose Device1 a{sv} the body function appends entries to.
    sdbus::MessagePtr added(const std::function<void(sd_bus_message*)>& body) {
        sd_bus_message* m = nullptr;
        if (sd_bus_message_new_signal(bus_, &m, "/", "org.freedesktop.DBus.ObjectManager",
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
        if (sd_bus_message_seal(m, ++cookie_, 0) < 0 || sd_bus_message_rewind(m, 1) < 0) return nullptr;
        return owned;
    }

private:
    int fds_[2] = {-1, -1};
    sd_bus* bus_ = nullptr;
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

TEST(Device1Reader, ReadsAdvertisementsStraightAndEverythingElseAsProperties) {
    struct Case {
        std::string name;
        bool ignored;
        std::function<void(sd_bus_message*)> body;
        bool hasRssi;
        qint16 rssi;
        bool hasManufacturerData;
        std::optional<QByteArray> record;
        QString problemStart;
        QStringList changedKeys;
    };
    const std::vector<Case> cases = {
        {"RSSI, name and the lowest company's bytes",
         false,
         [](sd_bus_message* m) {
             sd_bus_message_append(m, "{sv}", "RSSI", "n", int16_t(-61));
             manufacturerData(m, {{0x0075, {0xAA}}, {0x004C, {0xBB, 0xCC}}, {0x0200, {}}});
             sd_bus_message_append(m, "{sv}", "Name", "s", "LX");
         },
         true,
         -61,
         true,
         QByteArray::fromHex("4c00bbcc"),
         {},
         {QStringLiteral("Name")}},
        {"a device the filter ignores: its advertisement is skipped unread, its name is not",
         true,
         [](sd_bus_message* m) {
             sd_bus_message_append(m, "{sv}", "RSSI", "n", int16_t(-40));
             manufacturerData(m, {{0x004C, {0x01}}});
             sd_bus_message_append(m, "{sv}", "TxPower", "n", int16_t(4));
             sd_bus_message_append(m, "{sv}", "Name", "s", "Phone");
         },
         false,
         0,
         false,
         std::nullopt,
         {},
         {QStringLiteral("Name")}},
        {"an RSSI of another type takes the general path, where it is refused later",
         false,
         [](sd_bus_message* m) { sd_bus_message_append(m, "{sv}", "RSSI", "i", int32_t(-50)); },
         false,
         0,
         false,
         std::nullopt,
         {},
         {QStringLiteral("RSSI")}},
        {"the lowest company's value is no byte array: refused, naming the company",
         false,
         [](sd_bus_message* m) {
             manufacturerData(m, {{0x0100, {0x01}}, {0x0042, {}, true}});
         },
         false,
         0,
         true,
         std::nullopt,
         QStringLiteral("ManufacturerData for company 0x0042"),
         {}},
        {"an empty map: data seen, no record",
         false,
         [](sd_bus_message* m) { manufacturerData(m, {}); },
         false,
         0,
         true,
         std::nullopt,
         {},
         {}},
    };
    const auto check = [](const Case& c, const Device1::Advertisement& ad, const QVariantMap& changed) {
        EXPECT_EQ(ad.hasRssi, c.hasRssi);
        if (c.hasRssi) {
            EXPECT_EQ(ad.rssi, c.rssi);
        }
        EXPECT_EQ(ad.hasManufacturerData, c.hasManufacturerData);
        EXPECT_EQ(ad.manufacturerData, c.record);
        EXPECT_TRUE(ad.problem.startsWith(c.problemStart)) << ad.problem.toStdString();
        EXPECT_EQ(c.problemStart.isEmpty(), ad.problem.isEmpty());
        EXPECT_EQ(changed.keys(), c.changedKeys);
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
            if (viaAdded) {
                QString path;
                bluez::InterfaceMap interfaces;
                ASSERT_TRUE(bluez::ObjectManager::readInterfacesAdded(m.get(), &path, &interfaces, &ad));
                EXPECT_EQ(interfaces.keys(),
                          QStringList({QStringLiteral("org.bluez.Device1"),
                                       QStringLiteral("org.freedesktop.DBus.Properties")}));
                changed = interfaces.value(QStringLiteral("org.bluez.Device1"));
            } else {
                ASSERT_TRUE(Device1::readChanges(m.get(), c.ignored, &ad, &changed));
            }
            check(c, ad, changed);
            if (viaAdded) continue;
            // The whole dictionary was read: the invalidated list comes next.
            char type = 0;
            const char* contents = nullptr;
            EXPECT_GT(sd_bus_message_peek_type(m.get(), &type, &contents), 0);
            EXPECT_EQ(type, 'a');
        }
    }
}

TEST(Device1Reader, RefusesWhatIsNoPropertyMap) {
    Messages messages;
    sdbus::MessagePtr m =
        messages.changed([](sd_bus_message* m) { sd_bus_message_append(m, "{sv}", "Name", "s", "LX"); });
    ASSERT_TRUE(m);
    Device1::Advertisement ad;
    QVariantMap changed;
    ASSERT_TRUE(Device1::readChanges(m.get(), false, &ad, &changed));
    // Next comes the invalidated list (as), which is no a{sv}.
    EXPECT_FALSE(Device1::readChanges(m.get(), false, &ad, &changed));
}

}  // namespace
}  // namespace lumerix
