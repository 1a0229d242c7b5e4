#pragma once
// The intake connection's reading side. In a flood bluetoothd sends thousands of PropertiesChanged
// signals a second; sd-bus reads each message with two system calls and builds an object for it,
// which is most of what a signal costs. The relay reads the bus socket itself, many messages per
// call, and takes plain advertisements (see BusWire.h) straight from the bytes. Every other byte
// goes, in order, to the sd-bus connection, which reads from a socket pair fed by the relay, writes
// to the bus socket directly, and has handled a message before the relay looks at the next one: the
// order bluetoothd sent things in holds across both paths.
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/bluez/BusWire.h"
#include "platform/bluez/SdBus.h"

namespace lumerix {

class BusRelay final {
public:
    using AdvertisementSink = std::function<void(const buswire::PlainAdvertisement&)>;

    // A connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured) with an sd-bus client
    // behind the relay, handed out in *bus. Null with the reason in *error when the bus cannot be
    // reached; null with *error empty when the address is not a Unix socket the relay can read,
    // and plain sd-bus should connect instead.
    static std::unique_ptr<BusRelay> connectSystemBus(sdbus::BusPtr* bus, QString* error);
    ~BusRelay();
    BusRelay(const BusRelay&) = delete;
    BusRelay& operator=(const BusRelay&) = delete;

    // The bus socket: readable means pump().
    int fd() const { return socket_; }

    // Reads what the socket holds and handles up to maxMessages messages: plain advertisements go to
    // sink, everything else to the sd-bus connection, which handles it at once. Returns how many
    // were handled, or -errno once the connection is gone. Bytes beyond maxMessages wait here for
    // the next call.
    int pump(sd_bus* bus, int maxMessages, const AdvertisementSink& sink);

private:
    BusRelay(int socket, int feed) : socket_(socket), feed_(feed) {}
    // Hands bytes to sd-bus and lets it handle them.
    int forward(sd_bus* bus, const uint8_t* data, size_t size);
    int fill();  // reads the socket into buffer_: bytes read, 0 when it had none, -errno at the end

    int socket_ = -1;  // ours to read; sd-bus writes through a duplicate
    int feed_ = -1;    // our end of the socket pair sd-bus reads from
    std::vector<uint8_t> buffer_;
    size_t start_ = 0;  // first byte in buffer_ not yet handled
    bool authenticated_ = false;
    bool passthrough_ = false;  // something that was not a message came: sd-bus gets every byte
};

}  // namespace lumerix
