#pragma once

#include <string>
#include <vector>

namespace corvanectl {

struct Column {
    const char* heading;
    bool mayShrink;  ///< cut where the terminal is too narrow
};

/// Sets rows under headings, as wide as the terminal on standard output allows; uncut when it is
/// none. Cells have to be fit for a terminal already.
std::string table(const std::vector<Column>& columns,
                  const std::vector<std::vector<std::string>>& rows);

/// Names and values, one pair a line, the values below each other.
std::string pairs(const std::vector<std::pair<std::string, std::string>>& rows);

}  // namespace corvanectl
