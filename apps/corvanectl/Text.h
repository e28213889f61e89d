#pragma once

#include <string>
#include <string_view>
#include <utility>
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

/// Breaks lines between words. Continued lines are indented to the text of the first, which starts
/// behind a gap of two blanks.
std::string wrapped(const std::string& text, std::size_t width);

/// Sets rows in columns, the first row being the headings. When the terminal is too narrow, columns
/// give way from the last to the first. A cut cell ends in "..."; a last line names the columns
/// that are left out.
/// @param rows   fit for a terminal, and ASCII in columns that may be cut
/// @param least  per column: may be cut to this width; 0: left out instead; never: stays whole
/// @param width  of the terminal; 0 for no limit
std::string table(const std::vector<std::vector<std::string>>& rows,
                  const std::vector<std::size_t>& least, std::size_t width);
constexpr std::size_t never = std::string::npos;

/// The part of a list with this number, from 0 on; '|' separates. Empty when there is none.
std::string part(const char* list, std::size_t number);

/// Names and values, one pair per line, the values aligned.
std::string pairs(const std::vector<std::pair<std::string, std::string>>& rows);

/// What a file holds; empty when it cannot be read.
std::string contentOf(const std::string& file);

/// The number as 0x and this many hexadecimal digits.
std::string hexadecimal(unsigned long number, int digits);

/// The texts, separated by commas.
std::string joined(const std::vector<std::string>& texts);

/// "1 problem", "2 problems".
std::string counted(std::size_t count, const char* word);

}  // namespace corvanectl
