// Header lines and answers that are valid but for a few random changes.
#include "mdc_hlp_http_curl_engine.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <boost/make_shared.hpp>
#include <cstdint>
#include <iostream>
#include <random>

using support::HttpServer;
using support::HttpStream;
using support::Reply;
using support::Request;
using support::TransferFacts;

namespace {

using Lines = std::vector<std::string>;

class HttpRandomHeader : public support::HttpClientTest
{
protected:
    HttpServer server;
};

// Whether the digits of value stand somewhere in the line.
bool standsIn(const std::string& line, std::int64_t value)
{
    std::string digits = std::to_string(value);
    digits.erase(0, digits.find_first_of("0123456789"));
    return line.find(digits) != std::string::npos;
}

// Changes a line at random places: bytes replaced, removed, doubled, swapped, cut off, numbers blown up.
void mutate(std::string& line, std::mt19937& random)
{
    const auto below = [&random](std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
    };
    const std::size_t changes = 1 + below(4);
    for (std::size_t i = 0; i < changes; ++i) {
        if (line.empty()) {
            return;
        }
        const std::size_t at = below(line.size());
        switch (below(8)) {
        case 0:
            line[at] = static_cast<char>(below(256));
            break;
        case 1:
            line.erase(at, 1 + below(5));
            break;
        case 2:
            line.insert(at, line.substr(below(line.size()), 1 + below(12)));
            break;
        case 3:
            std::swap(line[at], line[below(line.size())]);
            break;
        case 4:
            line.resize(at);
            break;
        case 5:
            line.insert(at, 1 + below(24), static_cast<char>('0' + below(10)));
            break;
        case 6:
            line.insert(at, 1, '\0');
            break;
        default:
            line.insert(at, 1, "/*=-+; ,1\r\n"[below(11)]);
            break;
        }
    }
}

const Lines kValidLines{"Content-Range: bytes 1000-1499/1500\r\n",
                        "Content-Range: bytes */4711\r\n",
                        "Accept-Ranges: bytes\r\n",
                        "Accept-Ranges: none\r\n",
                        "contentFeatures.dlna.org: "
                        "DLNA.ORG_PN=MP3;DLNA.ORG_OP=11;DLNA.ORG_FLAGS=01700000000000000000000000000000\r\n",
                        "contentFeatures.dlna.org: *\r\n",
                        "TimeSeekRange.dlna.org: npt=5.0-59.9/60.0 bytes=12345-99999/100000\r\n",
                        "Content-Length: 500\r\n",
                        "HTTP/1.1 206 Partial Content\r\n",
                        "X-Other: 1\r\n"};

} // namespace

TEST(HttpRandomHeaderLine, ChangesOnlyWhatItMay)
{
    const std::uint32_t seed = std::random_device()();
    std::cout << "seed " << seed << "\n";
    std::mt19937 random(seed);
    support::TraceCapture traces; // so that the traces are formatted, too
    for (int round = 0; round < 20000; ++round) {
        md::MdchCurlDescriptor_struct desc;
        desc.fd = 7;
        desc.capabilities = static_cast<std::uint32_t>(round) % 8U;
        std::string line = kValidLines[static_cast<std::size_t>(round) % kValidLines.size()];
        mutate(line, random);
        mdchHttpParseHeaderLine(desc, line);
        traces.clear();
        const std::string shown = "seed " + std::to_string(seed) + ": " + testing::PrintToString(line);
        ASSERT_LE(desc.capabilities, 7U) << shown;
        ASSERT_EQ(desc.length, -11) << shown;
        ASSERT_TRUE(desc.instanceLength == -1 || standsIn(line, desc.instanceLength))
            << desc.instanceLength << " " << shown;
        ASSERT_TRUE(desc.startPos == 0 || standsIn(line, desc.startPos)) << desc.startPos << " " << shown;
        ASSERT_GE(desc.startPos, 0) << shown;
        ASSERT_EQ(desc.writePos, desc.startPos) << shown;
        ASSERT_EQ(desc.done, 0) << shown;
        ASSERT_EQ(desc.error, 0) << shown;
    }
}

TEST(HttpRandomHeaderLine, BlocksOfThemKeepTheCallbacksPromises)
{
    const std::uint32_t seed = std::random_device()();
    std::cout << "seed " << seed << "\n";
    std::mt19937 random(seed);
    const auto desc = boost::make_shared<md::MdchCurlDescriptor_struct>();
    desc->fd = 7;
    desc->easy = curl_easy_init(); // never ran: it knows no length and no status
    mdchHttpCurl_addDescriptor(desc);
    std::size_t given = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string line = kValidLines[static_cast<std::size_t>(round) % kValidLines.size()];
        mutate(line, random);
        if (round % 50 == 49) {
            line = round % 100 == 99 ? "\n" : "\r\n";
        }
        const std::string before = line;
        const std::size_t count = mdchHttpCurl_headerCallback(line.data(), 1, line.size(),
                                                              reinterpret_cast<void*>(std::intptr_t{7}));
        const std::string shown = "seed " + std::to_string(seed) + ": " + testing::PrintToString(before);
        ASSERT_TRUE(count == before.size() || count == 0) << shown;
        ASSERT_EQ(line, before) << shown;
        given += before.size();
        const TransferFacts facts = support::factsOf(*desc);
        ASSERT_LE(facts.capabilities, 7U) << shown;
        ASSERT_TRUE(facts.length == -11 || facts.length == -1 || facts.length >= 0) << shown;
        std::size_t kept = 0;
        for (const std::string& each : facts.responseHeaders) {
            kept += each.size();
        }
        ASSERT_LE(kept, given) << shown;
        ASSERT_LE(kept, 512U * 1024U) << shown;
        if (facts.headerBlockEnded != 0 && round % 50 == 49) {
            ASSERT_EQ(facts.length, facts.instanceLength >= 0 ? facts.instanceLength : -1) << shown;
        }
    }
    md::unregisterDescriptor(*desc);
}

TEST_F(HttpRandomHeader, RandomAnswersEndEveryTransfer)
{
    const std::uint32_t seed = std::random_device()();
    std::cout << "seed " << seed << "\n";
    std::mt19937 random(seed);
    const std::string honest = "HTTP/1.1 200 OK\r\n" + kValidLines[0] + kValidLines[4] + kValidLines[6] +
                               "Content-Length: 5\r\n\r\nhello";
    server.otherwise([](const Request&) { return Reply::error(404); });
    for (int round = 0; round < 200; ++round) {
        std::string answer = honest;
        mutate(answer, random);
        server.on("/random", Reply::raw(answer));
        HttpStream stream;
        const std::string body = stream.fetch(server.url("/random"));
        const TransferFacts facts = stream.facts();
        const std::string shown = "seed " + std::to_string(seed) + ": " + testing::PrintToString(answer);
        ASSERT_EQ(facts.done, 1) << shown;
        ASSERT_LE(facts.capabilities, 7U) << shown;
        ASSERT_GE(facts.length, -1) << shown;
        ASSERT_LE(body.size(), answer.size()) << shown;
    }
}
