// md::HttpAccess: fcntl, and what it changes.

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

namespace {

using md::HttpAccess;
using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::inspect;
using support::Media;
using support::Reply;
using support::TraceCapture;
using support::waitForDescriptor;

const Media kMedia(28);

// --- Every command, and its results ---

struct Command
{
    int number;
    int argument;
    int whenGone; // result for a transfer that is no longer registered
};

void PrintTo(const Command& command, std::ostream* out)
{
    *out << command.number;
}

class EveryCommand : public testing::TestWithParam<Command>
{
protected:
    support::EngineStopped m_stopped;
};

TEST_P(EveryCommand, givesZeroMinus22WhenClosedAndItsOwnResultWhenGone)
{
    const Command& command = GetParam();
    HttpAccess stream;
    EXPECT_EQ(stream.fcntl(command.number, command.argument), 0);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(stream.fcntl(command.number, command.argument), -22);
    HttpAccess outlived;
    HttpAccess::shutdown();
    EXPECT_EQ(outlived.fcntl(command.number, command.argument), command.whenGone);
}

INSTANTIATE_TEST_SUITE_P(Commands, EveryCommand,
                         testing::Values(Command{0, 0, -22}, Command{1, 0, -22}, Command{2, 200000, -38},
                                         Command{3, 5, -22}, Command{4, 5, -22}, Command{5, 1, -38},
                                         Command{6, 0, -38}, Command{7, 0, -38}, Command{8, 1, -38},
                                         Command{9, 5, -38}, Command{10, 0, -38}));

class Control : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    template <class Function>
    static auto field(Function function)
    {
        return inspect(100, function);
    }
};

TEST_F(Control, unknownCommandsGiveMinus38AndMinus22WhenClosed)
{
    HttpAccess stream;
    HttpAccess outlived;
    for (const int command : {-1, 11, 1000, -2147483647}) {
        EXPECT_EQ(stream.fcntl(command), -38) << command;
    }
    stream.close();
    for (const int command : {-1, 11, 1000}) {
        EXPECT_EQ(stream.fcntl(command), -22) << command;
    }
    HttpAccess::shutdown();
    EXPECT_EQ(outlived.fcntl(11), -38);
    EXPECT_EQ(outlived.fcntl(-1), -38);
}

TEST_F(Control, startsWithItsDefaults)
{
    const HttpAccess stream;
    field([](auto& desc) {
        EXPECT_EQ(desc.dataTimeout, 330);
        EXPECT_EQ(desc.headerTimeout, 7);
        EXPECT_EQ(desc.receiveBufferSize, 196608);
        EXPECT_EQ(desc.followLocation, 1);
        EXPECT_EQ(desc.maxRedirects, 50);
        EXPECT_FALSE(desc.forceRange);
        EXPECT_FALSE(desc.pauseBuffering);
        EXPECT_EQ(desc.dlnaTransferMode, 0);
        EXPECT_FALSE(desc.acceptAfterDone);
        EXPECT_TRUE(desc.verifyHost);
        EXPECT_EQ(desc.httpStatus, -1);
        return 0;
    });
}

TEST_F(Control, commandsWriteTheirFields)
{
    HttpAccess stream;
    stream.fcntl(0);
    EXPECT_EQ(field([](auto& desc) { return desc.dataTimeout; }), 20);
    stream.fcntl(1);
    EXPECT_EQ(field([](auto& desc) { return desc.dataTimeout; }), 0);
    stream.fcntl(3, 123);
    EXPECT_EQ(field([](auto& desc) { return desc.dataTimeout; }), 123);
    stream.fcntl(4, 45);
    EXPECT_EQ(field([](auto& desc) { return desc.headerTimeout; }), 45);
    stream.fcntl(5, 0);
    EXPECT_EQ(field([](auto& desc) { return desc.followLocation; }), 0);
    stream.fcntl(6);
    EXPECT_TRUE(field([](auto& desc) { return desc.forceRange; }));
    stream.fcntl(7);
    EXPECT_TRUE(field([](auto& desc) { return desc.pauseBuffering; }));
    for (const int mode : {1, 2, 3, 0}) {
        stream.fcntl(8, mode);
        EXPECT_EQ(field([](auto& desc) { return desc.dlnaTransferMode; }), mode);
    }
    stream.fcntl(9, 3);
    EXPECT_EQ(field([](auto& desc) { return desc.maxRedirects; }), 3);
    stream.fcntl(10);
    EXPECT_TRUE(field([](auto& desc) { return desc.acceptAfterDone; }));
}

// --- Buffer size ---

TEST_F(Control, bufferSizesFrom98304To3211264AreTaken)
{
    HttpAccess stream;
    for (const int size : {98304, 98305, 500000, 3211263, 3211264}) {
        EXPECT_EQ(stream.fcntl(2, size), 0);
        EXPECT_EQ(field([](auto& desc) { return desc.receiveBufferSize; }), size);
    }
}

TEST_F(Control, otherBufferSizesAreTracedAndIgnored)
{
    HttpAccess stream;
    const TraceCapture trace;
    for (const int size : {98303, 3211265, 0, -1, 2147483647, -2147483647}) {
        EXPECT_EQ(stream.fcntl(2, size), 0) << "deliberately no error";
        EXPECT_EQ(field([](auto& desc) { return desc.receiveBufferSize; }), 196608);
        const std::string text =
            "setBufsize(): invalid buffer size " + std::to_string(size) + " [98304..3211264]. \n";
        EXPECT_EQ(trace.count(text), 1U);
        EXPECT_EQ(trace.severityOf(text), 3000U);
    }
}

TEST_F(Control, theBufferSizeActsAtTheNextOpen)
{
    m_server.on("/", Reply::resource(kMedia, 4'000'000));
    HttpStream stream;
    stream.start(m_server.url("/"));
    const auto room = [](auto& desc) {
        return desc.ringBuffer.usedBytes() + desc.ringBuffer.availableBytes();
    };
    EXPECT_EQ(field(room), 196608U);
    stream.fcntl(2, 1'000'000);
    EXPECT_EQ(field(room), 196608U);
    EXPECT_EQ(stream.getResponseCode(), 200);
    EXPECT_EQ(stream.seek(3'000'000, 0), 0);
    EXPECT_EQ(stream.readSome(100), kMedia.bytes(3'000'000, 100));
    stream.start(m_server.url("/"));
    EXPECT_EQ(field(room), 1'000'000U);
    const std::string all = stream.readAll();
    EXPECT_EQ(all.size(), 4'000'000U);
    EXPECT_TRUE(kMedia.matches(0, all));
}

TEST_F(Control, theSmallestBufferServesALargeResource)
{
    m_server.on("/", Reply::resource(kMedia, 2'000'000));
    HttpStream stream;
    stream.fcntl(2, 98304);
    const std::string all = stream.fetch(m_server.url("/"));
    EXPECT_EQ(all.size(), 2'000'000U);
    EXPECT_TRUE(kMedia.matches(0, all));
    EXPECT_EQ(stream.error(), 0);
}

// --- Time-outs act at once ---

TEST_F(Control, nonBlockingModeActsOnARunningTransfer)
{
    m_server.on("/", Reply().body("abc").contentLength(9).stall(At::body(3)));
    HttpStream stream;
    stream.start(m_server.url("/"));
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.ringBuffer.usedBytes() == 3; }));
    stream.fcntl(1);
    EXPECT_EQ(stream.readSome(9), "abc");
    EXPECT_EQ(stream.readSome(9), "") << "without a wait";
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(Control, aDataTimeoutActsOnARunningTransfer)
{
    m_server.on("/", Reply().body("abc").contentLength(9).stall(At::body(3)));
    HttpStream stream;
    stream.start(m_server.url("/"));
    EXPECT_EQ(stream.readSome(3), "abc");
    stream.fcntl(3, -1); // a deadline that has passed
    const TraceCapture trace;
    EXPECT_EQ(stream.readSome(1), "");
    EXPECT_TRUE(trace.has("read(): cannot fill up the requested buffer on fd 100 (0<1), timeout: -1\n"));
    EXPECT_EQ(stream.error(), 11);
}

// --- The others act at the next open ---

TEST_F(Control, redirectsAreFollowedAsSetBeforeTheOpen)
{
    m_server.on("/", Reply::redirect("/target"));
    m_server.on("/target", Reply().body("target"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(m_server.url("/")), "target");
    stream.fcntl(5, 0);
    EXPECT_EQ(stream.fetch(m_server.url("/")), "");
    EXPECT_EQ(stream.error(), 155);
    EXPECT_EQ(stream.getResponseCode(), 302);
    stream.fcntl(5, 1);
    stream.fcntl(9, 0);
    EXPECT_EQ(stream.fetch(m_server.url("/")), "");
    EXPECT_EQ(stream.error(), 152);
    stream.fcntl(9, 1);
    EXPECT_EQ(stream.fetch(m_server.url("/")), "target");
}

TEST_F(Control, aForcedRangeIsSentFromZero)
{
    m_server.on("/", Reply::resource(kMedia, 1000));
    HttpStream stream;
    stream.fcntl(6);
    EXPECT_EQ(stream.fetch(m_server.url("/")), kMedia.bytes(0, 1000));
    EXPECT_EQ(m_server.requests().at(0).header("Range"), "bytes=0-");
    EXPECT_EQ(stream.size(), 1000);
    EXPECT_EQ(stream.getResponseCode(), 206);
    EXPECT_EQ(stream.isSeekable(), 1);
}

TEST_F(Control, dlnaModesAddTheirLines)
{
    m_server.on("/", Reply().body("x"));
    const std::vector<std::string> values = {"", "Streaming", "Interactive", "Background"};
    for (int mode = 0; mode <= 3; ++mode) {
        HttpStream stream;
        stream.fcntl(8, mode);
        EXPECT_EQ(stream.fetch(m_server.url("/")), "x");
        EXPECT_EQ(m_server.requests().back().header("transferMode.dlna.org"),
                  values.at(static_cast<std::size_t>(mode)));
        EXPECT_EQ(m_server.requests().back().header("getcontentFeatures.dlna.org"), mode == 0 ? "" : "1");
    }
}

TEST_F(Control, pauseBufferingKeepsReceivingWhilePaused)
{
    m_server.on("/", Reply::resource(kMedia, 2'000'000).ignoreRanges());
    HttpStream stream;
    stream.fcntl(7);
    stream.start(m_server.url("/"));
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    EXPECT_EQ(field([](auto& desc) { return desc.backBuffer.usedBytes(); }), 0U);
    field([](auto& desc) { return desc.lastDataTime -= 400; });
    mdchHttpCurl_wakeupWorkerThread();
    EXPECT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.backBuffer.usedBytes() > 0; }));
    const std::string all = stream.readAll();
    EXPECT_EQ(all.size(), 2'000'000U);
    EXPECT_TRUE(kMedia.matches(0, all));
}

TEST_F(Control, acceptAfterDoneDeliversWhatIsBufferedWithoutAConnection)
{
    HttpStream stream;
    m_server.on("/", Reply::error(404));
    stream.fcntl(10);
    stream.start(m_server.url("/"));
    EXPECT_EQ(stream.error(), 2);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.done != 0 && desc.connected == 0; }));
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.ringBuffer.usedBytes() > 0; }))
        << "the error's text is kept";
    EXPECT_FALSE(stream.readSome(10).empty());
    EXPECT_EQ(stream.error(), 2) << "data does not clear it";
}

} // namespace
