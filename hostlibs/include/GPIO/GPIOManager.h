#pragma once

namespace GPIO {

/// Direction of a line. libCorvane relies on the numbers.
enum class Direction : int { INPUT = 0, OUTPUT = 1 };

/// Level of a line. libCorvane relies on the numbers.
enum class Value : int { LOW = 0, HIGH = 1 };

/// Drives GPIO lines by their global number.
///
/// libCorvane relies on this: the return values; a level stays until the next setValue() while the
/// process lives; making a line an output keeps its level (line 48 also powers the Wi-Fi, which
/// must survive a restart of the host). Calls come from one thread at a time.
///
/// The reference uses character devices. It numbers the pins across the chips in order: first chip
/// 0's lines, then chip 1's, and so on. It holds lines until the process ends, because a line may
/// lose its level when nobody holds it. If an exported line cannot be taken (its driver comes late,
/// another program holds it), each later call tries again and sets its direction. The reason is
/// logged once, and again when it changes.
class GPIOManager {
public:
    GPIOManager();
    // NOLINTNEXTLINE(performance-trivially-destructible): another board's destructor may do work
    ~GPIOManager();
    GPIOManager(const GPIOManager&) = delete;
    GPIOManager& operator=(const GPIOManager&) = delete;

    /// Takes a line without changing its direction or level. Taking a line twice is no error.
    /// @param pin  the line's number
    /// @return 1 on success; 0 on failure (no such line, line busy), with the reason in the log
    int exportPin(unsigned pin);

    /// Sets the direction. Direction::OUTPUT keeps the line's present level.
    /// @param pin        the line's number
    /// @param direction  the direction
    /// @return 1 on success; 0 on failure (line not held, no permission), with the reason in the
    /// log
    int setDirection(unsigned pin, Direction direction);

    /// Reads the present level.
    /// @param pin  the line's number
    /// @return 0 or 1; -1 on failure, with the reason in the log
    int getValue(unsigned pin);

    /// Drives an output line.
    /// @param pin    the line's number
    /// @param value  the level
    /// @return 1 on success; 0 on failure (line not held, not an output), with the reason in the
    /// log
    int setValue(unsigned pin, Value value);
};

}  // namespace GPIO
