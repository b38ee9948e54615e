// The matrix of real servers: each server is a column, each behaviour a row. A cell is one test, "Column.Row".
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace matrix {

// A running server as a column's checks know it.
class Server
{
public:
    Server() = default;
    virtual ~Server() = default;
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
};

struct Cell
{
    std::string row;
    std::function<void(Server&)> check;
    std::string why; // without a check: why the row makes no sense for this server
};

// A row that makes no sense for a server, and why.
Cell noCell(const std::string& row, const std::string& why);

struct Column
{
    std::string group;
    std::string name;
    std::string what;                        // in a few words, for the page
    std::vector<std::string> versionCommand; // prints the version
    std::function<std::unique_ptr<Server>()> start;
    std::vector<Cell> cells;
};

// All columns, in the order of the page.
std::vector<Column> allColumns();

// Its parts, by what the servers do.
std::vector<Column> fileColumns();
std::vector<Column> mediaColumns();
std::vector<Column> proxyColumns();
std::vector<Column> tlsColumns();
std::vector<Column> radioColumns();
std::vector<Column> uploadColumns();
std::vector<Column> multicastColumns();

// How long PauseAndResume pauses: a second, or MDC_MATRIX_PAUSE of them.
std::chrono::seconds pauseLength();

} // namespace matrix
