#pragma once
// One advertisement as the platform reports it, reduced to what Lumerix reads.
#include <QByteArray>
#include <QString>
#include <optional>

namespace lumerix {

struct AdvertisementData {
    std::optional<QString> localName;
    // Company identifier (2 bytes, little-endian) followed by the manufacturer-specific bytes.
    std::optional<QByteArray> manufacturerData;

    // Readable one-line form, e.g. {LocalName = LX; ManufacturerData = <ffff1122...>}.
    QString description() const;
    bool operator==(const AdvertisementData&) const = default;
};

inline QString lxDescription(const AdvertisementData& a) { return a.description(); }

}  // namespace lumerix
