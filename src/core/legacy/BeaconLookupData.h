#pragma once
// An identifier with a time stamp (seconds since 1970), kept with the legacy reader's records.
#include <QString>

namespace lumerix {

class BeaconLookupData {
public:
    BeaconLookupData() = default;
    explicit BeaconLookupData(QString identifier) : identifier_(std::move(identifier)) {}

    // "Identifier"
    const QString& identifier() const { return identifier_; }
    void setIdentifier(const QString& identifier) { identifier_ = identifier; }
    void SetTimpStamp(double seconds) { stamp_ = seconds; }
    double GetTimpStamp() const { return stamp_; }

private:
    QString identifier_;
    double stamp_ = 0;
};

}  // namespace lumerix
