#pragma once

#include <cstdio>
#include <string>

namespace corvanectl {

/// The descriptors that corvanectl was started with, kept out of reach of what it starts: daemons
/// live on, and a reader of our output would wait for their end.
class Streams {
public:
    /// Opens those of descriptors 0 to 2 that are closed, takes all three over, and gives commands
    /// and daemons /dev/null instead.
    static void claim();

    /// Lets commands and daemons write to a file. Throws Failure (usage).
    static void logCommandsTo(const std::string& file);

    static std::FILE* input();
    static std::FILE* output();
    static std::FILE* errors();
};

/// Columns of the terminal behind a stream, as it is now; 0 when there is none.
std::size_t terminalColumns(std::FILE* stream);

/// Ctrl-C. The first one of a command is counted and ends a wait; the second one ends the process
/// at once, with status 130.
class Interrupt {
public:
    /// Takes the signal over, for the whole process.
    static void install();
    /// Starts counting anew, for the next command.
    static void restart();
    /// Whether there was one since the last restart().
    static bool happened();
};

/// The lines of a descriptor, standard input as a rule. Keeps what was read ahead.
class LineSource {
public:
    explicit LineSource(int inputDescriptor) : descriptor(inputDescriptor) {}

    /// Waits for the next line. A last line without a line end counts.
    /// @return false at the end of input, and after a Ctrl-C
    bool next(std::string& line);

    /// Takes the next line if it is there already and says `word`.
    bool takeIf(const std::string& word);

    /// Takes all that was read ahead.
    std::string takeRest();

private:
    void readSome();

    const int descriptor;
    std::string ahead;
    bool ended = false;
};

}  // namespace corvanectl
