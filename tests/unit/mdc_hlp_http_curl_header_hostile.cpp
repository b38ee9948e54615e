// Answers that no server should give: each ends with an error code or has no effect, never with a crash, a
// hang or a wrong length.
#include "support/http_client.h"
#include "support/http_server.h"

#include <cstdint>
#include <numeric>

using support::At;
using support::HttpServer;
using support::HttpStream;
using support::Reply;
using support::Request;
using support::TransferFacts;

namespace {

using Lines = std::vector<std::string>;

class HttpHostileHeader : public support::HttpClientTest
{
protected:
    HttpHostileHeader() { server.on("/good", Reply().body("good")); }

    // The stream works afterwards as if nothing had been.
    void expectUnharmed(HttpStream& stream)
    {
        EXPECT_EQ(stream.fetch(server.url("/good")), "good");
        EXPECT_EQ(stream.error(), 0);
        EXPECT_EQ(stream.size(), 4);
    }

    // The transfer ends with one of the transfer error codes and no byte.
    int errorOf(const Reply& reply)
    {
        server.on("/bad", reply);
        HttpStream stream;
        EXPECT_EQ(stream.fetch(server.url("/bad")), "");
        EXPECT_TRUE(stream.waitDone());
        const int error = stream.error();
        EXPECT_LT(stream.size(), 0);
        EXPECT_EQ(stream.eof(), 1);
        expectUnharmed(stream);
        return error;
    }

    // Facts after a 200 with these lines and the body "hello", which arrives.
    TransferFacts factsWith(const Lines& lines)
    {
        server.on("/odd", Reply().headers(lines).body("hello"));
        HttpStream stream;
        EXPECT_EQ(stream.fetch(server.url("/odd")), "hello");
        EXPECT_EQ(stream.error(), 0);
        return stream.facts();
    }

    HttpServer server;
};

bool isTransferError(int error)
{
    return error >= MDCH_HTTP_ECERT && error <= MDCH_HTTP_EUNKNOWN;
}

std::size_t bytesOf(const Lines& lines)
{
    return std::accumulate(lines.begin(), lines.end(), std::size_t{0},
                           [](std::size_t sum, const std::string& line) { return sum + line.size(); });
}

} // namespace

// --- Lines ---

TEST_F(HttpHostileHeader, NulBytesInALineHaveNoEffect)
{
    const std::string nul("X-Odd: a\0b", 10);
    const std::string hidden("X-Odd: \0Content-Range: bytes 0-4/4711", 37);
    for (const std::string& line : {nul, hidden}) {
        server.on("/nul", Reply::raw("HTTP/1.1 200 OK\r\n" + line + "\r\nContent-Length: 5\r\n\r\nhello"));
        HttpStream stream;
        const std::string body = stream.fetch(server.url("/nul"));
        // libcurl may refuse such a header.
        EXPECT_TRUE(body == "hello" || isTransferError(stream.error())) << stream.error();
        EXPECT_EQ(stream.facts().instanceLength, -1);
        EXPECT_TRUE(stream.size() == 5 || stream.size() < 0) << stream.size();
        expectUnharmed(stream);
    }
}

TEST_F(HttpHostileHeader, LinesWithoutColonEndTheTransferOrHaveNoEffect)
{
    for (const char* line : {"no colon here", "Accept-Ranges", "Content-Range", "\x80\xff\x01"}) {
        server.on("/bad", Reply().header("X-A: 1").header(line).body("hello"));
        HttpStream stream;
        const std::string body = stream.fetch(server.url("/bad"));
        ASSERT_TRUE(stream.waitDone());
        EXPECT_TRUE(body == "hello" ? stream.size() == 5 && stream.error() == 0
                                    : stream.size() < 0 && isTransferError(stream.error()))
            << line << ": " << body << ", " << stream.error();
        EXPECT_EQ(stream.facts().instanceLength, -1);
        expectUnharmed(stream);
    }
}

TEST_F(HttpHostileHeader, LongLineIsKeptWhole)
{
    const std::string line = "X-Long: " + std::string(90000, 'y');
    EXPECT_EQ(factsWith({line}).responseHeaders.at(1), line + "\r\n");
}

TEST_F(HttpHostileHeader, LineOfAMebibyteIsBounded)
{
    const std::string line = "X-Long: " + std::string(std::size_t{1} << 20U, 'y');
    server.on("/bad", Reply().header(line).body("hello"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/bad")), "");
    ASSERT_TRUE(stream.waitDone());
    EXPECT_TRUE(isTransferError(stream.error())) << stream.error();
    EXPECT_LE(bytesOf(stream.facts().responseHeaders), 512U * 1024U);
    expectUnharmed(stream);
}

TEST_F(HttpHostileHeader, HeaderWithoutEndIsBounded)
{
    for (const std::string end : {"\r\n", "\n"}) {
        server.on("/bad", Reply().endlessHeaders().lineEnd(end));
        HttpStream stream;
        EXPECT_EQ(stream.fetch(server.url("/bad")), "");
        ASSERT_TRUE(stream.waitDone());
        EXPECT_TRUE(isTransferError(stream.error())) << stream.error();
        EXPECT_LE(bytesOf(stream.facts().responseHeaders), 512U * 1024U);
        expectUnharmed(stream);
    }
    EXPECT_TRUE(server.waitForOpenConnections(1));
}

TEST_F(HttpHostileHeader, TrailersWithoutEndAreBounded)
{
    std::string trailers;
    for (int i = 0; i < 20000; ++i) {
        trailers += "X-Filler: " + std::string(64, 'x') + "\r\n";
    }
    server.on("/bad", Reply::raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n" +
                                 trailers + "\r\n"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/bad")), "hello");
    ASSERT_TRUE(stream.waitDone());
    EXPECT_TRUE(isTransferError(stream.error())) << stream.error();
    EXPECT_LE(bytesOf(stream.facts().responseHeaders), 512U * 1024U);
    expectUnharmed(stream);
}

// --- Numbers ---

TEST_F(HttpHostileHeader, NumbersThatOverflowHaveNoEffect)
{
    const std::string huge = "99999999999999999999";
    for (const Lines& lines :
         {Lines{"Content-Range: bytes 0-4/" + huge},
          Lines{"Content-Range: bytes " + huge + "-" + huge + "/5"},
          Lines{"TimeSeekRange.dlna.org: npt=0- bytes=" + huge + "-"},
          Lines{"contentFeatures.dlna.org: DLNA.ORG_OP=01;DLNA.ORG_FLAGS=" + huge + huge}}) {
        const TransferFacts facts = factsWith(lines);
        EXPECT_EQ(facts.length, 5) << lines.at(0);
        EXPECT_TRUE(facts.instanceLength == -1 || facts.instanceLength == 5) << lines.at(0);
        EXPECT_EQ(facts.startPos, 5) << lines.at(0);
        EXPECT_EQ(facts.capabilities & ~7U, 0U);
    }
}

TEST_F(HttpHostileHeader, WholeLengthThatOverflowsIsNoLength)
{
    server.on(
        "/bad",
        Reply().status(206).header("Content-Range: bytes 0-4/99999999999999999999").chunked().body("hello"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/bad")), "hello");
    EXPECT_EQ(stream.size(), -1);
}

TEST_F(HttpHostileHeader, ContentLengthThatOverflowsIsNoLength)
{
    for (const char* value : {"9223372036854775808", "99999999999999999999999"}) {
        server.on("/bad", Reply().contentLength(value).body("hello"));
        HttpStream stream;
        const std::string body = stream.fetch(server.url("/bad"));
        ASSERT_TRUE(stream.waitDone());
        EXPECT_TRUE(body == "hello" || body.empty()) << body;
        EXPECT_EQ(stream.size(), -1) << value;
        expectUnharmed(stream);
    }
}

TEST_F(HttpHostileHeader, PartWhoseEndOverflowsHasNoLength)
{
    server.on("/bad", Reply().status(206).contentLength("9223372036854775807").body("hello"));
    HttpStream stream;
    stream.start(server.url("/bad"), "", 1000);
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(stream.readAll(), "hello");
    EXPECT_EQ(stream.error(), MDCH_HTTP_ETRANSFER);
}

TEST_F(HttpHostileHeader, ContentLengthThatIsNoNumberEndsTheTransferOrHasNoEffect)
{
    for (const char* value : {"-5", "-9223372036854775808", "five", "0x5", ""}) {
        server.on("/bad", Reply().contentLength(value).body("hello"));
        HttpStream stream;
        const std::string body = stream.fetch(server.url("/bad"));
        ASSERT_TRUE(stream.waitDone());
        EXPECT_TRUE((body == "hello" && stream.size() == -1) || body.empty()) << value << ": " << body;
        EXPECT_LE(stream.size(), 0) << value;
        if (body.empty()) {
            EXPECT_TRUE(isTransferError(stream.error()) || stream.size() == 0) << value;
        }
        expectUnharmed(stream);
    }
}

// --- No header at all ---

TEST_F(HttpHostileHeader, GarbageStatusLineIsAProtocolError)
{
    for (const char* text :
         {"GARBAGE 200 OK\r\n\r\nhello", "\x01\x02\x03\r\n\r\n", "HTPP/1.1 200 OK\r\n\r\n"}) {
        EXPECT_EQ(errorOf(Reply::raw(text)), MDCH_HTTP_EPROTOCOL) << text;
    }
}

TEST_F(HttpHostileHeader, BrokenHttpStatusLineEndsTheTransfer)
{
    for (const char* text : {"HTTP/9.9 200 OK\r\n\r\n", "HTTP/1.1 abc\r\n\r\n", "HTTP/1.1\r\n\r\n",
                             "HTTP/ 200\r\n\r\n", "HTTP/1.1 99999 OK\r\n\r\n"}) {
        EXPECT_TRUE(isTransferError(errorOf(Reply::raw(text)))) << text;
    }
}

TEST_F(HttpHostileHeader, BodyWithoutHeaderIsAProtocolError)
{
    EXPECT_EQ(errorOf(Reply::raw("<html>an answer from long ago</html>")), MDCH_HTTP_EPROTOCOL);
}

TEST_F(HttpHostileHeader, EmptyAnswerIsAnUnknownError)
{
    EXPECT_EQ(errorOf(Reply::hangUp()), MDCH_HTTP_EUNKNOWN);
}

TEST_F(HttpHostileHeader, ResetBeforeTheAnswerIsANetworkError)
{
    EXPECT_EQ(errorOf(Reply().reset(At::start())), MDCH_HTTP_ENETWORK);
}

TEST_F(HttpHostileHeader, ResetInTheHeaderIsANetworkError)
{
    EXPECT_EQ(errorOf(Reply().header("X-A: 1").body("hello").reset(At::headerLine(1))), MDCH_HTTP_ENETWORK);
}

TEST_F(HttpHostileHeader, CloseInTheHeaderIsAnError)
{
    EXPECT_TRUE(isTransferError(errorOf(Reply().header("X-A: 1").body("hello").close(At::header()))));
    EXPECT_TRUE(isTransferError(errorOf(Reply().header("X-A: 1").body("hello").close(At::headerLine(1)))));
    EXPECT_TRUE(isTransferError(errorOf(Reply().header("X-A: 1").body("hello").close(At::bytes(20)))));
    EXPECT_TRUE(isTransferError(errorOf(Reply().header("X-A: 1").body("hello").close(At::bytes(3)))));
}

TEST_F(HttpHostileHeader, CloseBehindAnInterimResponseIsAnError)
{
    EXPECT_TRUE(isTransferError(errorOf(Reply().interim(100).body("hello").close(At::start()))));
}

TEST_F(HttpHostileHeader, HeaderInSingleBytesIsAnHonestHeader)
{
    server.on("/slow",
              Reply().contentType("audio/mpeg").header("Accept-Ranges: none").body("hello").pieces(1));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/slow")), "hello");
    EXPECT_EQ(stream.size(), 5);
    EXPECT_EQ(stream.capability(), 4U);
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(HttpHostileHeader, ManyInterimResponsesAreBounded)
{
    std::string interims;
    for (int i = 0; i < 10000; ++i) {
        interims += "HTTP/1.1 103 Early Hints\r\nLink: <x>\r\n\r\n";
    }
    server.on("/bad", Reply().interim(interims).body("hello"));
    HttpStream stream;
    const std::string body = stream.fetch(server.url("/bad"));
    ASSERT_TRUE(stream.waitDone());
    EXPECT_TRUE(body == "hello" ? stream.error() == 0 : isTransferError(stream.error()))
        << body << ", " << stream.error();
    EXPECT_LE(bytesOf(stream.facts().responseHeaders), 512U * 1024U);
    expectUnharmed(stream);
}
