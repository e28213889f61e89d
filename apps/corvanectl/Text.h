#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvanectl {

/// Takes the user's locale over. Most boards have none: names are UTF-8 there all the same.
void chooseLocale();

/// Text from the air made fit for a terminal: unprintable characters, bytes that are no UTF-8 and
/// the backslash appear as \xNN, \u{NNNN} and \\. So does all that is not ASCII in a locale that
/// has nothing else.
std::string escaped(std::string_view text);

/// The text in double quotes, escaped as well: splitWords() makes the text again of it.
std::string inQuotes(std::string_view text);

/// The text as splitWords() reads it back, in quotes only where it needs them.
std::string asWord(const std::string& text);

/// Splits a line at its blanks. Single quotes keep everything, double quotes everything but
/// \" \\ \xNN \u{NNNN}, a backslash outside quotes keeps the next character. Throws Failure when a
/// quote is not closed or an escape is malformed.
std::vector<std::string> splitWords(std::string_view line);

/// Breaks lines between words. What follows hangs below the text of its line, behind a heading in
/// the first column.
std::string wrapped(const std::string& text, std::size_t width);

struct Column {
    const char* heading;
    std::size_t least;  ///< may be cut to so many columns; 0: left out instead; whole: never cut
    static constexpr std::size_t whole = std::string::npos;
};

/// Sets rows under headings. In a terminal that is too narrow, columns give way from the last but
/// one to the first; a cut cell ends in "...", and a last line names the columns that are left out.
/// @param cells  fit for a terminal; those of columns that may be cut are ASCII
/// @param width  of the terminal; 0 for no limit
std::string table(const std::vector<Column>& columns,
                  const std::vector<std::vector<std::string>>& rows, std::size_t width);

/// Names and values, one pair a line, the values below each other.
std::string pairs(const std::vector<std::pair<std::string, std::string>>& rows);

/// What a file holds; empty when it cannot be read.
std::string contentOf(const std::string& file);

/// The number as 0x and so many hexadecimal digits.
std::string hexadecimal(unsigned long number, int digits);

/// The texts with something between them.
std::string joined(const std::vector<std::string>& texts, const char* between = ", ");

/// "1 problem", "2 problems".
std::string counted(std::size_t count, const char* word);

}  // namespace corvanectl
