#pragma once

#include "Command.h"

#include <string>
#include <vector>

namespace corvanectl {

/// Reads one command from a line. Throws Failure (usage) that names the word it is about.
/// @return without a command for a line that is blank or a comment (first character '#')
Invocation parseLine(const std::string& line);

/// Reads the commands from the words of a command line. A word with a blank, where a command is
/// expected, is a whole line. Any other word there is a command's name, and the following words are
/// its arguments as they are: as many as it takes, and an optional one only when it is one of the
/// command's own words. Throws like parseLine().
std::vector<Invocation> parseArguments(const std::vector<std::string>& words);

}  // namespace corvanectl
