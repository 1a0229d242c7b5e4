#pragma once
// A thin RAII layer over libsystemd's D-Bus client (sd-bus): owning handles for the connection,
// messages and slots (and for the sd-event loop and sources it runs on), typed readers that turn
// a{sv} property maps into QVariantMaps (so the property rules in BluezProperties.h apply
// unchanged), and asynchronous method calls whose completion is a std::function. Not thread-safe:
// a Bus and everything made from it belong to the thread that uses it.
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <string>

namespace lumerix::sdbus {

struct BusUnref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
struct SlotUnref {
    void operator()(sd_bus_slot* s) const { sd_bus_slot_unref(s); }
};
using BusPtr = std::unique_ptr<sd_bus, BusUnref>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotUnref>;

struct EventUnref {
    void operator()(sd_event* e) const { sd_event_unref(e); }
};
struct SourceUnref {
    void operator()(sd_event_source* s) const { sd_event_source_disable_unref(s); }
};
using EventPtr = std::unique_ptr<sd_event, EventUnref>;
using SourcePtr = std::unique_ptr<sd_event_source, SourceUnref>;

// The message's signature, never null.
inline const char* signature(sd_bus_message* m) {
    const char* s = sd_bus_message_get_signature(m, 1);
    return s ? s : "";
}

// A new reference to m.
inline MessagePtr ref(sd_bus_message* m) { return MessagePtr(sd_bus_message_ref(m)); }

// A private connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured); null with the
// reason in *error when it cannot be had.
BusPtr openSystemBus(QString* error);

// The reply of a method call, or its error.
struct Reply {
    sd_bus_message* message = nullptr;  // valid during the completion only
    QString errorName;                  // empty on success
    QString errorMessage;
    bool ok() const { return errorName.isEmpty(); }
    QString errorText() const { return errorName + QStringLiteral(": ") + errorMessage; }
};
using Completion = std::function<void(const Reply&)>;

// Sends `call` and runs done with its reply on the bus's thread. The pending call belongs to the
// bus: if the bus goes first, done is dropped unrun. timeoutUs 0 = sd-bus's default (25 s).
bool callAsync(sd_bus* bus, sd_bus_message* call, Completion done, uint64_t timeoutUs = 0);
// Builds a method call to org.bluez-like services; null on failure.
MessagePtr newMethodCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                         const char* member);

// Reads one variant's value (the read position must be at a 'v'); unknown or unsupported types
// come back as a QVariantList that no property accepts. Returns false on a malformed message.
bool readVariant(sd_bus_message* m, QVariant* out);
// Reads an a{sv}; keys for which skip(key) is true are skipped without being converted.
bool readPropertyMap(sd_bus_message* m, QVariantMap* out,
                     const std::function<bool(const char*)>& skip = nullptr);
// Reads an as.
bool readStringArray(sd_bus_message* m, QStringList* out);

}  // namespace lumerix::sdbus
