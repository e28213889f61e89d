#pragma once

#include <string>

namespace corvanectl {

/// The commands and the exit statuses, for --help.
std::string commandsHelp();

}  // namespace corvanectl
