// Seeks on servers that answer otherwise than asked, and seeks of requests with a body.

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"

#include <gtest/gtest.h>

namespace {

using support::At;
using support::HttpServer;
using support::HttpStream;
using support::Media;
using support::RangeRules;
using support::Reply;
using support::Request;
using support::waitForDescriptor;

const Media kMedia(24);
constexpr long long kSize = 300'000;

class OddServer : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    void open(HttpStream& stream) const
    {
        stream.start(m_server.url("/"));
        EXPECT_EQ(stream.getResponseCode(), 200);
    }

    static void expectRest(HttpStream& stream, long long from, long long size = kSize)
    {
        EXPECT_EQ(stream.tell(), from);
        const std::string rest = stream.readAll();
        EXPECT_EQ(static_cast<long long>(rest.size()), size - from);
        EXPECT_EQ(kMedia.firstDifference(static_cast<std::uint64_t>(from), rest.data(), rest.size()), -1);
        EXPECT_EQ(stream.tell(), size);
        EXPECT_EQ(stream.size(), size);
        EXPECT_EQ(stream.eof(), 1);
        EXPECT_EQ(stream.error(), 0);
    }
};

// --- The Range is ignored: 200, the whole resource ---

TEST_F(OddServer, thatIgnoresTheRangeHasItsLeadingBytesSkipped)
{
    m_server.on("/", Reply::resource(kMedia, kSize).ignoreRanges().header("Accept-Ranges: bytes"));
    HttpStream stream;
    open(stream);
    ASSERT_EQ(stream.isSeekable(), 1);
    EXPECT_EQ(stream.seek(250'001, 0), 0);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=250001-");
    EXPECT_EQ(stream.size(), kSize) << "the position must not be added to a whole resource's length";
    expectRest(stream, 250'001);
}

TEST_F(OddServer, thatIgnoresTheRangeHasItsLeadingBytesSkippedWhateverItsLineEnd)
{
    for (const char* lineEnd : {"\n", "\r\r\n"}) {
        const Reply whole = Reply::resource(kMedia, kSize).ignoreRanges().header("Accept-Ranges: bytes");
        m_server.on("/", Reply(whole).lineEnd(lineEnd));
        HttpStream stream;
        open(stream);
        EXPECT_EQ(stream.seek(250'001, 0), 0);
        expectRest(stream, 250'001);
    }
}

TEST_F(OddServer, thatIgnoresTheRangeIsNotSeekableAnyMore)
{
    m_server.on("/", Reply::resource(kMedia, kSize).ignoreRanges().header("Accept-Ranges: bytes"));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(250'001, 0), 0);
    ASSERT_TRUE(stream.waitDone()); // data that arrives would clear the error
    EXPECT_EQ(stream.isSeekable(), 0);
    EXPECT_EQ(stream.capability() & MDCH_CAPABILITY_BYTE_SEEK, 0U);
    EXPECT_EQ(stream.seek(10, 0), -ESPIPE);
    EXPECT_EQ(stream.error(), ESPIPE);
    stream.clearerr();
    EXPECT_EQ(m_server.requests().size(), 2U);
    expectRest(stream, 250'001);
}

TEST_F(OddServer, thatIgnoresTheRangeOfATailSeekSkipsUpToTheTarget)
{
    m_server.on("/", Reply::resource(kMedia, kSize).ignoreRanges().header("Accept-Ranges: bytes"));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(-3, 2), 0);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=299990-");
    expectRest(stream, kSize - 3);
}

TEST_F(OddServer, thatIgnoresTheRangeOfAResumeSkipsWhatIsBufferedAlready)
{
    m_server.on("/", Reply::resource(kMedia, 1'000'000).ignoreRanges().header("Accept-Ranges: bytes"));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.readSome(1000).size(), 1000U);
    EXPECT_EQ(stream.pause(), 0);
    EXPECT_EQ(stream.resume(), 0);
    EXPECT_EQ(stream.size(), 1'000'000);
    expectRest(stream, 1000, 1'000'000);
    EXPECT_EQ(m_server.requests().size(), 2U);
    EXPECT_EQ(stream.isSeekable(), 0);
}

TEST_F(OddServer, thatIgnoresTheRangeOfAnOpenHasItsLeadingBytesSkipped)
{
    m_server.on("/", Reply::resource(kMedia, kSize).ignoreRanges());
    HttpStream stream;
    stream.open(m_server.url("/").c_str(), nullptr, 0, 1000);
    EXPECT_EQ(stream.size(), kSize);
    expectRest(stream, 1000);
}

TEST_F(OddServer, thatIgnoresTheRangeWithoutALengthHasItsLeadingBytesSkipped)
{
    m_server.on("/", Reply::resource(kMedia, kSize).ignoreRanges().header("Accept-Ranges: bytes").chunked());
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(100'000, 0), 0);
    const std::string rest = stream.readAll();
    EXPECT_EQ(static_cast<long long>(rest.size()), kSize - 100'000);
    EXPECT_TRUE(kMedia.matches(100'000, rest));
    EXPECT_EQ(stream.size(), -1);
}

// --- The answer begins elsewhere ---

TEST_F(OddServer, thatAnswersEarlierHasTheBytesBetweenSkipped)
{
    m_server.on("/", Reply::resource(kMedia, kSize).shiftRanges(-77));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(250'001, 0), 0);
    EXPECT_EQ(stream.size(), kSize);
    expectRest(stream, 250'001);
    EXPECT_EQ(stream.isSeekable(), 1) << "it understands ranges";
    EXPECT_EQ(stream.seek(-2, 2), 0);
    expectRest(stream, kSize - 2);
}

TEST_F(OddServer, thatAnswersAResumeEarlierHasTheBytesBetweenSkipped)
{
    m_server.on("/", Reply::resource(kMedia, 1'000'000).shiftRanges(-5000));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.pause(), 0);
    EXPECT_EQ(stream.resume(), 0);
    expectRest(stream, 0, 1'000'000);
}

TEST_F(OddServer, thatAnswersLaterEndsTheTransferWithError153)
{
    m_server.on("/", Reply::resource(kMedia, kSize).shiftRanges(1));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(250'001, 0), -ESPIPE);
    EXPECT_EQ(stream.error(), 153);
    EXPECT_EQ(stream.readAll(), "") << "no byte at a wrong position";
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_EQ(stream.error(), 153);
}

TEST_F(OddServer, thatAnswersLaterOnceCanBeSoughtAgain)
{
    m_server.onSequence("/", {Reply::resource(kMedia, kSize), Reply::resource(kMedia, kSize).shiftRanges(1),
                              Reply::resource(kMedia, kSize)});
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(250'001, 0), -ESPIPE);
    EXPECT_EQ(stream.seek(100'000, 0), 0);
    expectRest(stream, 100'000);
}

TEST_F(OddServer, thatTellsNoTotalHasItsLengthFromTheContentLength)
{
    RangeRules rules;
    rules.sendTotal = false;
    m_server.on("/", Reply::resource(kMedia, kSize).ranges(rules));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(250'001, 0), 0);
    EXPECT_EQ(stream.size(), kSize);
    expectRest(stream, 250'001);
}

TEST_F(OddServer, thatSendsNoContentRangeIsTakenAtItsStatus206)
{
    RangeRules rules;
    rules.sendContentRange = false;
    m_server.on("/", Reply::resource(kMedia, kSize).ranges(rules));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(250'001, 0), 0);
    expectRest(stream, 250'001);
    EXPECT_EQ(stream.isSeekable(), 1);
}

TEST_F(OddServer, thatRefusesASeekOnceCanBeSoughtAgain)
{
    m_server.onSequence("/",
                        {Reply::resource(kMedia, kSize), Reply::error(503), Reply::resource(kMedia, kSize)});
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(250'001, 0), -ESPIPE);
    EXPECT_EQ(stream.error(), 22);
    EXPECT_EQ(stream.readAll(), "");
    stream.clearerr();
    EXPECT_EQ(stream.isSeekable(), 1);
    EXPECT_EQ(stream.seek(100'000, 0), 0);
    expectRest(stream, 100'000);
}

// --- Requests with a body ---

TEST_F(OddServer, forAPostGetsARangeLineAndTheBodyAgain)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    stream.setHeaderLine("X-Own: 1");
    stream.start(m_server.url("/"), "question", 1000);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(1000, 10));
    EXPECT_EQ(stream.size(), kSize);
    EXPECT_EQ(stream.seek(250'001, 0), 0);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(250'001, 10));
    EXPECT_EQ(stream.seek(0, 0), 0);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(0, 10));
    EXPECT_EQ(stream.pause(), 0);
    EXPECT_EQ(stream.resume(), 0);
    expectRest(stream, 10);
    const auto requests = m_server.requests();
    ASSERT_EQ(requests.size(), 4U);
    const std::vector<std::string> ranges = {"bytes=1000-", "bytes=250001-", "bytes=0-"};
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].method, "POST");
        EXPECT_EQ(requests[i].body, "question");
        EXPECT_EQ(requests[i].countHeader("Range"), 1U);
        EXPECT_EQ(requests[i].countHeader("X-Own"), 1U);
        EXPECT_FALSE(requests[i].hasHeader("Content-Range"));
        if (i < ranges.size()) {
            EXPECT_EQ(requests[i].header("Range"), ranges[i]);
        }
    }
}

TEST_F(OddServer, forAPostFromTheStartGetsNoRange)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    stream.start(m_server.url("/"), "question", 0);
    expectRest(stream, 0);
    EXPECT_FALSE(m_server.requests().at(0).hasHeader("Range"));
    EXPECT_FALSE(m_server.requests().at(0).hasHeader("Content-Range"));
}

TEST_F(OddServer, forAPostFollowsTheTailRule)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    stream.start(m_server.url("/"), "question", 0);
    EXPECT_EQ(stream.seek(-1, 2), 0);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=299990-");
    expectRest(stream, kSize - 1);
}

// --- Dropped connections ---

TEST_F(OddServer, thatDropsTheConnectionCanBeSoughtToGoOn)
{
    m_server.onSequence("/", {Reply::resource(kMedia, kSize).close(At::body(5000)),
                              Reply::resource(kMedia, kSize).reset(At::body(70'000)),
                              Reply::resource(kMedia, kSize)});
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(0, 5000));
    EXPECT_EQ(stream.error(), 153);
    EXPECT_EQ(stream.tell(), 5000);
    EXPECT_EQ(stream.seek(1000, 0), 0);
    const std::string piece = stream.readAll();
    EXPECT_TRUE(kMedia.matches(1000, piece));
    EXPECT_LE(piece.size(), 70'000U);
    EXPECT_EQ(stream.tell(), static_cast<long long>(1000 + piece.size()));
    EXPECT_EQ(stream.seek(2000, 0), 0);
    expectRest(stream, 2000);
}

} // namespace
