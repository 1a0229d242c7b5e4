#pragma once
// Connection information the legacy reader got from one receiver, keyed by "PeripheralUUID",
// "WiFiSSID", "WiFiKey", "ReceiverIP", "ReceiverName" and "ReceiverLoginCode", stamped with the
// time of the last read (seconds since 1970).
#include <QMap>
#include <QString>
#include <memory>
#include <optional>

#include "dispatch/Clock.h"

namespace lumerix {

class SharvaneInfo {
public:
    explicit SharvaneInfo(std::shared_ptr<Clock> clock = systemClock()) : clock_(std::move(clock)) {}

    std::optional<QString> value(const QString& key) const {
        auto it = values_.constFind(key);
        return it == values_.constEnd() ? std::nullopt : std::optional<QString>(*it);
    }
    void setValue(const QString& key, const QString& v) { values_.insert(key, v); }

    // Stamps the record with the current time.
    void SetTimpStamp() { stamp_ = clock_->nowMs() / 1000.0; }
    double GetTimpStamp() const { return stamp_; }

    // {Key = value; ...} in key order.
    QString description() const {
        QString s = QStringLiteral("{");
        for (auto it = values_.constBegin(); it != values_.constEnd(); ++it)
            s += it.key() + QStringLiteral(" = ") + it.value() + QStringLiteral("; ");
        return s + QStringLiteral("}");
    }

private:
    std::shared_ptr<Clock> clock_;
    QMap<QString, QString> values_;
    double stamp_ = 0;
};

}  // namespace lumerix
