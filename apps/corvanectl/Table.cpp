#include "Table.h"

#include "Output.h"
#include "Text.h"

#include <glib.h>
#include <libsmartcols.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>

namespace corvanectl {

namespace {

void check(int result) {
    if (result < 0) throw std::system_error(-result, std::generic_category(), "libsmartcols");
}

/// The cell as libsmartcols can measure it: where the board has no UTF-8 locale, it would go round
/// for ever at the first character that is not ASCII.
std::string measurable(const std::string& cell) {
    if (MB_CUR_MAX > 1) return cell;
    std::string result;
    for (const char* at = cell.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar character = g_utf8_get_char(at);
        result += character < 0x80 ? std::string(1, *at) : codePoint(character);
    }
    return result;
}

}  // namespace

std::string table(const std::vector<Column>& columns,
                  const std::vector<std::vector<std::string>>& rows) {
    const std::unique_ptr<libscols_table, decltype(&scols_unref_table)> table(scols_new_table(),
                                                                              &scols_unref_table);
    if (!table) throw std::bad_alloc();
    // Cells are escaped already; libsmartcols would escape the backslashes again.
    check(scols_table_enable_noencoding(table.get(), 1));
    const std::size_t width = columnsOf(fileno(Output::file()));
    check(scols_table_set_termforce(table.get(),
                                    width == 0 ? SCOLS_TERMFORCE_NEVER : SCOLS_TERMFORCE_ALWAYS));
    if (width > 0) check(scols_table_set_termwidth(table.get(), width));
    for (const Column& column : columns) {
        const int flags = column.mayShrink ? SCOLS_FL_TRUNC : 0;
        if (scols_table_new_column(table.get(), column.heading, 0, flags) == nullptr) {
            throw std::bad_alloc();
        }
    }
    for (const auto& row : rows) {
        libscols_line* const line = scols_table_new_line(table.get(), nullptr);
        if (line == nullptr) throw std::bad_alloc();
        for (std::size_t i = 0; i < row.size(); ++i) {
            check(scols_line_set_data(line, i, measurable(row[i]).c_str()));
        }
    }
    char* text = nullptr;
    check(scols_print_table_to_string(table.get(), &text));
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    std::string result = text == nullptr ? "" : text;
    while (!result.empty() && result.back() == '\n') result.pop_back();
    return result;
}

std::string pairs(const std::vector<std::pair<std::string, std::string>>& rows) {
    std::size_t width = 0;
    for (const auto& row : rows) width = std::max(width, row.first.size());
    std::string text;
    for (const auto& row : rows) {
        if (!text.empty()) text += '\n';
        text += row.first + ':' + std::string(width - row.first.size() + 1, ' ') + row.second;
    }
    return text;
}

}  // namespace corvanectl
