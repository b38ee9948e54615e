// The page of the matrix: written by a run, checked by a test.
#pragma once

#include "matrix.h"

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace matrix {

// Writes the page into the file that MDC_MATRIX_PAGE names, when all cells have run.
class PageWriter : public testing::EmptyTestEventListener
{
public:
    static void install(const std::vector<Column>& columns);

    explicit PageWriter(const std::vector<Column>& columns, std::string file);
    void OnTestEnd(const testing::TestInfo& test) override;
    void OnTestProgramEnd(const testing::UnitTest& all) override;

private:
    const std::vector<Column>& m_columns;
    std::string m_file;
    std::map<std::pair<std::string, std::string>, std::string> m_outcomes; // by column and row
};

// The tables of a page: the outcome by column and row.
std::map<std::pair<std::string, std::string>, std::string> cellsOfPage(const std::string& page);

} // namespace matrix
