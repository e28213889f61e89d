#include "H4Stream.h"

namespace board {
namespace {

/// Returns the length of the packet at the start of the buffer; 0 while its header is incomplete,
/// -1 if the first byte is not a packet type.
std::ptrdiff_t packetLength(const Bytes& bytes) {
    const auto size = bytes.size();
    switch (bytes[0]) {
        case H4_COMMAND:
        case H4_SCO:
            return size < 4 ? 0 : 4 + bytes[3];
        case H4_ACL:
            return size < 5 ? 0 : 5 + (bytes[3] | bytes[4] << 8);
        case H4_EVENT:
            return size < 3 ? 0 : 3 + bytes[2];
        case H4_ISO:
            return size < 5 ? 0 : 5 + (bytes[3] | (bytes[4] & 0x3F) << 8);
        case H4_RADIO_POWER:
            return 2;
        default:
            return -1;
    }
}

}  // namespace

void H4Stream::feed(const std::uint8_t* data, std::size_t size) {
    buffer_.insert(buffer_.end(), data, data + size);
}

bool H4Stream::next(Bytes& packet) {
    while (!buffer_.empty()) {
        const std::ptrdiff_t length = packetLength(buffer_);
        if (length < 0) {  // noise on the line: look for a packet from the next byte on
            buffer_.erase(buffer_.begin());
            continue;
        }
        if (length == 0 || buffer_.size() < static_cast<std::size_t>(length)) return false;
        packet.assign(buffer_.begin(), buffer_.begin() + length);
        buffer_.erase(buffer_.begin(), buffer_.begin() + length);
        return true;
    }
    return false;
}

}  // namespace board
