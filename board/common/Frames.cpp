#include "Frames.h"

#include <stdexcept>

namespace board {
namespace {

constexpr char frameStart = static_cast<char>(0xC5);
constexpr std::size_t headerSize = 4;
constexpr std::size_t maxPayload = 0xFFFF;

}  // namespace

std::string encodeNumbers(std::initializer_list<unsigned> numbers) {
    std::string out;
    for (const unsigned number : numbers) {
        out += static_cast<char>(number & 0xFF);
        out += static_cast<char>(number >> 8 & 0xFF);
    }
    return out;
}

unsigned decodeNumber(const std::string& payload, std::size_t index) {
    if (payload.size() < 2 * index + 2) throw std::runtime_error("a frame is too short");
    return static_cast<unsigned char>(payload[2 * index]) |
           static_cast<unsigned>(static_cast<unsigned char>(payload[2 * index + 1])) << 8;
}

std::string encodeFrame(FrameType type, const std::string& payload) {
    if (payload.size() > maxPayload) {
        throw std::length_error("the command line for the board is longer than 65535 bytes");
    }
    std::string out{frameStart, static_cast<char>(type)};
    out += encodeNumbers({static_cast<unsigned>(payload.size())});
    return out + payload;
}

bool FrameStream::next(Frame& frame) {
    const std::size_t start = buffer_.find(frameStart);
    buffer_.erase(0, start);
    if (buffer_.size() < headerSize) return false;
    const std::size_t length = decodeNumber(buffer_, 1);
    if (buffer_.size() < headerSize + length) return false;
    frame.type = static_cast<FrameType>(buffer_[1]);
    frame.payload = buffer_.substr(headerSize, length);
    buffer_.erase(0, headerSize + length);
    return true;
}

std::string RunRequest::encode() const {
    std::string out = encodeNumbers({terminal ? 1U : 0U, rows, columns});
    for (const std::string& argument : arguments) {
        out += argument;
        out += '\0';
    }
    return out;
}

RunRequest RunRequest::decode(const std::string& payload) {
    RunRequest request;
    request.terminal = decodeNumber(payload, 0) != 0;
    request.rows = decodeNumber(payload, 1);
    request.columns = decodeNumber(payload, 2);
    std::size_t at = 6;
    while (at < payload.size()) {
        const std::size_t end = payload.find('\0', at);
        if (end == std::string::npos) throw std::runtime_error("a command line is cut short");
        request.arguments.push_back(payload.substr(at, end - at));
        at = end + 1;
    }
    if (request.arguments.empty()) throw std::runtime_error("a command line is empty");
    return request;
}

}  // namespace board
