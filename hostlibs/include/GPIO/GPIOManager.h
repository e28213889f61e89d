#pragma once

namespace GPIO {

/// Direction of a line; the numbers are those of the manager's calls.
enum class Direction : int { INPUT = 0, OUTPUT = 1 };

/// Level of a line.
enum class Value : int { LOW = 0, HIGH = 1 };

/// Drives general-purpose lines by their global number.
///
/// What libCorvane relies on: the return values below, a level that is kept until the next
/// setValue() for as long as the process lives, and that making a line an output does not change
/// its level (line 48 also powers the Wi-Fi: a restart of the host must not blink it). Calls come
/// from one thread at a time.
///
/// The reference uses character devices. Pin N is counted over the chips in their order: chip 0's
/// lines first, then chip 1's, and so on. Lines are held for the life of the process, not of this
/// object, since a character-device line is guaranteed only while somebody holds it. An exported
/// line that was not to be had (the chip's driver came late, another program held it) is tried
/// again, and given its direction, by each later call for it. Why it was not is logged once, and
/// again when the reason changes.
class GPIOManager {
public:
    GPIOManager();
    // NOLINTNEXTLINE(performance-trivially-destructible): other boards' managers have work to do
    ~GPIOManager();
    GPIOManager(const GPIOManager&) = delete;
    GPIOManager& operator=(const GPIOManager&) = delete;

    /// Takes the line into use without changing direction or level. Exporting a line twice is no
    /// error.
    /// @return 1 on success, 0 on failure (no such line, line busy); the reason is logged
    int exportPin(unsigned pin);

    /// Sets the direction. Direction::OUTPUT keeps the level that the line has.
    /// @return 1 on success, 0 on failure (line not held, no permission); the reason is logged
    int setDirection(unsigned pin, Direction direction);

    /// @return the present level, 0 or 1; -1 when it cannot be read (the reason is logged)
    int getValue(unsigned pin);

    /// Drives an output line.
    /// @return 1 on success, 0 on failure (line not held or not an output); the reason is
    /// logged
    int setValue(unsigned pin, Value value);
};

}  // namespace GPIO
