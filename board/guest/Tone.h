#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace board {

/// Measures the 16-bit samples that a sink plays.
class Tone {
public:
    /// @param rate  frames per second
    Tone(unsigned channels, unsigned rate) : channels_(channels), rate_(rate) {}

    void feed(const std::uint8_t* data, std::size_t size);

    /// Describes the samples, for example "frames=88200 rate=44100 channels=2 peak=12000 tone=440":
    /// the first channel's peak and, from its zero crossings, its frequency in Hz (0 for silence).
    std::string report() const;

private:
    void sample(std::int16_t value);

    unsigned channels_, rate_;
    std::uint64_t samples_ = 0;
    int half_ = -1;  ///< low byte of an incomplete sample; -1 for none
    int peak_ = 0;
    bool below_ = false;
    std::uint64_t crossings_ = 0, firstCrossing_ = 0, lastCrossing_ = 0;
};

}  // namespace board
