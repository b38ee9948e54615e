#include "table.h"

#include <algorithm>
#include <cstddef>

namespace mdch {

namespace {

// Characters of a UTF-8 text: bytes but for those that continue one.
std::size_t widthOf(const std::string& text)
{
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80U;
    }));
}

} // namespace

std::string tableText(const Rows& rows)
{
    constexpr std::size_t kGap = 2;
    std::vector<std::size_t> widths;
    for (const std::vector<std::string>& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], widthOf(row[column]));
        }
    }
    std::string text;
    for (const std::vector<std::string>& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            text += row[column];
            if (column + 1 < row.size()) {
                text.append(widths[column] + kGap - widthOf(row[column]), ' ');
            }
        }
        text += '\n';
    }
    return text;
}

} // namespace mdch
