// The rules for single header lines.
#include "support/http_client.h"
#include "support/trace_capture.h"

#include <string>
#include <vector>

using support::TraceCapture;

namespace {

using Lines = std::vector<std::string>;

constexpr int kNumber = 7;

// Text of a rule's trace on the descriptor below.
std::string parse(const std::string& text)
{
    return "mdchHttpParseHeaderLine(): " + text;
}

class HttpHeaderLine : public ::testing::Test
{
protected:
    HttpHeaderLine() { desc.fd = kNumber; }

    // Applies the lines in order to a descriptor that starts with these capabilities.
    void apply(std::uint32_t capabilities, const Lines& lines)
    {
        traces.clear();
        desc.capabilities = capabilities;
        for (const std::string& line : lines) {
            mdchHttpParseHeaderLine(desc, line + "\r\n");
        }
    }

    std::uint32_t capabilitiesAfter(std::uint32_t before, const Lines& lines)
    {
        apply(before, lines);
        return desc.capabilities;
    }

    std::int64_t instanceLengthAfter(const std::string& line)
    {
        desc.instanceLength = -1;
        apply(0, {line});
        return desc.instanceLength;
    }

    TraceCapture traces;
    md::MdchCurlDescriptor_struct desc;
};

} // namespace

// --- Content-Range ---

TEST_F(HttpHeaderLine, ContentRangeAllowsByteSeeksAndTellsTheWholeLength)
{
    apply(0, {"Content-Range: bytes 5-9/1234"});
    EXPECT_EQ(desc.capabilities, 1U);
    EXPECT_EQ(desc.instanceLength, 1234);
    EXPECT_EQ(traces.texts(), (Lines{parse("allow seek on fd 7. (Content-Range)\n"),
                                     parse("instance length 1234 on fd 7. \n")}));
    EXPECT_EQ(traces.lines().at(0).level, 0x680000U | 5000U);
    EXPECT_EQ(traces.lines().at(1).level, 0x680000U | 5000U);
}

TEST_F(HttpHeaderLine, ContentRangeKeepsTheOtherCapabilities)
{
    EXPECT_EQ(capabilitiesAfter(6, {"Content-Range: bytes 0-1/2"}), 7U);
}

TEST_F(HttpHeaderLine, NamesAreFoundAnywhereInTheLineWithoutRegardToCase)
{
    EXPECT_EQ(instanceLengthAfter("CONTENT-RANGE: bytes 0-4/11"), 11);
    EXPECT_EQ(instanceLengthAfter("X-Proxy-content-range: bytes 0-4/12"), 12);
    EXPECT_EQ(instanceLengthAfter("X: 1, Content-Range bytes 0-4/13"), 13);
    EXPECT_EQ(capabilitiesAfter(0, {"aCCEPT-rANGES: bytes"}), 1U);
    EXPECT_EQ(capabilitiesAfter(0, {"X-Accept-Ranges: bytes"}), 1U);
}

TEST_F(HttpHeaderLine, WholeLengthStopsAtTheFirstCharacterThatIsNoDigit)
{
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/77 bytes"), 77);
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/77/88"), 77);
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/ 77"), 77);
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/0"), 0);
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/007"), 7);
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/-5"), -5);
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes */1000"), 1000);
    EXPECT_EQ(instanceLengthAfter("Content-Range:0-4/9223372036854775807"), INT64_MAX);
}

TEST_F(HttpHeaderLine, WholeLengthWithoutDigitsIsReported)
{
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/*"), -1);
    EXPECT_EQ(desc.capabilities, 1U);
    const std::string text = parse("instance length invalid '*\r\n' on fd 7. \n");
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 3000U);
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/"), -1);
    EXPECT_TRUE(traces.hasAnywhere("instance length invalid '"));
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/x5"), -1);
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4/-"), -1);
}

TEST_F(HttpHeaderLine, ContentRangeWithoutASlashTellsNoLength)
{
    EXPECT_EQ(instanceLengthAfter("Content-Range: bytes 0-4"), -1);
    EXPECT_EQ(desc.capabilities, 1U);
    EXPECT_EQ(traces.texts(), Lines{parse("allow seek on fd 7. (Content-Range)\n")});
}

TEST_F(HttpHeaderLine, InvalidWholeLengthKeepsAnEarlierOne)
{
    apply(0, {"Content-Range: bytes 0-4/50", "Content-Range: bytes 0-4/*"});
    EXPECT_EQ(desc.instanceLength, 50);
}

TEST_F(HttpHeaderLine, FirstRuleThatMatchesWins)
{
    EXPECT_EQ(instanceLengthAfter("Accept-Ranges: none, Content-Range: bytes 0-4/5"), 5);
    EXPECT_EQ(desc.capabilities, 1U);
    EXPECT_EQ(capabilitiesAfter(0, {"Accept-Ranges: bytes; contentFeatures.dlna.org: DLNA.ORG_OP=10"}), 1U);
    EXPECT_EQ(capabilitiesAfter(4, {"contentFeatures.dlna.org: TimeSeekRange.dlna.org: bytes=5-"}), 0U);
    EXPECT_EQ(desc.startPos, 0);
}

// --- Accept-Ranges ---

TEST_F(HttpHeaderLine, AcceptRangesOtherThanNoneAllowsByteSeeks)
{
    for (const char* value : {"bytes", "", "pages", "BYTES, pages"}) {
        EXPECT_EQ(capabilitiesAfter(6, {std::string("Accept-Ranges: ") + value}), 7U) << value;
        EXPECT_EQ(traces.texts(), Lines{parse("allow seek on fd 7. (Accept-Ranges)\n")});
        EXPECT_EQ(traces.lines().at(0).level, 0x680000U | 5000U);
    }
}

TEST_F(HttpHeaderLine, AcceptRangesNoneForbidsByteSeeks)
{
    for (const char* value : {"none", "NONE", "bytes, None", "nonesuch"}) {
        EXPECT_EQ(capabilitiesAfter(7, {std::string("Accept-Ranges: ") + value}), 6U) << value;
        EXPECT_EQ(traces.texts(), Lines{parse("disallow seek on fd 7. (Accept-Ranges: none)\n")});
        EXPECT_EQ(traces.lines().at(0).level, 0x680000U | 5000U);
    }
}

TEST_F(HttpHeaderLine, LastOfSeveralLinesDecides)
{
    EXPECT_EQ(capabilitiesAfter(0, {"Content-Range: bytes 0-1/2", "Accept-Ranges: none"}), 0U);
    EXPECT_EQ(capabilitiesAfter(0, {"Accept-Ranges: none", "Content-Range: bytes 0-1/2"}), 1U);
    EXPECT_EQ(capabilitiesAfter(0, {"Accept-Ranges: none", "Accept-Ranges: bytes"}), 1U);
}

TEST_F(HttpHeaderLine, GluedLinesCountOnce)
{
    EXPECT_EQ(capabilitiesAfter(0, {"Accept-Ranges: bytesCONNECTION: close"}), 1U);
}

TEST_F(HttpHeaderLine, NameMayBeginInsideOfWhatLooksLikeIt)
{
    EXPECT_EQ(capabilitiesAfter(0, {"X-Accept-RAccept-Ranges: bytes"}), 1U);
    EXPECT_EQ(capabilitiesAfter(0, {"AAaccept-rangeS: bytes"}), 1U);
    EXPECT_EQ(capabilitiesAfter(0, {"Accept-Range"}), 0U);
}

TEST_F(HttpHeaderLine, OtherLinesChangeNothing)
{
    for (const char* line :
         {"Content-Type: audio/mpeg", "Content-Length: 5", "Range: bytes=0-", "icy-br:128", "",
          "Content Range: bytes 0-4/5", "Accept: ranges", "HTTP/1.1 206 Partial Content"}) {
        desc.length = -11;
        EXPECT_EQ(capabilitiesAfter(4, {line}), 4U) << line;
        EXPECT_EQ(desc.length, -11);
        EXPECT_EQ(desc.instanceLength, -1);
        EXPECT_EQ(desc.writePos, 0);
        EXPECT_EQ(desc.startPos, 0);
        EXPECT_TRUE(traces.texts().empty());
    }
}
