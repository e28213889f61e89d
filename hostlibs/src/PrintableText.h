#pragma once

#include <string>
#include <string_view>

namespace corvane {

/// Writes each byte of unprintable characters (see UnprintableCharacters.h) and of invalid UTF-8 as
/// \xNN. Everything else is unchanged.
[[gnu::visibility("hidden")]] std::string printableText(std::string_view text);

}  // namespace corvane
