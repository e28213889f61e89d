#include "Text.h"

#include "Command.h"
#include "UnprintableCharacters.h"

#include <glib.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include <langinfo.h>

namespace corvanectl {

namespace {

bool asciiOnly() { return std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0; }

template <class... Values>
std::string format(const char* pattern, Values... values) {
    char buffer[64];
    const int length = std::snprintf(buffer, sizeof buffer, pattern, values...);
    return {buffer, static_cast<std::size_t>(length)};
}

std::string escape(std::string_view text, bool quotes) {
    std::string result;
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text.front());
        const gunichar character =
            byte == 0 ? 0
                      : g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
        std::size_t length = 1;
        if (byte < 0x80) {
            if (byte == '\\' || (quotes && byte == '"')) result += '\\';
            result += corvane::isUnprintable(byte) ? format("\\x%02x", byte)
                                                   : std::string(1, text.front());
        } else if (g_unichar_validate(character) == FALSE) {  // GLib's marks for broken UTF-8, too
            result += format("\\x%02x", byte);
        } else {
            length = static_cast<std::size_t>(g_unichar_to_utf8(character, nullptr));
            const bool shown = !asciiOnly() && !corvane::isUnprintable(character);
            result += shown ? std::string(text.substr(0, length)) : format("\\u{%x}", character);
        }
        text.remove_prefix(length);
    }
    return result;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

Failure malformed(std::string_view line, const char* what) {
    return {ExitStatus::usage, inQuotes(line) + ": " + what};
}

/// Takes the escape behind a backslash within double quotes.
/// @param rest  what stands behind the backslash; shortened by what was taken
std::string takeEscape(std::string_view line, std::string_view& rest) {
    const auto number = [&](std::string_view digits) {
        gunichar value = 0;
        const auto* const end = digits.data() + digits.size();
        const auto parsed = std::from_chars(digits.data(), end, value, 16);
        if (parsed.ec != std::errc() || parsed.ptr != end) {
            throw malformed(line, "malformed escape; write \\xNN, \\u{NNNN}, \\\" or \\\\");
        }
        return value;
    };
    const char kind = rest.empty() ? '\0' : rest.front();
    std::size_t length = 1;
    std::string result;
    if (kind == 'x') {
        result = static_cast<char>(number(rest.substr(1, 2)));
        length = std::min<std::size_t>(3, rest.size());
    } else if (kind == 'u' && rest.substr(1, 1) == "{") {
        length = std::min(rest.find('}'), rest.size() - 1) + 1;
        const gunichar character = number(rest.substr(2, length - 3));
        char utf8[6];
        if (rest[length - 1] != '}' || g_unichar_validate(character) == FALSE) {
            throw malformed(line, "\\u{...} does not name a character");
        }
        result.assign(static_cast<const char*>(utf8),
                      static_cast<std::size_t>(g_unichar_to_utf8(character, utf8)));
    } else if (kind == '"' || kind == '\\') {
        result = kind;
    } else {
        result = "\\";
        length = 0;
    }
    rest.remove_prefix(length);
    return result;
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
    bool chosen = false;
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        if (std::getenv(name) != nullptr) chosen = true;
    }
    const bool known = std::setlocale(LC_CTYPE, "") != nullptr;
    if (!chosen || !known) std::setlocale(LC_CTYPE, "C.UTF-8");
}

std::string escaped(std::string_view text) { return escape(text, false); }

std::string inQuotes(std::string_view text) { return '"' + escape(text, true) + '"'; }

std::string asWord(const std::string& text) {
    const bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               std::strchr(":_-.", c) != nullptr;
    });
    return plain ? text : inQuotes(text);
}

std::vector<std::string> splitWords(std::string_view line) {
    std::vector<std::string> words;
    std::string_view rest = line;
    while (true) {
        while (!rest.empty() && isBlank(rest.front())) rest.remove_prefix(1);
        if (rest.empty()) return words;
        std::string word;
        char quote = '\0';
        while (!rest.empty() && (quote != '\0' || !isBlank(rest.front()))) {
            const char c = rest.front();
            rest.remove_prefix(1);
            if (c == quote) {
                quote = '\0';
            } else if (quote == '\0' && (c == '"' || c == '\'')) {
                quote = c;
            } else if (c == '\\' && quote == '"') {
                word += takeEscape(line, rest);
            } else if (c == '\\' && quote == '\0' && !rest.empty()) {
                word += rest.front();
                rest.remove_prefix(1);
            } else {
                word += c;
            }
        }
        if (quote != '\0') throw malformed(line, "a quote is not closed; close it");
        words.push_back(std::move(word));
    }
}

std::string wrapped(const std::string& text, std::size_t width) {
    std::string result;
    for (std::size_t start = 0; start < text.size();) {
        std::size_t end = std::min(text.find('\n', start), text.size());
        std::string line = text.substr(start, end - start);
        start = end + 1;
        std::size_t hang = std::min(line.find_first_not_of(' '), line.size());
        const std::size_t gap = line.find("  ", hang);
        if (gap != std::string::npos) hang = line.find_first_not_of(' ', gap);
        if (hang + 20 > width) hang = 4;
        while (line.size() > width) {
            const std::size_t space = line.rfind(' ', width);
            if (space == std::string::npos || space <= hang) break;
            result.append(line, 0, space) += '\n';
            line = std::string(hang, ' ') + line.substr(space + 1);
        }
        result += line + '\n';
    }
    return result;
}

std::string table(const std::vector<Column>& columns,
                  const std::vector<std::vector<std::string>>& rows, std::size_t width) {
    std::vector<std::size_t> widths;
    std::size_t total = 0;  // with a blank behind each column
    for (std::size_t i = 0; i < columns.size(); ++i) {
        std::size_t widest = std::strlen(columns[i].heading);
        for (const auto& row : rows) widest = std::max(widest, columnsOf(row[i]));
        widths.push_back(widest);
        total += widest + 1;
    }
    std::vector<std::string> missing;
    const auto leaveOut = [&](std::size_t i) {
        total -= widths[i] + 1;
        widths[i] = 0;
        missing.insert(missing.begin(), columns[i].heading);
    };
    const auto tooWide = [&] { return width > 0 && total > width + 1; };
    for (std::size_t i = columns.size(); i-- > 0 && tooWide();) {
        if (columns[i].least == 0) leaveOut(i);
    }
    for (std::size_t i = 0; i < columns.size() && tooWide(); ++i) {
        if (columns[i].least == 0 || columns[i].least >= widths[i]) continue;
        const std::size_t cut = std::min(total - width - 1, widths[i] - columns[i].least);
        widths[i] -= cut;
        total -= cut;
    }
    for (std::size_t i = 0; i < columns.size() && tooWide(); ++i) {
        if (columns[i].least != Column::whole && widths[i] > 0) leaveOut(i);
    }
    std::string text;
    const auto add = [&](std::size_t i, std::string cell) {
        if (widths[i] == 0) return;
        std::size_t taken = columnsOf(cell);
        if (taken > widths[i]) {
            cell = cell.substr(0, widths[i] - 3) + "...";
            taken = widths[i];
        }
        text += cell + std::string(widths[i] - taken + 1, ' ');
    };
    const auto endLine = [&] {
        text.erase(text.find_last_not_of(' ') + 1);
        text += '\n';
    };
    for (std::size_t i = 0; i < columns.size(); ++i) add(i, columns[i].heading);
    endLine();
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < columns.size(); ++i) add(i, row[i]);
        endLine();
    }
    if (!missing.empty()) text += wrapped("(no room for " + joined(missing) + ")", width);
    text.pop_back();
    return text;
}

std::string pairs(const std::vector<std::pair<std::string, std::string>>& rows) {
    std::size_t width = 0;
    for (const auto& row : rows) width = std::max(width, row.first.size());
    std::string text;
    for (const auto& [name, value] : rows) {
        if (!text.empty()) text += '\n';
        text.append(name).append(":").append(width - name.size() + 1, ' ').append(value);
    }
    return text;
}

std::string contentOf(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::string hexadecimal(unsigned long number, int digits) {
    return format("0x%0*lX", digits, number);
}

std::string joined(const std::vector<std::string>& texts, const char* between) {
    std::string result;
    for (const std::string& text : texts) result += (result.empty() ? "" : between) + text;
    return result;
}

std::string counted(std::size_t count, const char* word) {
    return std::to_string(count) + ' ' + word + (count == 1 ? "" : "s");
}

}  // namespace corvanectl
