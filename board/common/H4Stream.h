#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace board {

using Bytes = std::vector<std::uint8_t>;

/// H4 packet types (Bluetooth Core, UART transport), and our own between the relay and the machine
/// with the remote devices: two bytes, the type and a RadioPower value.
enum H4Type : std::uint8_t {
    H4_COMMAND = 1,
    H4_ACL = 2,
    H4_SCO = 3,
    H4_EVENT = 4,
    H4_ISO = 5,
    H4_RADIO_POWER = 0xFF,
};

enum RadioPower : std::uint8_t { RADIO_OFF = 0, RADIO_ON = 1 };

/// Splits a byte stream into whole H4 packets. The emulated controllers share one buffer for an
/// incomplete packet, so they must get whole packets.
class H4Stream {
public:
    void feed(const std::uint8_t* data, std::size_t size);

    /// Takes the next whole packet from the stream.
    /// @return false if no packet is complete yet
    bool next(Bytes& packet);

    /// Discards incomplete input, such as the start of a packet whose sender lost its power.
    void clear() { buffer_.clear(); }

private:
    Bytes buffer_;
};

}  // namespace board
