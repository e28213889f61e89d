#include "Tone.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace board {
namespace {

// Louder than what the codec makes of silence; found by trial.
constexpr int audible = 200;

}  // namespace

void Tone::feed(const std::uint8_t* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        if (half_ < 0) {
            half_ = data[i];
            continue;
        }
        const auto value = static_cast<std::int16_t>(half_ | data[i] << 8);
        half_ = -1;
        if (samples_++ % channels_ == 0) sample(value);
    }
}

void Tone::sample(std::int16_t value) {
    peak_ = std::max(peak_, std::abs(static_cast<int>(value)));
    if (value < -audible) below_ = true;
    if (!below_ || value < audible) return;
    below_ = false;
    lastCrossing_ = samples_ / channels_;
    if (crossings_++ == 0) firstCrossing_ = lastCrossing_;
}

std::string Tone::report() const {
    long frequency = 0;
    if (crossings_ > 1) {
        frequency = std::lround(static_cast<double>(crossings_ - 1) * rate_ /
                                static_cast<double>(lastCrossing_ - firstCrossing_));
    }
    return "frames=" + std::to_string(samples_ / channels_) + " rate=" + std::to_string(rate_) +
           " channels=" + std::to_string(channels_) + " peak=" + std::to_string(peak_) +
           " tone=" + std::to_string(frequency);
}

}  // namespace board
