// Tables for people. No state beyond the object.
#include "table.h"

#include <algorithm>
#include <fmt/format.h>

namespace vellbctl
{

namespace
{

// Columns that a terminal gives the text; UTF-8 continuation bytes take none.
size_t width_of(const std::string &text)
{
    const auto starts = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; };
    return static_cast<size_t>(std::ranges::count_if(text, starts));
}

} // namespace

std::string table_t::text() const
{
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns_.size(); i++) {
        size_t width = width_of(columns_[i].title);
        for (const auto &row : rows_) {
            width = std::max(width, width_of(row.at(i)));
        }
        widths.push_back(width);
    }
    std::string text;
    const auto line = [&](auto cell) {
        std::string one;
        for (size_t i = 0; i < columns_.size(); i++) {
            const std::string &content = cell(i);
            const std::string blanks(widths[i] - width_of(content), ' ');
            one += i == 0 ? "" : "  ";
            one += columns_[i].right ? blanks + content : content + blanks;
        }
        one.erase(one.find_last_not_of(' ') + 1);
        text += one + '\n';
    };
    line([&](size_t i) { return columns_[i].title; });
    for (const auto &row : rows_) {
        line([&](size_t i) { return row.at(i); });
    }
    return text;
}

} // namespace vellbctl
