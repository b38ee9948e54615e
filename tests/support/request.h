// What a scripted server or proxy received, word for word.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace support {

struct Request
{
    std::string head;                  // every byte from the request line to the empty line, inclusive
    std::string method;                // "GET"
    std::string target;                // as sent: "/song?x=1", "http://host/song", "host:443"
    std::string version;               // "HTTP/1.1"
    std::string path;                  // the target without scheme, host and query: "/song"
    std::string query;                 // behind the "?", without it
    std::vector<std::string> lines;    // the header lines in order, without line ends and request line
    std::string body;                  // decoded when it came chunked
    bool complete = false;             // false when the connection ended inside the body
    std::size_t connection = 0;        // index of the connection, from 0 in the order of acceptance
    std::size_t indexOnConnection = 0; // 0 for the first request of a connection

    bool hasHeader(std::string_view name) const;
    // The trimmed value of the first line with this name (compared without regard to case); "" without one.
    std::string header(std::string_view name) const;
    std::vector<std::string> headerValues(std::string_view name) const;
    // Number of header lines with this name.
    std::size_t countHeader(std::string_view name) const { return headerValues(name).size(); }
};

} // namespace support
