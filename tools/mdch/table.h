// Columns of text.
#pragma once

#include <string>
#include <vector>

namespace mdch {

using Rows = std::vector<std::vector<std::string>>;

// One line per row, columns aligned by characters (UTF-8), the last one as long as it is.
std::string tableText(const Rows& rows);

} // namespace mdch
