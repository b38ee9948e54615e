/*
 * HTTP streams as tests use them, and a look at what the engine knows of them. For programs that see the inside
 * of the library.
 */
#ifndef SUPPORT_HTTP_CLIENT_H
#define SUPPORT_HTTP_CLIENT_H

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_curl.h"
#include "support/engine.h"
#include "support/wait.h"

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace support {

/* A descriptor's fields at one moment. */
struct TransferFacts
{
    bool registered = false;
    std::int64_t length = 0;
    std::int64_t instanceLength = 0;
    std::int64_t writePos = 0;
    std::int64_t startPos = 0;
    std::string contentType;
    std::string cookies;
    std::uint32_t capabilities = 0;
    int httpStatus = 0;
    int connected = 0;
    int headerComplete = 0;
    int headerBlockEnded = 0;
    int done = 0;
    int error = 0;
    std::vector<std::string> responseHeaders;
    std::vector<std::string> requestHeaderLines;
    std::size_t buffered = 0;
    bool hasEasyHandle = false;
};

/* Caller holds the descriptor's mutex, or is alone with it. */
inline TransferFacts factsOf(const md::MdchCurlDescriptor_struct& desc)
{
    TransferFacts facts;
    facts.registered = true;
    facts.length = desc.length;
    facts.instanceLength = desc.instanceLength;
    facts.writePos = desc.writePos;
    facts.startPos = desc.startPos;
    facts.contentType = desc.contentType;
    facts.cookies = desc.cookies;
    facts.capabilities = desc.capabilities;
    facts.httpStatus = desc.httpStatus;
    facts.connected = desc.connected;
    facts.headerComplete = desc.headerComplete;
    facts.headerBlockEnded = desc.headerBlockEnded;
    facts.done = desc.done;
    facts.error = desc.error;
    facts.responseHeaders.assign(desc.responseHeaders.begin(), desc.responseHeaders.end());
    facts.requestHeaderLines.assign(desc.requestHeaderLines.begin(), desc.requestHeaderLines.end());
    facts.buffered = md::bufferedBytes(desc);
    facts.hasEasyHandle = desc.easy != nullptr;
    return facts;
}

class HttpStream : public md::HttpAccess
{
public:
    explicit HttpStream(const std::string& agent = "", bool headRequest = false)
        : HttpAccess(agent, headRequest)
    {
        // Long enough for the slowest machine: nobody waits so long unless something is broken.
        fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 30);
        fcntl(MDCH_FCNTL_DATA_TIMEOUT, 30);
    }

    /* Opens and keeps the stream's number. */
    int start(const std::string& url) { return m_number = open(url.c_str(), MDCH_MODE_READ); }
    int start(const std::string& url, const std::string& body, int startPos)
    {
        return m_number = open(url.c_str(), body.data(), static_cast<unsigned int>(body.size()), startPos);
    }

    int number() const { return m_number; }

    /* Reads to the end of the transfer. */
    std::string readAll() { return support::readAll(*this); }

    /* Up to count bytes. */
    std::string readSome(unsigned int count) { return support::readSome(*this, count); }

    std::string fetch(const std::string& url)
    {
        start(url);
        return readAll();
    }

    TransferFacts facts() const
    {
        const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(m_number);
        if (desc == nullptr) {
            return {};
        }
        const MdpLock lock = md::lockDescriptor(*desc);
        return factsOf(*desc);
    }

    bool waitDone() const
    {
        return waitUntil([this] { return facts().done != 0; });
    }

    std::vector<std::string> headerList()
    {
        std::deque<std::string> lines;
        getHeaderList(lines);
        return {lines.begin(), lines.end()};
    }

    /* "on fd %i" and the like. */
    std::string fd() const { return std::to_string(m_number); }

private:
    int m_number = -1;
};

/* Ends the engine behind each test, so that none inherits another's connections. */
class HttpClientTest : public ::testing::Test
{
protected:
    void TearDown() override { md::HttpAccess::shutdown(); }
};

} // namespace support

#endif
