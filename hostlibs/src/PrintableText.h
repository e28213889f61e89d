#pragma once

#include <string>
#include <string_view>

namespace corvane {

/// The text with everything that could break a log line, forge one or steer a terminal written as
/// \xNN per byte: control characters, line and paragraph separators, marks that turn the writing
/// direction, and bytes that are not valid UTF-8. The rest stays byte for byte.
[[gnu::visibility("hidden")]] std::string printableText(std::string_view text);

}  // namespace corvane
