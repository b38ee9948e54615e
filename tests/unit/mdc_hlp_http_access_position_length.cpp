// md::HttpAccess: size, isSeekable, capability, and what a stream answers that is closed or gone.

#include "support/body_source.h"
#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <cctype>
#include <gtest/gtest.h>

namespace {

using md::HttpAccess;
using support::BodySource;
using support::HttpServer;
using support::HttpStream;
using support::inspect;
using support::Media;
using support::Reply;
using support::TraceCapture;
using support::waitForDescriptor;

const Media kMedia(26);
constexpr long long kSize = 100'000;

class Length : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    void start(HttpStream& stream) const { stream.start(m_server.url("/")); }
    std::size_t requestCount() const { return m_server.requests().size(); }
};

// --- size ---

TEST_F(Length, isTheContentLength)
{
    m_server.on("/", Reply::resource(kMedia, kSize).acceptRanges(""));
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.size(), kSize);
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Length, ofAnEmptyResourceIsZero)
{
    m_server.on("/", Reply::resource(kMedia, 0));
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.size(), 0);
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Length, staysTheSameWhileReadingSeekingAndPausing)
{
    m_server.on("/", Reply::resource(kMedia, 1'000'000));
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.readSome(12'345).size(), 12'345U);
    EXPECT_EQ(stream.size(), 1'000'000);
    EXPECT_EQ(stream.seek(500'000, 0), 0);
    EXPECT_EQ(stream.size(), 1'000'000);
    EXPECT_EQ(stream.readSome(1000).size(), 1000U);
    EXPECT_EQ(stream.pause(), 0);
    EXPECT_EQ(stream.size(), 1'000'000);
    EXPECT_EQ(stream.resume(), 0);
    EXPECT_EQ(stream.size(), 1'000'000);
    EXPECT_EQ(stream.seek(-5, 2), 0);
    EXPECT_EQ(stream.size(), 1'000'000);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(999'995, 5));
    EXPECT_EQ(stream.size(), 1'000'000);
}

TEST_F(Length, ofAPartialOpenIsTheWholeLength)
{
    m_server.on("/", Reply::resource(kMedia, 1500));
    HttpStream stream;
    stream.open(m_server.url("/").c_str(), nullptr, 0, 1000);
    EXPECT_EQ(stream.size(), 1500);
    EXPECT_EQ(stream.tell(), 1000);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(1000, 500));
}

TEST_F(Length, thatIsUnknownIsAskedForWithAReconnectHere)
{
    m_server.on("/", Reply::resource(kMedia, kSize).chunked());
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.readSome(300), kMedia.bytes(0, 300));
    const TraceCapture trace;
    EXPECT_EQ(stream.size(), kSize);
    EXPECT_EQ(stream.tell(), 300);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=300-");
    EXPECT_TRUE(trace.has("internalSeek(): reconnected in seek to 300 on 100\n"));
    EXPECT_TRUE(
        trace.has("mdchHttpCurl_headerCallback(): using instanceLength 100000 for length on fd 100\n"));
    EXPECT_EQ(stream.size(), kSize);
    EXPECT_EQ(requestCount(), 2U) << "known from then on";
    const std::string rest = stream.readAll();
    EXPECT_EQ(rest.size(), static_cast<std::size_t>(kSize) - 300);
    EXPECT_TRUE(kMedia.matches(300, rest));
}

TEST_F(Length, thatIsAskedForAtTheStartAsksForTheRangeFromZero)
{
    m_server.on("/", Reply::resource(kMedia, kSize).chunked());
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.size(), kSize);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=0-");
    const std::string all = stream.readAll();
    EXPECT_EQ(all.size(), static_cast<std::size_t>(kSize));
    EXPECT_TRUE(kMedia.matches(0, all));
}

TEST_F(Length, thatStaysUnknownAfterTheReconnectIsNegative)
{
    support::RangeRules rules;
    rules.sendTotal = false;
    m_server.on("/", Reply::resource(kMedia, kSize).ranges(rules).chunked());
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(requestCount(), 2U);
    const std::string all = stream.readAll();
    EXPECT_EQ(all.size(), static_cast<std::size_t>(kSize));
    EXPECT_TRUE(kMedia.matches(0, all));
}

TEST_F(Length, ofAStreamThatCannotSeekIsNegativeWithoutAReconnect)
{
    m_server.on("/", Reply::resource(kMedia, kSize).ignoreRanges().chunked());
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(stream.readAll().size(), static_cast<std::size_t>(kSize));
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Length, ofARadioStreamIsNegativeWithoutAReconnect)
{
    m_server.on("/", Reply::icy().body(kMedia, BodySource::unlimited));
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(stream.readSome(100), kMedia.bytes(0, 100));
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Length, isMinus11WithoutAConnectionInNonBlockingMode)
{
    m_server.on("/", Reply::silence());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_NONBLOCKING);
    start(stream);
    EXPECT_EQ(stream.size(), -11);
    EXPECT_EQ(stream.error(), 11);
}

TEST_F(Length, isNotYetKnownWhenTheHeaderTimesOut)
{
    m_server.on("/", Reply::silence());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 0);
    start(stream);
    ASSERT_TRUE(m_server.waitForRequests(1));
    const TraceCapture trace;
    EXPECT_EQ(stream.size(), md::kLengthNotYetKnown);
    EXPECT_EQ(trace.count("waitForHeader(): wait for header fd 100 timed out\n"), 1U) << "it went on";
    EXPECT_EQ(stream.error(), 14);
}

// --- isSeekable and capability ---

struct CapabilityCase
{
    const char* line; // of the response
    unsigned int capability;
};

// Names the test; without it the parameter's address would.
void PrintTo(const CapabilityCase& given, std::ostream* out)
{
    for (const char* at = given.line; *at != '\0'; ++at) {
        *out << (std::isalnum(static_cast<unsigned char>(*at)) != 0 ? *at : '_');
    }
}

class Capability : public Length, public testing::WithParamInterface<CapabilityCase>
{
};

TEST_P(Capability, isWhatTheResponseAllows)
{
    m_server.on("/", Reply().header(GetParam().line).body("body"));
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.capability(), GetParam().capability);
    EXPECT_EQ(stream.isSeekable(), static_cast<int>(GetParam().capability & 1U));
}

INSTANTIATE_TEST_SUITE_P(Lines, Capability,
                         testing::Values(CapabilityCase{"X-None: 1", 4},
                                         CapabilityCase{"Accept-Ranges: bytes", 5},
                                         CapabilityCase{"Accept-Ranges: none", 4},
                                         CapabilityCase{"contentFeatures.dlna.org: *", 5},
                                         CapabilityCase{"contentFeatures.dlna.org: DLNA.ORG_OP=10", 2},
                                         CapabilityCase{"contentFeatures.dlna.org: DLNA.ORG_OP=11", 3},
                                         CapabilityCase{"contentFeatures.dlna.org: DLNA.ORG_OP=01;"
                                                        "DLNA.ORG_FLAGS=01700000000000000000000000000000",
                                                        5}));

TEST_F(Length, capabilityAndSeekabilityDoNotCareWhetherTheHeaderCame)
{
    m_server.on("/", Reply::silence());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 0);
    stream.fcntl(MDCH_FCNTL_DLNA_MODE, 1);
    start(stream);
    EXPECT_EQ(stream.capability(), 5U) << "what a DLNA request counts as before its response";
    EXPECT_EQ(stream.isSeekable(), 1);
}

TEST_F(Length, tellDoesNotWaitForTheHeader)
{
    m_server.on("/", Reply::silence());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 1000);
    stream.open(m_server.url("/").c_str(), nullptr, 0, 77);
    EXPECT_EQ(stream.tell(), 77);
}

// --- Closed, and gone ---

TEST_F(Length, everyPositionOperationOfAClosedStreamGivesMinus22)
{
    HttpStream stream;
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(stream.seek(0, 0), -22);
    EXPECT_EQ(stream.seekTime(0), -22);
    EXPECT_EQ(stream.tell(), -22);
    EXPECT_EQ(stream.size(), -22);
    EXPECT_EQ(static_cast<int>(stream.capability()), -22);
}

TEST_F(Length, seekAndTellOfATransferThatIsGoneGiveZero)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    start(stream);
    EXPECT_EQ(stream.readSome(100).size(), 100U);
    HttpAccess::shutdown();
    EXPECT_EQ(stream.seek(50, 0), 0);
    EXPECT_EQ(stream.tell(), 0);
    EXPECT_EQ(stream.readSome(10), "");
}

TEST_F(Length, aStreamThatWasNeverOpenedCannotBeSought)
{
    HttpStream stream;
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(0, 0), -11);
    EXPECT_EQ(stream.seekTime(0), -11);
    EXPECT_EQ(stream.size(), -11);
    EXPECT_EQ(trace.count("waitForHeader(): no url specified on fd 100\n"), 3U);
    EXPECT_EQ(stream.tell(), 0);
}

} // namespace
