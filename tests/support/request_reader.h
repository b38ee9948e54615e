// Reads requests from a connection, one after the other.
#pragma once

#include "support/request.h"

#include <optional>
#include <string>

namespace support {

class Transport;

class RequestReader
{
public:
    explicit RequestReader(Transport& transport) : transport_(transport) {}

    // The next request with its body ("Expect: 100-continue" is answered on the way); none when the
    // connection ends before the head does.
    std::optional<Request> next();

    // What was read beyond the last request.
    std::string takeRest();

private:
    bool more();
    bool readHead(Request& request);
    void readBody(Request& request);
    bool readChunks(std::string& body);
    std::optional<std::string> takeLine();
    bool takeBytes(std::uint64_t count, std::string& destination);

    Transport& transport_;
    std::string buffer_;
    std::size_t count_ = 0;
};

} // namespace support
