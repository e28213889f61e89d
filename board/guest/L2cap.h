#pragma once

#include "UniqueFd.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/l2cap.h>

#include <cstdint>
#include <string>

#include <sys/socket.h>

namespace board {

// L2CAP channels (Bluetooth Assigned Numbers).
constexpr std::uint16_t psmServiceDiscovery = 1;
constexpr std::uint16_t psmHidControl = 17;
constexpr std::uint16_t psmHidInterrupt = 19;

inline sockaddr_l2 l2capAddress(const std::string& address, std::uint16_t psm) {
    sockaddr_l2 out{};
    out.l2_family = AF_BLUETOOTH;
    out.l2_psm = htobs(psm);
    str2ba(address.c_str(), &out.l2_bdaddr);
    return out;
}

/// Makes an L2CAP socket bound to a local controller's address and a channel; 0 for any channel.
inline UniqueFd l2capSocket(const std::string& local, std::uint16_t psm) {
    UniqueFd fd(socket(AF_BLUETOOTH, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, BTPROTO_L2CAP));
    const sockaddr_l2 own = l2capAddress(local, psm);
    if (!fd || bind(fd.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        throwErrno("an L2CAP socket");
    }
    return fd;
}

/// Tells whether the other side still holds a channel. Drops what it has sent.
inline bool channelIsOpen(int fd) {
    char bytes[1024];
    ssize_t got = 0;
    while ((got = recv(fd, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
    }
    return got < 0 && (errno == EAGAIN || errno == EINTR);
}

/// Connects a socket. Throws std::system_error on failure or timeout.
void l2capConnect(int fd, const std::string& address, std::uint16_t psm, int milliseconds);

}  // namespace board
