#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace board {

/// The frames that the build machine and the agent on the board exchange over a serial line: the
/// byte 0xC5, the type, the payload's length (16 bits, low byte first), the payload.
enum class FrameType : std::uint8_t {
    Ready = 1,     ///< agent: the board is up
    Run = 2,       ///< host: RunRequest
    Input = 3,     ///< host: bytes for the command; an empty payload is the end of its input
    Resize = 4,    ///< host: rows and columns of the terminal, 16 bits each
    Signal = 5,    ///< host: signal number for the command's process group
    Output = 6,    ///< agent: bytes the command wrote to its standard output
    Error = 7,     ///< agent: bytes the command wrote to its standard error
    Exit = 8,      ///< agent: exit status, one byte; 128 plus the number for a signal
    Consumed = 9,  ///< agent: so many bytes of Input have been taken, 16 bits
};

/// Input that may be in transit at a time; the serial line has no flow control.
constexpr std::size_t inputWindow = 2048;

struct Frame {
    FrameType type;
    std::string payload;
};

std::string encodeFrame(FrameType type, const std::string& payload);
std::string encodeNumbers(std::initializer_list<unsigned> numbers);
unsigned decodeNumber(const std::string& payload, std::size_t index);

/// Splits a byte stream into frames and skips the bytes between them.
class FrameStream {
public:
    void feed(const char* data, std::size_t size) { buffer_.append(data, size); }
    bool next(Frame& frame);

private:
    std::string buffer_;
};

/// A command to run, with a terminal of the given size or with pipes.
struct RunRequest {
    bool terminal = false;
    unsigned rows = 0;
    unsigned columns = 0;
    std::vector<std::string> arguments;

    std::string encode() const;
    static RunRequest decode(const std::string& payload);
};

}  // namespace board
