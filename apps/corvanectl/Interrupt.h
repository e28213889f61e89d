#pragma once

namespace corvanectl {

/// Ctrl-C. The first one of a command is counted and wakes whoever polls descriptor(); the second
/// one ends the process at once, with status 130.
class Interrupt {
public:
    /// Takes the signal over, for the whole process.
    static void install();

    /// Starts counting anew, for the next command.
    static void restart();

    /// Whether there was one since the last restart().
    static bool happened();

    /// Readable after an interrupt, until restart().
    static int descriptor();
};

}  // namespace corvanectl
