#include "matrix.h"

#include <cstdlib>
#include <iterator>

namespace matrix {

Cell noCell(const std::string& row, const std::string& why)
{
    return {row, {}, why};
}

std::vector<Column> allColumns()
{
    std::vector<Column> all;
    for (std::vector<Column> (*part)() : {fileColumns, mediaColumns, proxyColumns, tlsColumns, radioColumns,
                                          uploadColumns, multicastColumns}) {
        std::vector<Column> columns = part();
        all.insert(all.end(), std::make_move_iterator(columns.begin()),
                   std::make_move_iterator(columns.end()));
    }
    return all;
}

std::chrono::seconds pauseLength()
{
    const char* asked = std::getenv("MDC_MATRIX_PAUSE");
    return std::chrono::seconds(asked != nullptr ? std::atoi(asked) : 1);
}

} // namespace matrix
