#include "Text.h"

#include <glib.h>

#include <charconv>
#include <cstdio>
#include <iterator>

namespace corvanectl {

namespace {

constexpr gunichar incomplete = static_cast<gunichar>(-2);
constexpr gunichar invalid = static_cast<gunichar>(-1);

std::string format(const char* pattern, unsigned long number) {
    char buffer[32];
    const int length = std::snprintf(buffer, sizeof buffer, pattern, number);
    return {buffer, static_cast<std::size_t>(length)};
}

/// GLib counts what separates lines and paragraphs among what prints.
bool prints(gunichar character) {
    const GUnicodeType type = g_unichar_type(character);
    return g_unichar_isprint(character) != FALSE && type != G_UNICODE_LINE_SEPARATOR &&
           type != G_UNICODE_PARAGRAPH_SEPARATOR;
}

std::string escape(std::string_view text, bool quotes) {
    std::string result;
    while (!text.empty()) {
        const gunichar character =
            text.front() == '\0'
                ? 0
                : g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
        if (character == incomplete || character == invalid) {
            result += format("\\x%02x", static_cast<unsigned char>(text.front()));
            text.remove_prefix(1);
            continue;
        }
        const auto length = static_cast<std::size_t>(g_unichar_to_utf8(character, nullptr));
        if (character == '\\' || (quotes && character == '"')) {
            result += '\\';
            result += text.front();
        } else if (character < 0x80 && !prints(character)) {
            result += format("\\x%02x", character);
        } else if (!prints(character)) {
            result += codePoint(character);
        } else {
            result += text.substr(0, length);
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
        std::uint32_t value = 0;
        const auto end = digits.data() + digits.size();
        const auto parsed = std::from_chars(digits.data(), end, value, 16);
        if (parsed.ec != std::errc() || parsed.ptr != end) {
            throw malformed(line, "malformed escape; write \\xNN, \\u{NNNN}, \\\" or \\\\");
        }
        return value;
    };
    std::string result;
    if (rest.empty()) return "\\";
    const char kind = rest.front();
    if (kind == 'x') {
        result = static_cast<char>(number(rest.substr(1, 2)));
        rest.remove_prefix(rest.size() < 3 ? rest.size() : 3);
    } else if (kind == 'u' && rest.size() > 1 && rest[1] == '{') {
        const std::size_t end = rest.find('}');
        const std::uint32_t character =
            number(rest.substr(2, end == std::string_view::npos ? 0 : end - 2));
        char utf8[6];
        if (g_unichar_validate(character) == FALSE) {
            throw malformed(line, "\\u{...} does not name a character");
        }
        result.assign(static_cast<const char*>(utf8),
                      static_cast<std::size_t>(g_unichar_to_utf8(character, utf8)));
        rest.remove_prefix(end + 1);
    } else {
        if (kind != '"' && kind != '\\') result = "\\";
        result += kind;
        rest.remove_prefix(1);
    }
    return result;
}

}  // namespace

std::string codePoint(std::uint32_t character) { return format("\\u{%lx}", character); }

std::string escaped(std::string_view text) { return escape(text, false); }

std::string inQuotes(std::string_view text) { return '"' + escape(text, true) + '"'; }

void putName(Json& object, const std::string& key, const std::string& name) {
    if (g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr) != FALSE) {
        object[key] = name;
        return;
    }
    gchar* const valid = g_utf8_make_valid(name.data(), static_cast<gssize>(name.size()));
    object[key] = std::string(valid);
    g_free(valid);
    std::string bytes;
    for (const char byte : name) bytes += format("%02x", static_cast<unsigned char>(byte));
    object[key + "_hex"] = bytes;
}

std::string toLine(const Json& value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace);
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

std::string hexadecimal(unsigned long number, int digits) {
    char buffer[32];
    const int length = std::snprintf(buffer, sizeof buffer, "0x%0*lX", digits, number);
    return {buffer, static_cast<std::size_t>(length)};
}

std::string joined(const std::vector<std::string>& texts) {
    std::string result;
    for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + text;
    return result;
}

}  // namespace corvanectl
