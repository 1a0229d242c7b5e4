#pragma once
// String-keyed dictionaries exchanged between the menu and the sender link.
#include <QMap>
#include <QString>

namespace lumerix {

// Connection-info dictionary: "IP", "DeviceName", "LoginCode", "WiFiSSID", "WiFiKey"; any may be absent.
using ConnectionInfo = QMap<QString, QString>;
// Receiver dictionary of a listed receiver: "UUID", "IP", "LoginCode", "Device"; any may be absent.
using ReceiverDictionary = QMap<QString, QString>;

// Their keys.
inline const QString kKeyUUID = QStringLiteral("UUID");
inline const QString kKeyIP = QStringLiteral("IP");
inline const QString kKeyLoginCode = QStringLiteral("LoginCode");
inline const QString kKeyDevice = QStringLiteral("Device");
inline const QString kKeyDeviceName = QStringLiteral("DeviceName");
inline const QString kKeyWiFiSSID = QStringLiteral("WiFiSSID");
inline const QString kKeyWiFiKey = QStringLiteral("WiFiKey");

inline constexpr quint16 kSenderDataPort = 19314;
inline constexpr quint16 kSenderCommandPort = 19319;
inline constexpr int kFrameBufferSize = 1024;

}  // namespace lumerix
