#include "platform/bluez/SdBus.h"

#include <QDBusVariant>
#include <QMap>
#include <cstring>

namespace lumerix::sdbus {
namespace {

QString errnoText(int r) { return QString::fromUtf8(std::strerror(-r)); }

int onReply(sd_bus_message* m, void* userdata, sd_bus_error* retError) {
    (void)retError;
    auto* done = static_cast<Completion*>(userdata);
    Reply reply;
    reply.message = m;
    if (const sd_bus_error* e = sd_bus_message_get_error(m)) {
        reply.errorName = QString::fromUtf8(e->name ? e->name : "org.freedesktop.DBus.Error.Failed");
        reply.errorMessage = QString::fromUtf8(e->message ? e->message : "");
    }
    if (*done) (*done)(reply);
    return 0;
}

void deleteCompletion(void* userdata) { delete static_cast<Completion*>(userdata); }

// Reads a basic value of type t into a QVariant of the type QtDBus would give it.
bool readBasic(sd_bus_message* m, char t, QVariant* out) {
    switch (t) {
        case 'b': {
            int v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant(v != 0);
            return true;
        }
        case 'y': {
            uint8_t v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant::fromValue<uchar>(v);
            return true;
        }
        case 'n': {
            int16_t v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant::fromValue<short>(v);
            return true;
        }
        case 'q': {
            uint16_t v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant::fromValue<ushort>(v);
            return true;
        }
        case 'i':
        case 'h': {
            int32_t v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant(v);
            return true;
        }
        case 'u': {
            uint32_t v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant(v);
            return true;
        }
        case 'x': {
            int64_t v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant(qlonglong(v));
            return true;
        }
        case 't': {
            uint64_t v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant(qulonglong(v));
            return true;
        }
        case 'd': {
            double v = 0;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant(v);
            return true;
        }
        case 's':
        case 'o':
        case 'g': {
            const char* v = nullptr;
            if (sd_bus_message_read_basic(m, t, &v) < 0) return false;
            *out = QVariant(QString::fromUtf8(v ? v : ""));
            return true;
        }
        default:
            return false;
    }
}

// Reads the value at the read position, whose full signature is `sig`.
bool readValue(sd_bus_message* m, const char* sig, QVariant* out) {
    if (sig[0] != '\0' && sig[1] == '\0') return readBasic(m, sig[0], out);
    if (std::strcmp(sig, "ay") == 0) {
        const void* data = nullptr;
        size_t size = 0;
        if (sd_bus_message_read_array(m, 'y', &data, &size) < 0) return false;
        *out = QVariant(QByteArray(static_cast<const char*>(data), static_cast<qsizetype>(size)));
        return true;
    }
    if (std::strcmp(sig, "as") == 0) {
        QStringList list;
        if (!readStringArray(m, &list)) return false;
        *out = QVariant(list);
        return true;
    }
    if (std::strcmp(sig, "a{qv}") == 0) {
        QMap<quint16, QDBusVariant> map;
        if (sd_bus_message_enter_container(m, 'a', "{qv}") < 0) return false;
        int r;
        while ((r = sd_bus_message_enter_container(m, 'e', "qv")) > 0) {
            uint16_t key = 0;
            QVariant value;
            if (sd_bus_message_read_basic(m, 'q', &key) < 0 || !readVariant(m, &value)) return false;
            if (sd_bus_message_exit_container(m) < 0) return false;
            map.insert(key, QDBusVariant(value));
        }
        if (r < 0 || sd_bus_message_exit_container(m) < 0) return false;
        *out = QVariant::fromValue(map);
        return true;
    }
    // Anything else is skipped and stands as a value of no accepted type.
    if (sd_bus_message_skip(m, sig) < 0) return false;
    *out = QVariant(QVariantList{});
    return true;
}

}  // namespace

BusPtr openSystemBus(QString* error) {
    sd_bus* raw = nullptr;
    const int r = sd_bus_open_system(&raw);
    if (r < 0) {
        if (error) *error = errnoText(r);
        return nullptr;
    }
    return BusPtr(raw);
}

MessagePtr newMethodCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                         const char* member) {
    sd_bus_message* m = nullptr;
    if (sd_bus_message_new_method_call(bus, &m, service, path, interface, member) < 0) return nullptr;
    return MessagePtr(m);
}

bool callAsync(sd_bus* bus, sd_bus_message* call, Completion done, uint64_t timeoutUs) {
    auto* holder = new Completion(std::move(done));
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_call_async(bus, &slot, call, onReply, holder, timeoutUs);
    if (r < 0) {
        delete holder;
        return false;
    }
    // The slot floats: it lives until the reply arrives or the bus is freed, and takes the
    // completion with it.
    sd_bus_slot_set_destroy_callback(slot, deleteCompletion);
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
    return true;
}

bool readVariant(sd_bus_message* m, QVariant* out) {
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(m, &type, &contents) <= 0 || type != 'v' || !contents) return false;
    if (sd_bus_message_enter_container(m, 'v', contents) < 0) return false;
    if (!readValue(m, contents, out)) return false;
    return sd_bus_message_exit_container(m) >= 0;
}

bool readPropertyMap(sd_bus_message* m, QVariantMap* out, const std::function<bool(const char*)>& skip) {
    if (sd_bus_message_enter_container(m, 'a', "{sv}") < 0) return false;
    int r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        if (sd_bus_message_read_basic(m, 's', &key) < 0) return false;
        if (skip && skip(key)) {
            if (sd_bus_message_skip(m, "v") < 0) return false;
        } else {
            QVariant value;
            if (!readVariant(m, &value)) return false;
            out->insert(QString::fromUtf8(key), value);
        }
        if (sd_bus_message_exit_container(m) < 0) return false;
    }
    return r >= 0 && sd_bus_message_exit_container(m) >= 0;
}

bool readStringArray(sd_bus_message* m, QStringList* out) {
    if (sd_bus_message_enter_container(m, 'a', "s") < 0) return false;
    const char* s = nullptr;
    int r;
    while ((r = sd_bus_message_read_basic(m, 's', &s)) > 0) out->append(QString::fromUtf8(s));
    return r >= 0 && sd_bus_message_exit_container(m) >= 0;
}

}  // namespace lumerix::sdbus
