#pragma once

#include <string>
#include <string_view>

namespace corvane {

/// Writes each byte of unprintable characters (see UnprintableCharacters.h) and of invalid UTF-8 as
/// \xNN, with `asciiOnly` also of everything that is not ASCII. The rest is unchanged.
[[gnu::visibility("hidden")]] std::string printableText(std::string_view text,
                                                        bool asciiOnly = false);

}  // namespace corvane
