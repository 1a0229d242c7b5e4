#pragma once
// Who is on the other end of the sender link's loopback sockets. Another local user can listen on
// the sender's port or ask our listener for the parked receiver, so both ends are checked against
// our own uid. The platform answers from the kernel's socket table; core only compares uids.
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace lumerix {

struct PeerCheck {
    uint32_t self = 0;  // our uid
    // Owners of the sockets listening where a connection to 127.0.0.1:port lands; empty when none
    // is found. Null: not checked.
    std::function<std::vector<uint32_t>(uint16_t port)> listenerOwners;
    // Owner of the client socket 127.0.0.1:peerPort connected to our listener on 127.0.0.1:localPort;
    // nullopt when it is not found. Null: not checked.
    std::function<std::optional<uint32_t>(uint16_t localPort, uint16_t peerPort)> peerOwner;

    // True when a connection to port reaches only listeners of ours (or nothing is checked).
    bool listenersAreOurs(uint16_t port, std::vector<uint32_t>* owners = nullptr) const {
        if (!listenerOwners) return true;
        std::vector<uint32_t> found = listenerOwners(port);
        bool ours = !found.empty();
        for (const uint32_t uid : found) ours = ours && uid == self;
        if (owners) *owners = std::move(found);
        return ours;
    }
    // True when the peer on peerPort is one of our own processes (or nothing is checked).
    bool peerIsOurs(uint16_t localPort, uint16_t peerPort, std::optional<uint32_t>* owner = nullptr) const {
        if (!peerOwner) return true;
        const std::optional<uint32_t> found = peerOwner(localPort, peerPort);
        if (owner) *owner = found;
        return found == self;
    }
};

}  // namespace lumerix
