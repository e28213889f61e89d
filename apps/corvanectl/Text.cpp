#include "Text.h"

#include "Command.h"
#include "PrintableText.h"

#include <glib.h>

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <sstream>
#include <utility>

namespace corvanectl {

namespace {

std::string escape(std::string_view text, std::string_view backslashed) {
    std::string result;
    for (const char c : text) {
        if (backslashed.find(c) != std::string_view::npos) result += '\\';
        result += c;
    }
    return corvane::printableText(result, g_get_charset(nullptr) == FALSE);
}

/// Columns that the text takes on a terminal.
std::size_t columnsOf(const std::string& text) {
    std::size_t columns = 0;
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar character = g_utf8_get_char(at);
        if (g_unichar_iszerowidth(character) != FALSE) continue;
        columns += g_unichar_iswide(character) != FALSE ? 2 : 1;
    }
    return columns;
}

}  // namespace

void chooseLocale() {
    const auto isSet = [](const char* name) { return std::getenv(name) != nullptr; };
    const bool chosen = isSet("LC_ALL") || isSet("LC_CTYPE") || isSet("LANG");
    if (std::setlocale(LC_CTYPE, "") == nullptr || !chosen) std::setlocale(LC_CTYPE, "C.UTF-8");
}

std::string escaped(std::string_view text) { return escape(text, "\\"); }

std::string inQuotes(std::string_view text) { return '"' + escape(text, "\\\"") + '"'; }

std::vector<std::string> splitWords(const std::string& line) {
    const auto malformed = [&](const char* what) {
        return Failure(ExitStatus::usage, inQuotes(line) + ": " + what);
    };
    std::vector<std::string> words;
    bool inWord = false;
    char quote = '\0';
    for (const char *at = line.data(), *const end = at + line.size(); at < end; ++at) {
        if (quote == '\0' && std::string_view(" \t\r").find(*at) != std::string_view::npos) {
            inWord = false;
            continue;
        }
        if (!std::exchange(inWord, true)) words.emplace_back();
        std::string& word = words.back();
        if (*at == quote) {
            quote = '\0';
        } else if (quote == '\0' && (*at == '"' || *at == '\'')) {
            quote = *at;
        } else if (*at != '\\' || quote == '\'' || at + 1 == end) {
            word += *at;
        } else if (*++at != 'x' || quote == '\0') {
            if (quote != '\0' && *at != '"' && *at != '\\') word += '\\';
            word += *at;
        } else {
            unsigned char byte = 0;
            const auto parsed = std::from_chars(at + 1, std::min(at + 3, end), byte, 16);
            // Neither the bus nor a shell command line can carry a zero byte.
            if (parsed.ptr != at + 3 || byte == 0) {
                throw malformed("malformed escape; write \\xNN (not \\x00), \\\" or \\\\");
            }
            word += static_cast<char>(byte);
            at += 2;
        }
    }
    if (quote != '\0') throw malformed("a quote is not closed; close it");
    return words;
}

std::string wrapped(const std::string& text, std::size_t width) {
    if (width == 0) width = 80;
    std::string result;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        std::string line = text.substr(start, end - start);
        start = end + 1;
        std::size_t indent = std::min(line.find_first_not_of(' '), line.size());
        const std::size_t gap = line.find("  ", indent);
        if (gap != std::string::npos) indent = line.find_first_not_of(' ', gap);
        if (indent + 20 > width) indent = 4;
        while (line.size() > width) {
            const std::size_t space = line.rfind(' ', width);
            if (space == std::string::npos || space <= indent) break;
            result.append(line, 0, space) += '\n';
            line = std::string(indent, ' ') + line.substr(space + 1);
        }
        result += line + '\n';
    }
    result.erase(result.find_last_not_of(" \n") + 1);
    return result;
}

std::string table(const std::vector<std::vector<std::string>>& rows, std::size_t kept,
                  std::size_t width) {
    std::vector<std::size_t> widths(rows.front().size());
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], columnsOf(row[i]));
        }
    }
    std::vector<std::string> missing;
    // With a blank between columns.
    while (width > 0 && widths.size() > kept &&
           std::accumulate(widths.begin(), widths.end(), widths.size() - 1) > width) {
        widths.pop_back();
        missing.insert(missing.begin(), rows.front()[widths.size()]);
    }
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            text += row[i] + std::string(widths[i] - columnsOf(row[i]) + 1, ' ');
        }
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    }
    if (missing.empty()) return text.substr(0, text.size() - 1);
    return text + wrapped("(no room for " + joined(missing) + ")", width);
}

std::string hexadecimal(unsigned long number, int digits) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%0*lX", digits, number);
    return text;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string result;
    for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + text;
    return result;
}

std::string counted(std::size_t count, const char* word) {
    return std::to_string(count) + ' ' + word + (count == 1 ? "" : "s");
}

}  // namespace corvanectl
