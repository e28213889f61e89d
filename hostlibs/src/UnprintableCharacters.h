#pragma once

#include <cstdint>

namespace corvane {

/// Tells whether a character could break a line, steer a terminal or mislead its reader: controls
/// (Cc), line and paragraph separators (Zl, Zp), and the properties Bidi_Control and
/// Default_Ignorable_Code_Point of Unicode 14.0.
constexpr bool isUnprintable(std::uint32_t codePoint) {
    struct Range {
        std::uint32_t first;
        std::uint32_t last;
    };
    constexpr Range ranges[] = {
        {0x00, 0x1F},       {0x7F, 0x9F},       {0xAD, 0xAD},       {0x34F, 0x34F},
        {0x61C, 0x61C},     {0x115F, 0x1160},   {0x17B4, 0x17B5},   {0x180B, 0x180F},
        {0x200B, 0x200F},   {0x2028, 0x202E},   {0x2060, 0x206F},   {0x3164, 0x3164},
        {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFF8},
        {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
    };
    for (const Range& range : ranges) {
        if (codePoint >= range.first && codePoint <= range.last) return true;
    }
    return false;
}

}  // namespace corvane
