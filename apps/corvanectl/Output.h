#pragma once

#include <cstdio>

namespace corvanectl {

/// Standard output, kept for what corvanectl itself says. What the library's shell commands print
/// goes to standard error, and a daemon that they start does not hold on to the reader of ours.
class Output {
public:
    /// Takes standard output over, for the whole process.
    static void claim();

    static std::FILE* file();
};

/// Columns of the terminal behind a descriptor, as it is now; 0 when there is none.
std::size_t columnsOf(int descriptor);

}  // namespace corvanectl
