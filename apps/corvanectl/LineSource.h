#pragma once

#include <string>

namespace corvanectl {

/// The lines of a descriptor, standard input as a rule. Keeps what was read ahead.
class LineSource {
public:
    explicit LineSource(int inputDescriptor) : descriptor(inputDescriptor) {}

    /// Waits for the next line. A last line without a line end counts.
    /// @return false at the end of input, and after a Ctrl-C
    bool next(std::string& line);

    /// Looks, without waiting, whether the next line is there and says `word`, and takes it in that
    /// case.
    bool takeIf(const std::string& word);

    /// What to poll for takeIf(); -1 when the next line is there and says something else, or the
    /// input has ended.
    int awaited() const { return ended || hasLine() ? -1 : descriptor; }

    /// Takes all that was read ahead.
    std::string takeRest();

private:
    bool hasLine() const { return ahead.find('\n') != std::string::npos; }
    void readSome();

    const int descriptor;
    std::string ahead;
    bool ended = false;
};

}  // namespace corvanectl
