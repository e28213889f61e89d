#pragma once

#include <map>
#include <string>

namespace corvane::fuzz {

/// The first inputs of a target, by what they show.
std::map<std::string, std::string> seeds(const std::string& target);

}  // namespace corvane::fuzz
