#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace board {

/// What a sink was played: 16-bit samples, measured as they come.
class Tone {
public:
    /// @param rate  frames a second
    Tone(unsigned channels, unsigned rate) : channels_(channels), rate_(rate) {}

    void feed(const std::uint8_t* data, std::size_t size);

    /// "frames=88200 rate=44100 channels=2 peak=12000 tone=440": the first channel's highest
    /// level and, from its zero crossings, its frequency in Hz (0 when it was silent).
    std::string report() const;

private:
    void sample(std::int16_t value);

    unsigned channels_, rate_;
    std::uint64_t samples_ = 0;
    int half_ = -1;  ///< low byte of a sample whose high byte has not come yet
    int peak_ = 0;
    bool below_ = false;
    std::uint64_t crossings_ = 0, firstCrossing_ = 0, lastCrossing_ = 0;
};

}  // namespace board
