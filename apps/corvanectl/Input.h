#pragma once

#include <cstdio>
#include <string>

namespace corvanectl {

/// The descriptors that corvanectl was started with, out of reach of what it starts: daemons live
/// on, and a reader of our output would wait for their end.
struct Streams {
    /// Opens those of descriptors 0 to 2 that are closed, takes all three over, and leaves
    /// /dev/null in their place for commands and daemons.
    static void claim();

    /// Lets commands and daemons write to a file. Throws Failure (usage).
    static void logCommandsTo(const std::string& file);

    inline static std::FILE* input = nullptr;
    inline static std::FILE* output = nullptr;
    inline static std::FILE* errors = nullptr;
};

/// Columns of the terminal behind a stream, as it is now; 0 when it is not a terminal.
std::size_t terminalColumns(std::FILE* stream);

/// Ctrl-C. The first one during a command is noted; the second one ends the process at once.
struct Interrupt {
    /// Takes the signal over, for the whole process.
    static void install();
    /// Forgets it, for the next command.
    static void restart();
    static bool happened();
};

/// The lines of standard input, read without stdio: what is there can be told from what is not.
class LineSource {
public:
    /// Waits for the next line. The last one may lack its line end.
    /// @return false at the end of input, and after Ctrl-C
    bool next(std::string& line);

    /// Whether next() would return without waiting.
    bool isAhead() const { return ended || ahead.find('\n') != std::string::npos; }

    /// Takes the next line when it is already there and says `word`.
    bool takeIf(const std::string& word);

private:
    void readSome();

    std::string ahead;
    bool ended = false;
};

}  // namespace corvanectl
