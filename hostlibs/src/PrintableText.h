#pragma once

#include <string>
#include <string_view>

namespace corvane {

/// The text with every unprintable character (see UnprintableCharacters.h) and every byte that is
/// not valid UTF-8 written as \xNN per byte. The rest stays byte for byte.
[[gnu::visibility("hidden")]] std::string printableText(std::string_view text);

}  // namespace corvane
