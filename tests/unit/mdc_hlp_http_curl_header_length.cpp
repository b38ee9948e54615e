// Lengths of streams, as honest servers and others tell them.
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

using support::HttpServer;
using support::HttpStream;
using support::Media;
using support::Reply;
using support::Request;
using support::TraceCapture;

namespace {

class HttpHeaderLength : public support::HttpClientTest
{
protected:
    // The length that a stream tells whose reply to a request from startPos is this one.
    long long sizeOf(const Reply& reply, int startPos = 0)
    {
        server.on("/sized", reply);
        HttpStream stream;
        stream.start(server.url("/sized"), "", startPos);
        return stream.size();
    }

    TraceCapture traces;
    HttpServer server;
};

Reply partial(const std::string& contentRange)
{
    Reply reply;
    reply.status(206);
    if (!contentRange.empty()) {
        reply.header("Content-Range: " + contentRange);
    }
    return reply;
}

} // namespace

TEST_F(HttpHeaderLength, LengthIsTheContentLengthFromTheStart)
{
    EXPECT_EQ(sizeOf(Reply().body("hello")), 5);
    EXPECT_EQ(sizeOf(Reply().body("")), 0);
    EXPECT_EQ(sizeOf(Reply().contentLength(5000000000).body("hello").keepOpen()), 5000000000);
}

TEST_F(HttpHeaderLength, LengthOfAPartIsCountedFromItsStart)
{
    const std::string part(500, 'x');
    EXPECT_EQ(sizeOf(partial("bytes 1000-1499/1500").body(part), 1000), 1500);
    EXPECT_EQ(sizeOf(partial("").body(part), 1000), 1500);
    EXPECT_EQ(sizeOf(partial("bytes 1000-1499/*").body(part), 1000), 1500);
}

TEST_F(HttpHeaderLength, EmptyPartHasLengthZero)
{
    EXPECT_EQ(sizeOf(partial("").body(""), 1000), 0);
}

TEST_F(HttpHeaderLength, WithoutContentLengthTheWholeLengthServes)
{
    EXPECT_EQ(sizeOf(partial("bytes 1000-1004/7777").chunked().body("hello"), 1000), 7777);
    EXPECT_TRUE(traces.hasAnywhere("using instanceLength 7777 for length on fd "));
    EXPECT_EQ(sizeOf(partial("bytes 1000-1004/7777").closeDelimited().body("hello"), 1000), 7777);
}

TEST_F(HttpHeaderLength, WithoutAnyLengthItIsUnknown)
{
    EXPECT_EQ(sizeOf(Reply().chunked().body("hello")), -1);
    EXPECT_EQ(sizeOf(Reply().closeDelimited().body("hello")), -1);
    EXPECT_EQ(sizeOf(partial("bytes 1000-1004/*").chunked().body("hello"), 1000), -1);
}

TEST_F(HttpHeaderLength, LengthAfterASeekIsThatOfTheWhole)
{
    const Media media(4);
    server.on("/song", Reply::resource(media, 400000));
    HttpStream stream;
    stream.start(server.url("/song"));
    ASSERT_EQ(stream.size(), 400000);
    ASSERT_EQ(stream.seek(300000, SEEK_SET), 0);
    EXPECT_EQ(stream.size(), 400000);
    EXPECT_EQ(stream.readAll(), media.bytes(300000, 100000));
}

TEST_F(HttpHeaderLength, LengthAfterASeekWithSkippedBytesIsThatOfTheWhole)
{
    const Media media(4);
    server.on("/song", Reply::resource(media, 400000));
    HttpStream stream;
    stream.start(server.url("/song"));
    ASSERT_EQ(stream.seek(399995, SEEK_SET), 0);
    EXPECT_EQ(stream.size(), 400000);
    EXPECT_EQ(stream.readAll(), media.bytes(399995, 5));
    EXPECT_EQ(server.requests("/song").at(1).header("Range"), "bytes=399990-");
}

TEST_F(HttpHeaderLength, LengthOfAServerThatIgnoresTheRangeIsThatOfTheWhole)
{
    const Media media(4);
    server.on("/song", Reply::resource(media, 4000).ignoreRanges());
    HttpStream stream;
    stream.start(server.url("/song"), "", 1000);
    EXPECT_EQ(stream.size(), 4000);
    EXPECT_EQ(stream.isSeekable(), 0);
    EXPECT_EQ(stream.readAll(), media.bytes(1000, 3000));
}

TEST_F(HttpHeaderLength, LengthOfAnotherPartThanAskedForIsRight)
{
    const Media media(4);
    server.on("/early", Reply::resource(media, 4000).shiftRanges(-100));
    HttpStream early;
    early.start(server.url("/early"), "", 1000);
    EXPECT_EQ(early.size(), 4000);
    EXPECT_EQ(early.readAll(), media.bytes(1000, 3000));
    server.on("/late", Reply::resource(media, 4000).shiftRanges(100));
    HttpStream late;
    late.start(server.url("/late"), "", 1000);
    EXPECT_EQ(late.readAll(), "");
    EXPECT_EQ(late.error(), MDCH_HTTP_ETRANSFER);
}

TEST_F(HttpHeaderLength, PartThatNobodyAskedForIsNotDeliveredAsTheStart)
{
    server.on("/odd", partial("bytes 500-504/1000").body("hello"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/odd")), "");
    EXPECT_EQ(stream.error(), MDCH_HTTP_ETRANSFER);
    server.on("/whole", partial("bytes 0-4/5").body("hello"));
    EXPECT_EQ(stream.fetch(server.url("/whole")), "hello");
    EXPECT_EQ(stream.error(), 0);
}
