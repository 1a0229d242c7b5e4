#include <gtest/gtest.h>

#include "ble/BleTypes.h"
#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/ObjectManager.h"

namespace lumerix {
namespace {

TEST(BluezIdentifier, ComesFromTheAddressOrElseThePath) {
    struct Case {
        const char* path;
        std::optional<const char*> address;
        const char* identifier;
    };
    const Case cases[] = {
        {"/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF", "aa:bb:cc:dd:ee:0f",
         "00000000-0000-0000-0000-AABBCCDDEE0F"},
        {"/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF", std::nullopt, "00000000-0000-0000-0000-AABBCCDDEEFF"},
        {"/org/bluez/hci0/dev_aa_bb_cc_dd_ee_ff", "not an address", "00000000-0000-0000-0000-AABBCCDDEEFF"},
        {"/org/bluez/hci0/dev_AA_BB_CC_DD_EE", "AA:BB:CC:DD:EE", ""},
        {"/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF/service0010", std::nullopt, ""},
        {"/org/bluez/hci0/dev_GG_BB_CC_DD_EE_FF", "AA:BB:CC:DD:EE:FF:00", ""},
    };
    for (const Case& c : cases) {
        BluezDeviceProperties props;
        if (c.address) props.address = QString::fromUtf8(*c.address);
        EXPECT_EQ(bluez::identifierForDevice(QString::fromUtf8(c.path), props),
                  QString::fromUtf8(c.identifier))
            << c.path;
    }
}

TEST(BluezDeviceProperties, TakesWellTypedValuesAndRefusesTheRest) {
    BluezDeviceProperties p;
    BluezAdvertisement ad;
    ad.hasRssi = true;
    ad.rssi = -61;
    ad.hasManufacturerData = true;
    ad.manufacturerData = QByteArray("\xC0\x0A\x11\x22", 4);
    EXPECT_TRUE(p.apply({{QStringLiteral("Name"), QStringLiteral("LX")},
                         {QStringLiteral("Alias"), QStringLiteral("AA-BB")},
                         {QStringLiteral("Connected"), true}},
                        {}, ad)
                    .isEmpty());
    EXPECT_EQ(p.name, QStringLiteral("LX"));
    EXPECT_EQ(p.rssi, qint16(-61));
    EXPECT_EQ(p.connected, true);
    EXPECT_EQ(p.manufacturerData, QByteArray("\xC0\x0A\x11\x22", 4));

    // Each malformed value is refused on its own; what was known stays. RSSI and
    // ManufacturerData reach the map only when the reader found them of another type.
    BluezAdvertisement refusedRecord;
    refusedRecord.hasManufacturerData = true;
    refusedRecord.problem = QStringLiteral("ManufacturerData for company 0x0001 is not a byte array");
    struct Bad {
        const char* name;
        QVariant value;
        BluezAdvertisement advertisement;
    };
    const Bad bad[] = {
        {"Name", QVariant(5), {}},
        {"RSSI", QVariant(QStringLiteral("-40")), {}},
        {"RSSI", QVariant(-40), {}},
        {"Connected", QVariant(1), {}},
        {"ManufacturerData", QVariant(QByteArray("\x11")), {}},
        {"Address", QVariant(), refusedRecord},
    };
    for (const Bad& b : bad) {
        QVariantMap changed;
        if (b.value.isValid()) changed.insert(QString::fromUtf8(b.name), b.value);
        QStringList problems = p.apply(changed, {}, b.advertisement);
        EXPECT_EQ(problems.size(), 1) << b.name;
    }
    EXPECT_EQ(p.name, QStringLiteral("LX"));
    EXPECT_EQ(p.rssi, qint16(-61));
    EXPECT_EQ(p.connected, true);
    EXPECT_EQ(p.manufacturerData, QByteArray("\xC0\x0A\x11\x22", 4));

    // An empty ManufacturerData map clears the record; invalidation forgets.
    BluezAdvertisement empty;
    empty.hasManufacturerData = true;
    EXPECT_TRUE(p.apply({}, {}, empty).isEmpty());
    EXPECT_FALSE(p.manufacturerData);
    p.apply({}, {QStringLiteral("RSSI"), QStringLiteral("Name")});
    EXPECT_FALSE(p.rssi);
    EXPECT_FALSE(p.name);
    EXPECT_EQ(p.connected, true);
}

TEST(BluezState, FollowsBluetoothdAndTheDefaultAdapter) {
    BluezAdapterProperties on, off, unknown;
    on.powered = true;
    off.powered = false;
    EXPECT_EQ(bluez::centralState(false, false, on), 0);
    EXPECT_EQ(bluez::centralState(true, true, std::nullopt), 3);
    EXPECT_EQ(bluez::centralState(true, false, std::nullopt), 2);
    EXPECT_EQ(bluez::centralState(true, false, off), 4);
    EXPECT_EQ(bluez::centralState(true, false, unknown), 4);
    EXPECT_EQ(bluez::centralState(true, false, on), 5);

    BluezAdapterProperties a;
    EXPECT_EQ(a.apply({{QStringLiteral("Powered"), QStringLiteral("yes")}}).size(), 1);
    EXPECT_FALSE(a.powered);
}

// Disconnection reasons are covered where the central reports them (GattClientTest).
TEST(BluezErrors, CallErrorsMapToCodes) {
    EXPECT_EQ(bluez::errorCodeForDBusError(QStringLiteral("org.bluez.Error.NotConnected")),
              BluezErrorNotConnected);
    EXPECT_EQ(bluez::errorCodeForDBusError(QStringLiteral("org.freedesktop.DBus.Error.NoReply")),
              BluezErrorTimedOut);
    EXPECT_EQ(bluez::errorCodeForDBusError(QStringLiteral("org.example.Whatever")), BluezErrorUnknown);
    EXPECT_NE(bluez::errorCodeForDBusError(QStringLiteral("org.bluez.Error.Failed")),
              kBleErrorConnectionFailed);
}

TEST(BluezObjectTree, BelowMeansAStrictDescendant) {
    const QString dev = QStringLiteral("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01");
    EXPECT_TRUE(bluez::isBelow(dev + QStringLiteral("/service0010"), dev));
    EXPECT_FALSE(bluez::isBelow(dev, dev));
    EXPECT_FALSE(bluez::isBelow(QStringLiteral("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_011/service0010"), dev));
}

TEST(BluezDefaultAdapter, LowestHciNumberFirstOtherNamesLast) {
    struct Case {
        QStringList paths;
        const char* expected;
    };
    const Case cases[] = {
        {{}, ""},
        {{QStringLiteral("/org/bluez/hci0")}, "/org/bluez/hci0"},
        {{QStringLiteral("/org/bluez/hci10"), QStringLiteral("/org/bluez/hci2")}, "/org/bluez/hci2"},
        {{QStringLiteral("/org/bluez/hci2"), QStringLiteral("/org/bluez/hci10")}, "/org/bluez/hci2"},
        {{QStringLiteral("/org/bluez/usb"), QStringLiteral("/org/bluez/hci7")}, "/org/bluez/hci7"},
        {{QStringLiteral("/org/bluez/hcix"), QStringLiteral("/org/bluez/usb")}, "/org/bluez/hcix"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(bluez::defaultAdapterPath(c.paths), QString::fromUtf8(c.expected))
            << c.paths.join(u',').toStdString();
}

TEST(BluezDefaultAdapter, PoweredIsReadFromTheDefaultAdapterOnly) {
    auto adapter = [](QVariant powered) {
        return bluez::InterfaceMap{
            {QStringLiteral("org.bluez.Adapter1"), {{QStringLiteral("Powered"), powered}}}};
    };
    bluez::Snapshot s;
    s.reached = true;
    EXPECT_EQ(bluez::defaultAdapterPowered(s), std::nullopt);
    s.objects.insert(QStringLiteral("/org/bluez/hci10"), adapter(true));
    s.objects.insert(QStringLiteral("/org/bluez/hci2"), adapter(false));
    s.objects.insert(QStringLiteral("/org/bluez/hci2/dev_AA_BB_CC_DD_EE_FF"),
                     {{QStringLiteral("org.bluez.Device1"), {}}});
    EXPECT_EQ(s.adapterPaths().size(), 2);
    EXPECT_EQ(bluez::defaultAdapterPowered(s), false);
    // Any adapter by path (what --doctor lists); a device is no adapter.
    EXPECT_EQ(bluez::adapterPowered(s, QStringLiteral("/org/bluez/hci10")), true);
    EXPECT_EQ(bluez::adapterPowered(s, QStringLiteral("/org/bluez/hci2/dev_AA_BB_CC_DD_EE_FF")),
              std::nullopt);
    s.objects.insert(QStringLiteral("/org/bluez/hci2"), adapter(QStringLiteral("yes")));
    EXPECT_EQ(bluez::defaultAdapterPowered(s), std::nullopt);
}

}  // namespace
}  // namespace lumerix
