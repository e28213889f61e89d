#include "PrintableText.h"

#include "UnprintableCharacters.h"

#include <array>
#include <cstdint>

namespace corvane {

namespace {

/// The first character of a text.
struct Character {
    std::size_t length;  // bytes
    bool printable;
};

/// A UTF-8 form: its lead byte, length and smallest code point.
struct Form {
    std::uint8_t mask;
    std::uint8_t lead;
    std::size_t length;
    std::uint32_t smallest;
};

constexpr std::array<Form, 4> forms{{{0x80, 0x00, 1, 0x00},
                                     {0xE0, 0xC0, 2, 0x80},
                                     {0xF0, 0xE0, 3, 0x800},
                                     {0xF8, 0xF0, 4, 0x10000}}};

Character firstCharacter(std::string_view text) {
    constexpr Character invalid{1, false};
    const auto lead = static_cast<std::uint8_t>(text.front());
    for (const Form& form : forms) {
        if ((lead & form.mask) != form.lead) continue;
        if (text.size() < form.length) return invalid;
        std::uint32_t codePoint = lead & static_cast<std::uint8_t>(~form.mask);
        for (const char next : text.substr(1, form.length - 1)) {
            const auto byte = static_cast<std::uint8_t>(next);
            if ((byte & 0xC0U) != 0x80U) return invalid;
            codePoint = codePoint << 6U | (byte & 0x3FU);
        }
        const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
        if (codePoint < form.smallest || codePoint > 0x10FFFF || surrogate) return invalid;
        return {form.length, !isUnprintable(codePoint)};
    }
    return invalid;
}

}  // namespace

std::string printableText(std::string_view text, bool asciiOnly) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        const std::string_view bytes = text.substr(0, character.length);
        if (character.printable && (character.length == 1 || !asciiOnly)) {
            result += bytes;
        } else {
            for (const char next : bytes) {
                const auto byte = static_cast<std::uint8_t>(next);
                result += "\\x";
                result += digits[byte >> 4U];
                result += digits[byte & 0x0FU];
            }
        }
        text.remove_prefix(character.length);
    }
    return result;
}

}  // namespace corvane
