#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvanectl {

/// Uses the user's locale, or UTF-8 where none is set, as on most boards.
void chooseLocale();

/// Makes text from the air safe for a terminal: unprintable characters, bytes that are not UTF-8
/// and, in an ASCII locale, everything else that is not ASCII become \xNN per byte, a backslash \\.
std::string escaped(std::string_view text);

/// The text escaped and in double quotes; splitWords() turns it back.
std::string inQuotes(std::string_view text);

/// Splits a line at its blanks. Single quotes keep everything, double quotes everything but
/// \" \\ \xNN; outside quotes a backslash keeps the next character. Throws Failure (usage) for an
/// open quote or a malformed escape.
std::vector<std::string> splitWords(const std::string& line);

/// Breaks lines between words, and ends the last one where it ends. Continued lines are indented to
/// the text of the first, which starts behind a gap of two blanks.
/// @param width  of the terminal; 0 for none
std::string wrapped(const std::string& text, std::size_t width);

/// Sets rows in columns, the first row being the headings. In a terminal that is too narrow,
/// columns are left out from the last on, and a last line names them.
/// @param rows   fit for a terminal
/// @param kept   this many columns always stay
/// @param width  of the terminal; 0 for no limit
std::string table(const std::vector<std::vector<std::string>>& rows, std::size_t kept,
                  std::size_t width);

/// The number as 0x and this many hexadecimal digits.
std::string hexadecimal(unsigned long number, int digits);

/// The texts, separated by commas.
std::string joined(const std::vector<std::string>& texts);

/// "1 problem", "2 problems".
std::string counted(std::size_t count, const char* word);

}  // namespace corvanectl
