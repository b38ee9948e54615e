#include "page.h"

#include "../support_process.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace matrix {

namespace {

constexpr const char* kGood = "yes";
constexpr const char* kBad = "**no**";
constexpr const char* kNone = "-";

// "nginx version: nginx/1.22.1" is 1.22.1.
std::string versionOf(const Column& column)
{
    // vsftpd writes it to its standard input.
    std::string command;
    for (const std::string& word : column.versionCommand) {
        command += "'" + word + "' ";
    }
    const support::Result result =
        support::runToEnd({"bash", "-c", "PATH=$PATH:/usr/sbin:/sbin; { " + command + "; } 2>&1 0>&1 | cat"});
    std::istringstream words(result.out);
    for (std::string word; words >> word;) {
        const std::size_t start = word.find_first_of("0123456789");
        const std::size_t end = word.find_first_not_of("0123456789.abcdefghijklmnopqrstuvwxyz", start);
        if (start != std::string::npos && word.find('.', start) < end) {
            return word.substr(start, end - start);
        }
    }
    return "unknown";
}

std::vector<std::string> rowsOf(const std::vector<Column>& group)
{
    std::vector<std::string> rows;
    for (const Column& column : group) {
        for (const Cell& cell : column.cells) {
            if (std::find(rows.begin(), rows.end(), cell.row) == rows.end()) {
                rows.push_back(cell.row);
            }
        }
    }
    return rows;
}

// Columns of the same group stand side by side.
std::vector<std::vector<Column>> groupsOf(const std::vector<Column>& columns)
{
    std::vector<std::vector<Column>> groups;
    for (const Column& column : columns) {
        if (groups.empty() || groups.back().front().group != column.group) {
            groups.emplace_back();
        }
        groups.back().push_back(column);
    }
    return groups;
}

std::string line(const std::vector<std::string>& fields)
{
    std::string text = "|";
    for (const std::string& field : fields) {
        text += " " + field + " |";
    }
    return text + "\n";
}

const Cell* cellOf(const Column& column, const std::string& row)
{
    const auto found = std::find_if(column.cells.begin(), column.cells.end(),
                                    [&row](const Cell& cell) { return cell.row == row; });
    return found == column.cells.end() ? nullptr : &*found;
}

constexpr const char* kIntroduction = R"(# Streams and uploads against real servers

What the library does against servers as Debian 12 packages them, each started by the tests for themselves. A row is a
behaviour, a column a server; a cell is the test `system/server_matrix_test/Server.Behaviour`. This page is written by
a run of all cells with a pause of a minute; what each row tries stands [below](#rows).

    cmake --build --preset dev --target server_matrix_page

`yes`: it behaves. `-`: the row makes no sense for this server; why stands below the table.
)";

constexpr const char* kRows = R"(
## Rows

| row | what is tried |
|---|---|
| Open | both interfaces open it and get the first byte; a log-in for uploads |
| Length, NoLength | the length is told and stays, also behind seeks; or there is none, and nothing pretends |
| Whole, Gapless | every byte comes, in order; of an endless stream, a stretch without a gap |
| HundredSeeks | a hundred random places, sought from the start, the position and the end, give their bytes |
| SeekToTheEnd, NoSeek | the end and the last bytes before it; or seeks are refused, and disturb nothing |
| PauseAndResume | nothing is lost in a pause |
| Reopen | closed in the middle and opened again, many times; uploads replace what was there |
| TwoAtOnce | two at the same time |
| Headers | the response's lines, and what the stream says it can do |
| Redirect | to another address, and seeking there |
| Errors | missing, forbidden, refused, failed, and that the next open is well |
| Crash | killed in the middle: what came is right, the rest an error (without a length: the end), nothing hangs |
| LogIn | the proxy's password, right, wrong and none |
| TimeSeek | by play time where it is offered; elsewhere it is refused, and disturbs nothing |
| Titles | a title that changes on air |
| TlsVersions, OldTlsVersions | TLS 1.3 and 1.2 with the ciphers that streams offer; below that no connection |
| ClientCertificate | with one, without one |
| Expired, WrongHost, Untrusted | certificates that must not count |
)";

} // namespace

void PageWriter::install(const std::vector<Column>& columns)
{
    const char* file = std::getenv("MDC_MATRIX_PAGE");
    if (file != nullptr) {
        testing::UnitTest::GetInstance()->listeners().Append(new PageWriter(columns, file));
    }
}

PageWriter::PageWriter(const std::vector<Column>& columns, std::string file)
    : m_columns(columns), m_file(std::move(file))
{
}

void PageWriter::OnTestEnd(const testing::TestInfo& test)
{
    std::string outcome = kGood;
    if (test.result()->Failed()) {
        outcome = kBad;
    } else if (test.result()->Skipped()) {
        outcome = "not run";
        for (int i = 0; i < test.result()->total_part_count(); ++i) {
            outcome += std::string(": ") + test.result()->GetTestPartResult(i).message();
        }
    }
    std::replace(outcome.begin(), outcome.end(), '\n', ' ');
    m_outcomes[{test.test_suite_name(), test.name()}] = outcome;
}

void PageWriter::OnTestProgramEnd(const testing::UnitTest& /*all*/)
{
    std::ofstream page(m_file);
    page << kIntroduction;
    for (const std::vector<Column>& group : groupsOf(m_columns)) {
        std::vector<std::string> names{""};
        std::vector<std::string> versions{"version"};
        for (const Column& column : group) {
            names.push_back(column.name);
            versions.push_back(column.what + " " + versionOf(column));
        }
        page << "\n## " << group.front().group << "\n\n"
             << line(names) << line(std::vector<std::string>(names.size(), "---")) << line(versions);
        std::vector<std::string> notes;
        for (const std::string& row : rowsOf(group)) {
            std::vector<std::string> fields{row};
            for (const Column& column : group) {
                const Cell* cell = cellOf(column, row);
                fields.push_back(cell != nullptr && cell->check ? m_outcomes[{column.name, row}] : kNone);
                if (cell != nullptr && !cell->check) {
                    notes.push_back("- " + column.name + ", " + row + ": " + cell->why + ".\n");
                }
            }
            page << line(fields);
        }
        page << (notes.empty() ? "" : "\n");
        for (const std::string& note : notes) {
            page << note;
        }
    }
    page << kRows;
}

std::map<std::pair<std::string, std::string>, std::string> cellsOfPage(const std::string& page)
{
    std::map<std::pair<std::string, std::string>, std::string> cells;
    std::istringstream lines(page.substr(0, page.find("\n## Rows")));
    std::vector<std::string> names;
    for (std::string text; std::getline(lines, text);) {
        if (text.rfind("| ", 0) != 0) {
            names.clear();
            continue;
        }
        if (text.rfind("| ---", 0) == 0) {
            continue;
        }
        std::vector<std::string> fields;
        std::istringstream rest(text.substr(2));
        for (std::string field; std::getline(rest, field, '|');) {
            const std::size_t start = field.find_first_not_of(' ');
            fields.push_back(start == std::string::npos
                                 ? std::string()
                                 : field.substr(start, field.find_last_not_of(' ') + 1 - start));
        }
        if (names.empty()) {
            names = fields;
        } else {
            for (std::size_t i = 1; i < std::min(fields.size(), names.size()); ++i) {
                cells[{names[i], fields[0]}] = fields[i];
            }
        }
    }
    return cells;
}

} // namespace matrix
