#include "support/request_reader.h"

#include "support/text.h"
#include "support/transport.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

namespace support {

namespace {

constexpr std::size_t largestHead = std::size_t{16} << 20U;

void parseTarget(Request& request)
{
    std::string_view rest = request.target;
    const std::size_t scheme = rest.find("://");
    if (scheme != std::string_view::npos && scheme < rest.find('/')) {
        rest.remove_prefix(scheme + 3);
        rest.remove_prefix(std::min(rest.find('/'), rest.size()));
    }
    const std::size_t mark = rest.find('?');
    request.path = rest.substr(0, mark);
    if (mark != std::string_view::npos) {
        request.query = rest.substr(mark + 1);
    }
}

void parseHead(Request& request)
{
    std::string_view rest = request.head;
    bool first = true;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('\n'), rest.size() - 1);
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end + 1);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        if (!first) {
            if (!line.empty()) {
                request.lines.emplace_back(line);
            }
            continue;
        }
        first = false;
        const std::size_t one = line.find(' ');
        const std::size_t two = line.rfind(' ');
        request.method = line.substr(0, one);
        if (one != std::string_view::npos && two > one) {
            request.target = line.substr(one + 1, two - one - 1);
            request.version = line.substr(two + 1);
        }
    }
    parseTarget(request);
}

} // namespace

std::optional<Request> RequestReader::next()
{
    Request request;
    if (!readHead(request)) {
        return std::nullopt;
    }
    parseHead(request);
    request.indexOnConnection = count_++;
    readBody(request);
    return request;
}

std::string RequestReader::takeRest()
{
    return std::exchange(buffer_, std::string());
}

bool RequestReader::more()
{
    std::array<char, 65536> part{};
    const std::ptrdiff_t got = transport_.read(part.data(), part.size());
    if (got > 0) {
        buffer_.append(part.data(), static_cast<std::size_t>(got));
    }
    return got > 0;
}

bool RequestReader::readHead(Request& request)
{
    // The line end behind an earlier body is tolerated, as servers do.
    for (;;) {
        while (buffer_.compare(0, 2, "\r\n") == 0) {
            buffer_.erase(0, 2);
        }
        const std::size_t end = buffer_.find("\r\n\r\n");
        if (end != std::string::npos) {
            request.head = buffer_.substr(0, end + 4);
            buffer_.erase(0, end + 4);
            return true;
        }
        if (buffer_.size() > largestHead || !more()) {
            return false;
        }
    }
}

void RequestReader::readBody(Request& request)
{
    const bool chunked = equalIgnoringCase(request.header("Transfer-Encoding"), "chunked");
    const std::string length = request.header("Content-Length");
    if (!chunked && length.empty()) {
        request.complete = true;
        return;
    }
    if (equalIgnoringCase(request.header("Expect"), "100-continue") && buffer_.empty()) {
        transport_.write("HTTP/1.1 100 Continue\r\n\r\n");
    }
    if (chunked) {
        request.complete = readChunks(request.body);
        return;
    }
    std::string_view digits = length;
    const std::optional<std::uint64_t> size = takeNumber(digits);
    request.complete = size && digits.empty() && takeBytes(*size, request.body);
}

bool RequestReader::readChunks(std::string& body)
{
    for (;;) {
        const std::optional<std::string> line = takeLine();
        if (!line) {
            return false;
        }
        char* end = nullptr;
        const std::uint64_t size = std::strtoull(line->c_str(), &end, 16);
        if (end == line->c_str()) {
            return false;
        }
        if (size == 0) {
            break;
        }
        const std::optional<std::string> rest = takeBytes(size, body) ? takeLine() : std::nullopt;
        if (!rest || !rest->empty()) {
            return false;
        }
    }
    for (;;) { // trailers
        const std::optional<std::string> line = takeLine();
        if (!line || line->empty()) {
            return line.has_value();
        }
    }
}

std::optional<std::string> RequestReader::takeLine()
{
    std::size_t end = buffer_.find("\r\n");
    while (end == std::string::npos) {
        if (!more()) {
            return std::nullopt;
        }
        end = buffer_.find("\r\n");
    }
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 2);
    return line;
}

bool RequestReader::takeBytes(std::uint64_t count, std::string& destination)
{
    for (;;) {
        const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(count, buffer_.size()));
        destination.append(buffer_, 0, part);
        buffer_.erase(0, part);
        count -= part;
        if (count == 0) {
            return true;
        }
        if (!more()) {
            return false;
        }
    }
}

} // namespace support
