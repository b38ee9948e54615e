// DLNA header lines: what a server's content features allow, and where a time seek's response begins.
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <cinttypes>

using support::HttpServer;
using support::HttpStream;
using support::Media;
using support::Reply;
using support::Request;
using support::TimeSeekRules;
using support::TraceCapture;

namespace {

using Lines = std::vector<std::string>;

std::string parse(const std::string& text)
{
    return "mdchHttpParseHeaderLine(): " + text;
}

const std::string kTimeSeek = parse("allow seek on fd 7. (dlna time seek)\n");
const std::string kByteSeek = parse("allow seek on fd 7. (dlna byte seek)\n");
const std::string kAll = parse("allow all on fd 7. (dlna *)\n");
const std::string kStalling = parse("dlna connection stalling flag on fd 7. \n");
const std::string kNoStalling = parse("dlna no connection stalling flag on fd 7. \n");

std::string missing(const std::string& line)
{
    return parse("disallow seek on fd 7. (missing DLNA.ORG_OP) " + line + "\n");
}

std::string flags(const std::string& number, const std::string& text)
{
    return parse("dlna flags on fd 7. 0x" + number + " " + text + "\n");
}

class HttpDlnaLine : public ::testing::Test
{
protected:
    HttpDlnaLine() { desc.fd = 7; }

    // Capabilities after a contentFeatures line with this value; all were set before.
    std::uint32_t features(const std::string& value)
    {
        traces.clear();
        desc.capabilities = 7;
        mdchHttpParseHeaderLine(desc, line(value));
        for (const TraceCapture::Line& trace : traces.lines()) {
            EXPECT_EQ(trace.level, 0x680000U | 5000U) << trace.text;
        }
        return desc.capabilities;
    }

    static std::string line(const std::string& value)
    {
        return "contentFeatures.dlna.org: " + value + "\r\n";
    }

    // The position that the reader stands at after a TimeSeekRange line; it stood at 42.
    std::int64_t positionAfter(const std::string& wholeLine)
    {
        traces.clear();
        desc.startPos = 42;
        desc.writePos = 42;
        mdchHttpParseHeaderLine(desc, wholeLine + "\r\n");
        EXPECT_EQ(desc.startPos, desc.writePos);
        return desc.startPos;
    }

    TraceCapture traces;
    md::MdchCurlDescriptor_struct desc;
};

class HttpDlnaServer : public support::HttpClientTest
{
protected:
    // Capabilities of a stream whose response has these lines.
    unsigned int capabilitiesWith(const Lines& lines)
    {
        server.on("/item", Reply().headers(lines).body("item"));
        HttpStream stream;
        stream.fcntl(MDCH_FCNTL_DLNA_MODE, 1);
        EXPECT_EQ(stream.fetch(server.url("/item")), "item");
        return stream.capability();
    }

    HttpServer server;
};

} // namespace

// --- Operations ---

TEST_F(HttpDlnaLine, OperationFlagsAreTimeSeekThenByteSeek)
{
    EXPECT_EQ(features("DLNA.ORG_OP=00"), 0U);
    EXPECT_EQ(traces.texts(), Lines{missing(line("DLNA.ORG_OP=00"))});
    EXPECT_EQ(features("DLNA.ORG_OP=01"), 1U);
    EXPECT_EQ(traces.texts(), Lines{kByteSeek});
    EXPECT_EQ(features("DLNA.ORG_OP=10"), 2U);
    EXPECT_EQ(traces.texts(), Lines{kTimeSeek});
    EXPECT_EQ(features("DLNA.ORG_OP=11"), 3U);
    EXPECT_EQ(traces.texts(), (Lines{kTimeSeek, kByteSeek}));
}

TEST_F(HttpDlnaLine, OperationFlagsThatAreNotOneAllowNothing)
{
    EXPECT_EQ(features("DLNA.ORG_OP="), 0U);
    EXPECT_EQ(features("DLNA.ORG_OP=x1"), 1U);
    EXPECT_EQ(features("DLNA.ORG_OP=1x"), 2U);
    EXPECT_EQ(features("DLNA.ORG_OP=22"), 0U);
    EXPECT_EQ(features("DLNA.ORG_OP=1"), 2U);
    EXPECT_EQ(features("DLNA.ORG_OP=011"), 1U);
}

TEST_F(HttpDlnaLine, LineThatEndsBehindTheNameIsHarmless)
{
    for (const char* end : {"DLNA.ORG_OP=", "DLNA.ORG_OP=0", "DLNA.ORG_FLAGS=", "DLNA.ORG_OP", ""}) {
        desc.capabilities = 7;
        mdchHttpParseHeaderLine(desc, std::string("contentFeatures.dlna.org:") + end);
        EXPECT_EQ(desc.capabilities, 0U) << end;
    }
    desc.capabilities = 7;
    mdchHttpParseHeaderLine(desc, "contentFeatures.dlna.org:DLNA.ORG_OP=1");
    EXPECT_EQ(desc.capabilities, 2U);
}

TEST_F(HttpDlnaLine, MissingOperationsForbidSeeks)
{
    EXPECT_EQ(features("DLNA.ORG_PN=MP3"), 0U);
    EXPECT_EQ(traces.texts(), Lines{missing(line("DLNA.ORG_PN=MP3"))});
    EXPECT_EQ(features(""), 0U);
    EXPECT_EQ(traces.texts(), Lines{missing(line(""))});
}

TEST_F(HttpDlnaLine, NamesAreFoundWithoutRegardToCase)
{
    desc.capabilities = 7;
    mdchHttpParseHeaderLine(desc, "CONTENTFEATURES.DLNA.ORG:dlna.org_op=01;dlna.org_flags=00200000\r\n");
    EXPECT_EQ(desc.capabilities, 5U);
}

// --- The star ---

TEST_F(HttpDlnaLine, StarAllowsByteSeekAndStalling)
{
    EXPECT_EQ(features("*"), 5U);
    EXPECT_EQ(traces.texts(), Lines{kAll});
    EXPECT_EQ(features("http-get:*:audio/mpeg:DLNA.ORG_PN=MP3"), 5U);
}

TEST_F(HttpDlnaLine, OperationsBesideTheStarAddTimeSeek)
{
    EXPECT_EQ(features("*;DLNA.ORG_OP=10"), 7U);
    EXPECT_EQ(traces.texts(), (Lines{kAll, kTimeSeek}));
    EXPECT_EQ(features("*;DLNA.ORG_OP=00"), 5U);
    EXPECT_EQ(traces.texts(), Lines{kAll});
}

TEST_F(HttpDlnaLine, FlagsWithoutStallingLeaveTheStarsAlone)
{
    EXPECT_EQ(features("*;DLNA.ORG_FLAGS=00000000"), 5U);
    EXPECT_EQ(traces.texts(), (Lines{kAll, flags("00000000", "00000000"), kNoStalling}));
}

// --- Flags ---

TEST_F(HttpDlnaLine, StallingFlagIsBitTwentyOneOfThePrimaryFlags)
{
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=01700000000000000000000000000000"), 5U);
    EXPECT_EQ(traces.texts(), (Lines{kByteSeek, flags("01700000", "01700000"), kStalling}));
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=01500000000000000000000000000000"), 1U);
    EXPECT_EQ(traces.texts(), (Lines{kByteSeek, flags("01500000", "01500000"), kNoStalling}));
}

TEST_F(HttpDlnaLine, OnlyEightCharactersOfTheFlagsCount)
{
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=0000000000200000"), 1U);
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=FFDFFFFFFFFFFFFF"), 1U);
    EXPECT_TRUE(traces.has(flags("ffdfffff", "FFDFFFFF")));
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=ffffffff"), 5U);
    EXPECT_TRUE(traces.has(flags("ffffffff", "ffffffff")));
}

TEST_F(HttpDlnaLine, ShortAndBrokenFlagsCountAsFarAsTheyGo)
{
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=200000"), 5U);
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=2"), 1U);
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=20g00000"), 1U);
    EXPECT_TRUE(traces.has(flags("00000020", "20g00000")));
    EXPECT_EQ(features("DLNA.ORG_OP=01;DLNA.ORG_FLAGS=zz"), 1U);
    EXPECT_TRUE(traces.has(kNoStalling));
}

TEST_F(HttpDlnaLine, FlagsCountWithoutOperations)
{
    EXPECT_EQ(features("DLNA.ORG_FLAGS=00200000"), 4U);
    EXPECT_EQ(traces.texts(),
              (Lines{missing(line("DLNA.ORG_FLAGS=00200000")), flags("00200000", "00200000"), kStalling}));
}

// --- TimeSeekRange ---

TEST_F(HttpDlnaLine, TimeSeekRangeTellsThePosition)
{
    EXPECT_EQ(positionAfter("TimeSeekRange.dlna.org: npt=5.0-59.9/60.0 bytes=12345-99999/100000"), 12345);
    const std::string text = parse("dlna TimeSeekRange.dlna.org on fd 7.  newPos=12345\n");
    EXPECT_EQ(traces.texts(), Lines{text});
    EXPECT_EQ(traces.severityOf(text), 5000U);
    EXPECT_EQ(positionAfter("timeseekrange.DLNA.ORG: npt=0.0- BYTES=0-"), 0);
    EXPECT_EQ(positionAfter("TimeSeekRange.dlna.org: bytes=5000000000-"), 5000000000);
    EXPECT_EQ(positionAfter("TimeSeekRange.dlna.org: bytes=7x"), 7);
}

TEST_F(HttpDlnaLine, TimeSeekRangeWithoutBytesChangesNothing)
{
    EXPECT_EQ(positionAfter("TimeSeekRange.dlna.org: npt=5.500-59.999/0.000"), 42);
    EXPECT_TRUE(traces.texts().empty());
}

TEST_F(HttpDlnaLine, TimeSeekRangeThatNoPositionCanHoldChangesNothing)
{
    EXPECT_EQ(positionAfter("TimeSeekRange.dlna.org: bytes=99999999999999999999-"), 42);
    EXPECT_EQ(positionAfter("TimeSeekRange.dlna.org: bytes=18446744073709551615-"), 42);
}

TEST_F(HttpDlnaLine, TimeSeekRangeLeavesTheCapabilities)
{
    desc.capabilities = 3;
    mdchHttpParseHeaderLine(desc, "TimeSeekRange.dlna.org: bytes=7-\r\n");
    EXPECT_EQ(desc.capabilities, 3U);
}

// --- From servers ---

TEST_F(HttpDlnaServer, FeaturesOverrideEarlierLinesAndLaterOnesAdd)
{
    const std::string none = "contentFeatures.dlna.org: DLNA.ORG_OP=00";
    const std::string time = "contentFeatures.dlna.org: DLNA.ORG_OP=10";
    EXPECT_EQ(capabilitiesWith({}), 5U);
    EXPECT_EQ(capabilitiesWith({"Accept-Ranges: bytes", none}), 0U);
    EXPECT_EQ(capabilitiesWith({none, "Accept-Ranges: bytes"}), 1U);
    EXPECT_EQ(capabilitiesWith({"Accept-Ranges: bytes", time}), 2U);
    EXPECT_EQ(capabilitiesWith({time, "Accept-Ranges: bytes"}), 3U);
    EXPECT_EQ(capabilitiesWith({time, "Accept-Ranges: none"}), 2U);
    EXPECT_EQ(capabilitiesWith({"contentFeatures.dlna.org: *", none}), 0U);
    EXPECT_EQ(capabilitiesWith({none, "contentFeatures.dlna.org: *"}), 5U);
    EXPECT_EQ(capabilitiesWith({"Accept-Ranges: none"}), 4U);
}

TEST_F(HttpDlnaServer, AnswersOfMediaServersInTheField)
{
    const std::string features = "contentFeatures.dlna.org: ";
    const std::string flagsLine = "DLNA.ORG_FLAGS=01700000000000000000000000000000";
    EXPECT_EQ(
        capabilitiesWith(
            {features + "DLNA.ORG_PN=AVC_MP4_BL_CIF30_AAC_940;DLNA.ORG_OP=01;DLNA.ORG_CI=0;" + flagsLine}),
        5U);
    EXPECT_EQ(capabilitiesWith({"Accept-Ranges: bytesCONNECTION: close"}), 5U);
    EXPECT_EQ(capabilitiesWith({features + "DLNA.ORG_OP=01"}), 1U);
    EXPECT_EQ(capabilitiesWith({features + "DLNA.ORG_PN=MP3;DLNA.ORG_OP=10;DLNA.ORG_CI=1;" + flagsLine}), 6U);
}

TEST_F(HttpDlnaServer, TimeSeekTakesThePositionThatTheServerTells)
{
    const Media media(9);
    server.on("/item", Reply::timeSeekResource(media, 500000, 10000).contentFeatures("DLNA.ORG_OP=11", true));
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_DLNA_MODE, 1);
    stream.start(server.url("/item"));
    ASSERT_EQ(stream.capability(), 3U);
    ASSERT_EQ(stream.seekTime(20000), 0);
    EXPECT_EQ(stream.tell(), 200000);
    EXPECT_EQ(stream.size(), 500000);
    EXPECT_EQ(stream.readSome(1000), media.bytes(200000, 1000));
    EXPECT_EQ(stream.tell(), 201000);
    EXPECT_EQ(server.requests("/item").at(1).countHeader("Range"), 0U);
}

TEST_F(HttpDlnaServer, TimeSeekWithoutATellingServerStartsAtZero)
{
    const Media media(9);
    TimeSeekRules rules;
    rules.bytesPerSecond = 10000;
    rules.sendBytes = false;
    server.on("/item", Reply::resource(media, 500000).timeSeek(rules).contentFeatures("DLNA.ORG_OP=10"));
    HttpStream stream;
    stream.start(server.url("/item"));
    ASSERT_EQ(stream.readSome(100), media.bytes(0, 100));
    ASSERT_EQ(stream.seekTime(20000), 0);
    EXPECT_EQ(stream.tell(), 0);
    EXPECT_EQ(stream.readSome(1000), media.bytes(200000, 1000));
}
