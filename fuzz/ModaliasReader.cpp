#include "ModaliasReader.h"

#include <cctype>

namespace corvane::fuzz {

namespace {

constexpr int width = 4;

/// The texts that are left; a zero byte ends them.
class Scanner {
public:
    explicit Scanner(const std::string& text) : position(text.c_str()) {}

    bool prefix() {
        const char* const start = position;
        while (*position >= 'a' && *position <= 'z') ++position;
        return position != start;
    }

    bool letter(char wanted) { return take(*position == wanted); }

    bool number(std::uint16_t& id) {
        while (std::isspace(static_cast<unsigned char>(*position)) != 0) ++position;
        int left = width;
        const bool negative = *position == '-';
        if (take(negative || *position == '+')) --left;
        bool any = false;
        std::uint32_t value = 0;
        if (take(*position == '0')) {
            any = true;
            --left;
            if (left > 0 && take(*position == 'x' || *position == 'X')) --left;
        }
        for (; left > 0 && std::isxdigit(static_cast<unsigned char>(*position)) != 0; --left) {
            const char c = *position++;
            const int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
            value = value * 16 + static_cast<std::uint32_t>(digit);
            any = true;
        }
        id = static_cast<std::uint16_t>(negative ? 0x10000 - value : value);
        return any;
    }

private:
    bool take(bool wanted) {
        if (wanted) ++position;
        return wanted;
    }

    const char* position;
};

}  // namespace

ModaliasIds readModalias(const std::string& text) {
    Scanner scanner(text);
    ModaliasIds ids;
    const bool complete = scanner.prefix() && scanner.letter(':') && scanner.letter('v') &&
                          scanner.number(ids.vendorId) && scanner.letter('p') &&
                          scanner.number(ids.productId) && scanner.letter('d') &&
                          scanner.number(ids.versionId);
    return complete ? ids : ModaliasIds{};
}

}  // namespace corvane::fuzz
