#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace corvanectl {

/// The manual page as roff, made from the options and the tables of commands and exit statuses.
std::string manualPage(const CLI::App& app);

/// The completion scripts, made from the same.
std::string bashCompletion(const CLI::App& app);
std::string zshCompletion(const CLI::App& app);

}  // namespace corvanectl
