#pragma once

#include "Command.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvanectl {

/// Text from the air made fit for a terminal: what does not print (control and format characters,
/// bytes that are no UTF-8) and the backslash appear as \xNN, \u{NNNN} and \\.
std::string escaped(std::string_view text);

/// A character as \u{NNNN}.
std::string codePoint(std::uint32_t character);

/// The text in double quotes, escaped as well: splitWords() makes the text again of it.
std::string inQuotes(std::string_view text);

/// Puts a name into a JSON object as valid UTF-8. Bytes that are no UTF-8 become U+FFFD, and
/// "<key>_hex" then carries all bytes.
void putName(Json& object, const std::string& key, const std::string& name);

/// One line of JSON in plain ASCII. Bytes that are no UTF-8 become U+FFFD.
std::string toLine(const Json& value);

/// Splits a line at its blanks. Single quotes keep everything, double quotes everything but
/// \" \\ \xNN \u{NNNN}, a backslash outside quotes keeps the next character. Throws Failure when a
/// quote is not closed or an escape is malformed.
std::vector<std::string> splitWords(std::string_view line);

/// The number as 0x and so many hexadecimal digits.
std::string hexadecimal(unsigned long number, int digits);

/// The texts with ", " between them.
std::string joined(const std::vector<std::string>& texts);

}  // namespace corvanectl
