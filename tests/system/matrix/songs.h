// Servers that have a song: known bytes over HTTP or HTTPS.
#pragma once

#include "matrix.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url_base.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace matrix {

struct Failure
{
    std::string url;
    int status; // of HTTP; 0: no answer
    int error;
};

class SongServer : public Server
{
public:
    std::string url;
    std::string content;
    std::vector<std::string> headers; // lines that the response has, without their ends
    unsigned int capability = static_cast<unsigned int>(MDCH_CAPABILITY_BYTE_SEEK) | MDCH_CAPABILITY_STALLING;
    std::vector<Failure> failures;
    std::string moved; // leads to the song
    std::string caFolder;
    std::string clientCertificate;

    std::shared_ptr<void> surroundings; // what stays when the server dies
    std::shared_ptr<void> process;      // what ends it when it is let go
};

// The song of the web servers, larger than what the receive buffer and the system hold.
std::string songBytes();

// The same as sound that media servers know.
std::string songAsWave();

struct Opened
{
    int result = 0;
    boost::shared_ptr<MdchUrlBase> stream;
    mdch_UrlExtended_struct ext{};

    md::HttpAccess& http() const { return dynamic_cast<md::HttpAccess&>(*stream); }
};

Opened open(const SongServer& server, const std::string& url, std::int32_t flags = 0);
inline Opened open(const SongServer& server)
{
    return open(server, server.url);
}

// Up to that many bytes; all to the end without a number.
std::string read(MdchUrlBase& stream, std::size_t count = std::string::npos);

// Large contents are compared without printing them.
void expectSame(const std::string& got, const std::string& wanted);

// The value of a response's header line; empty without it.
std::string headerOf(const Opened& opened, const std::string& name);

// The cell of a row that such servers share.
Cell songCell(const std::string& row);

// All of them in their order; where there is no redirect: why.
std::vector<Cell> songCells(const std::string& whyNoRedirect = {});

} // namespace matrix
