// Every behaviour of streams and uploads against every real server that there is a package of: one test per cell,
// "Server.Behaviour". docs/server-matrix.md shows the outcome.
//
// The long run, with a minute's pause, which also writes that page:
//
//   cmake --build --preset dev --target server_matrix_page
#include "matrix/matrix.h"
#include "matrix/page.h"
#include "support_servers.h"

#include <gtest/gtest.h>
#include <map>
#include <utility>

namespace {

using matrix::Cell;
using matrix::Column;

// The server of the column whose turn it is; cells share it.
class CellTest : public testing::Test
{
public:
    CellTest(const Column& column, const Cell& cell) : m_column(column), m_cell(cell) {}

    static void TearDownTestSuite() { s_server.reset(); }

protected:
    void SetUp() override
    {
        if (s_server == nullptr) {
            try {
                s_server = m_column.start();
            } catch (const support::Unavailable& problem) {
                GTEST_SKIP() << problem.what();
            }
        }
    }

    void TestBody() override
    {
        m_cell.check(*s_server);
        if (HasFailure() || m_cell.row == "Crash") {
            s_server.reset(); // the next cell gets a new one
        }
    }

private:
    static std::unique_ptr<matrix::Server> s_server;

    const Column& m_column;
    const Cell& m_cell;
};

std::unique_ptr<matrix::Server> CellTest::s_server;

void registerCells(const std::vector<Column>& columns)
{
    for (const Column& column : columns) {
        for (const Cell& cell : column.cells) {
            if (cell.check) {
                testing::RegisterTest(column.name.c_str(), cell.row.c_str(), nullptr, nullptr, __FILE__,
                                      __LINE__,
                                      [&column, &cell]() -> CellTest* { return new CellTest(column, cell); });
            }
        }
    }
}

// The page in the repository is of these cells: none is missing, none is of another time.
TEST(ServerMatrixPage, showsEveryCell)
{
    std::map<std::pair<std::string, std::string>, std::string> shown =
        matrix::cellsOfPage(support::readFile(SERVER_MATRIX_PAGE));
    for (const Column& column : matrix::allColumns()) {
        EXPECT_EQ(shown.count({column.name, "version"}), 1U) << column.name;
        shown.erase({column.name, "version"});
        for (const Cell& cell : column.cells) {
            const std::string outcome = shown[{column.name, cell.row}];
            EXPECT_NE(outcome, "") << column.name << "." << cell.row;
            EXPECT_EQ(outcome == "-", !cell.check) << column.name << "." << cell.row;
            shown.erase({column.name, cell.row});
        }
    }
    for (const auto& [cell, outcome] : shown) {
        EXPECT_EQ(outcome, "-") << cell.first << "." << cell.second << " is no cell";
    }
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const std::vector<Column> columns = matrix::allColumns();
    registerCells(columns);
    matrix::PageWriter::install(columns);
    return RUN_ALL_TESTS();
}
