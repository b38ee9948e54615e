// What the opening sequence sets on an HTTP stream, as the server sees it.
#include "mdc_hlp_url_base.h"

#include "mdc_hlp_http_access.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <algorithm>
#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using support::HttpServer;
using support::Reply;
using support::Request;

constexpr int kFirstNumber = 100;

class OpenHttp : public testing::Test
{
protected:
    OpenHttp() { server.on("/song", Reply::resource("0123456789")); }

    int open(mdch_UrlExtended_struct* record) { return openUrl(server.url("/song"), record); }
    int openUrl(const std::string& url, mdch_UrlExtended_struct* record)
    {
        return mdch_OpenUrl(url.c_str(), 0, record, stream);
    }
    // Opens with these flags and returns the one request that it made.
    Request requestWith(int flags)
    {
        ext.flags = flags;
        EXPECT_EQ(open(&ext), 0);
        EXPECT_TRUE(server.waitForRequests(1));
        EXPECT_EQ(server.requests().size(), 1U);
        return server.requests().at(0);
    }
    template <class Field>
    static auto descriptor(Field field)
    {
        return support::inspect(kFirstNumber, field);
    }

    HttpServer server;
    support::EngineStopped engineStopped; // so that the stream's number is the first
    mdch_UrlExtended_struct ext{};
    boost::shared_ptr<MdchUrlBase> stream;
};

using Desc = const md::MdchCurlDescriptor_struct&;

// Index of exactly this header line, or -1.
std::ptrdiff_t indexOf(const Request& request, const std::string& line)
{
    const auto found = std::find(request.lines.begin(), request.lines.end(), line);
    return found == request.lines.end() ? -1 : found - request.lines.begin();
}

void expectNoSettings(const Request& request)
{
    EXPECT_EQ(request.method, "GET");
    for (const char* name : {"User-Agent", "icy-metadata", "Cookie", "Range", "getcontentFeatures.dlna.org",
                             "transferMode.dlna.org"}) {
        EXPECT_FALSE(request.hasHeader(name)) << name;
    }
}

} // namespace

TEST_F(OpenHttp, anEmptyRecordSetsTheTimeoutsAlone)
{
    expectNoSettings(requestWith(0));
    EXPECT_EQ(descriptor([](Desc desc) { return desc.headerTimeout; }), 40);
    EXPECT_EQ(descriptor([](Desc desc) { return desc.dataTimeout; }), 30);
    EXPECT_EQ(descriptor([](Desc desc) { return desc.receiveBufferSize; }), 196608);
    EXPECT_FALSE(descriptor([](Desc desc) { return desc.forceRange; }));
    EXPECT_FALSE(descriptor([](Desc desc) { return desc.pauseBuffering; }));
    EXPECT_EQ(descriptor([](Desc desc) { return desc.dlnaTransferMode; }), 0);
    EXPECT_NE(dynamic_cast<md::HttpAccess*>(stream.get()), nullptr);
    EXPECT_EQ(support::readAll(*stream), "0123456789");
}

TEST_F(OpenHttp, withoutARecordNothingIsSetAndNoHeaderIsScanned)
{
    server.on("/radio", Reply().header("icy-metaint:16000").body("x"));
    const support::TraceCapture traces;
    EXPECT_EQ(openUrl(server.url("/radio"), nullptr), 0);
    expectNoSettings(server.requests().at(0));
    EXPECT_EQ(descriptor([](Desc desc) { return desc.headerTimeout; }), 7);
    EXPECT_EQ(descriptor([](Desc desc) { return desc.dataTimeout; }), 330);
    EXPECT_FALSE(traces.hasAnywhere("parse header lines"));
    EXPECT_FALSE(traces.hasAnywhere("found icy-metaint"));
}

TEST_F(OpenHttp, userAgentIsSent)
{
    ext.userAgent = "Player/1.0 (test)";
    EXPECT_EQ(requestWith(0).header("User-Agent"), "Player/1.0 (test)");
}

TEST_F(OpenHttp, cookieIsSent)
{
    ext.cookie = "session=abc; theme=dark";
    EXPECT_EQ(requestWith(0).headerValues("Cookie"), std::vector<std::string>{"session=abc; theme=dark"});
}

TEST_F(OpenHttp, emptyTextsSetNothing)
{
    ext.userAgent = "";
    ext.cookie = "";
    ext.caCertPath = "";
    ext.clientCert = "";
    ext.certPasswd = "";
    expectNoSettings(requestWith(0));
}

TEST_F(OpenHttp, flag1AsksForRadioTitles)
{
    const Request request = requestWith(1);
    EXPECT_GE(indexOf(request, "icy-metadata:1"), 0) << "the line goes out as it is";
    EXPECT_EQ(request.countHeader("icy-metadata"), 1U);
    EXPECT_FALSE(request.hasHeader("Range"));
}

TEST_F(OpenHttp, flag2AsksForARangeFromTheFirstByte)
{
    const Request request = requestWith(2);
    EXPECT_GE(indexOf(request, "Range: bytes=0-"), 0);
    EXPECT_TRUE(descriptor([](Desc desc) { return desc.forceRange; }));
    EXPECT_EQ(support::readAll(*stream), "0123456789");
}

TEST_F(OpenHttp, flag4KeepsReceivingDuringAPause)
{
    expectNoSettings(requestWith(4));
    EXPECT_TRUE(descriptor([](Desc desc) { return desc.pauseBuffering; }));
}

TEST_F(OpenHttp, flag8ChangesNothingForOtherSchemes)
{
    expectNoSettings(requestWith(8));
}

TEST_F(OpenHttp, deliveryModeField)
{
    const std::vector<std::string> modes{"Streaming", "Interactive", "Background"};
    for (int mode = 1; mode <= 3; ++mode) {
        const std::string& name = modes.at(static_cast<std::size_t>(mode - 1));
        stream.reset();
        ext.flags = mode * 16;
        ASSERT_EQ(open(&ext), 0);
        const Request request = server.requests().back();
        const auto features = indexOf(request, "getcontentFeatures.dlna.org: 1");
        EXPECT_GE(features, 0) << name;
        EXPECT_EQ(indexOf(request, "transferMode.dlna.org: " + name), features + 1);
        EXPECT_EQ(request.countHeader("transferMode.dlna.org"), 1U);
        EXPECT_EQ(support::inspect(kFirstNumber + mode - 1, [](Desc desc) { return desc.dlnaTransferMode; }),
                  mode);
    }
}

TEST_F(OpenHttp, deliveryModeLinesStandBehindTheRadioLine)
{
    const Request request = requestWith(1 | 32);
    const auto icy = indexOf(request, "icy-metadata:1");
    ASSERT_GE(icy, 0);
    EXPECT_EQ(indexOf(request, "getcontentFeatures.dlna.org: 1"), icy + 1);
    EXPECT_EQ(indexOf(request, "transferMode.dlna.org: Interactive"), icy + 2);
}

TEST_F(OpenHttp, aDeliveryModeAsksForNoRangeInSpiteOfFlag2)
{
    EXPECT_FALSE(requestWith(2 | 16).hasHeader("Range"));
}

TEST_F(OpenHttp, everythingTogether)
{
    ext.userAgent = "Player/2";
    ext.cookie = "a=b";
    ext.bufferSize = 98304;
    const Request request = requestWith(1 | 2 | 4 | 8 | 48);
    EXPECT_EQ(request.header("User-Agent"), "Player/2");
    EXPECT_EQ(request.header("Cookie"), "a=b");
    EXPECT_GE(indexOf(request, "icy-metadata:1"), 0);
    EXPECT_GE(indexOf(request, "transferMode.dlna.org: Background"), 0);
    EXPECT_TRUE(descriptor([](Desc desc) { return desc.forceRange && desc.pauseBuffering; }));
    EXPECT_EQ(descriptor([](Desc desc) { return desc.receiveBufferSize; }), 98304);
    EXPECT_EQ(descriptor([](Desc desc) { return desc.userAgent; }), "Player/2");
}

TEST_F(OpenHttp, bitsWithoutMeaningChangeNothing)
{
    expectNoSettings(requestWith(0x7fffff00 | 0x80 | 0x40));
    EXPECT_FALSE(descriptor([](Desc desc) { return desc.forceRange || desc.pauseBuffering; }));
}

TEST_F(OpenHttp, bitsWithoutMeaningDoNotDisturbTheDeliveryMode)
{
    EXPECT_EQ(requestWith(0x7fffff00 | 0x80 | 0x40 | 32).header("transferMode.dlna.org"), "Interactive");
    EXPECT_EQ(descriptor([](Desc desc) { return desc.dlnaTransferMode; }), 2);
}

TEST_F(OpenHttp, bufferSizeWithinItsLimitsIsTaken)
{
    int number = kFirstNumber;
    for (const int size : {98304, 98305, 1000000, 3211264}) {
        ext.bufferSize = size;
        ASSERT_EQ(open(&ext), 0) << size;
        EXPECT_EQ(support::inspect(number++, [](Desc desc) { return desc.receiveBufferSize; }), size);
    }
}

TEST_F(OpenHttp, bufferSizeBeyondItsLimitsIsReportedAndTheOpenGoesOn)
{
    int number = kFirstNumber;
    for (const int size : {1, 98303, 3211265, -1, INT32_MIN}) {
        const support::TraceCapture traces;
        ext.bufferSize = size;
        EXPECT_EQ(open(&ext), 0) << size;
        EXPECT_EQ(support::inspect(number++, [](Desc desc) { return desc.receiveBufferSize; }), 196608);
        EXPECT_TRUE(traces.has("setBufsize(): invalid buffer size " + std::to_string(size) +
                               " [98304..3211264]. \n"));
    }
}

TEST_F(OpenHttp, certificateSettingsReachTheTransferAndNothingElse)
{
    ext.caCertPath = "/trusted";
    ext.clientCert = "/client.p12";
    ext.certPasswd = "secret";
    expectNoSettings(requestWith(0));
    EXPECT_EQ(descriptor([](Desc desc) { return desc.caPath; }), "/trusted");
    EXPECT_EQ(descriptor([](Desc desc) { return desc.clientCertificate; }), "/client.p12");
    EXPECT_EQ(descriptor([](Desc desc) { return desc.keyPassword; }), "secret");
}

TEST_F(OpenHttp, schemeInUpperCaseIsFetchedAsWell)
{
    std::string url = server.url("/song");
    std::transform(url.begin(), url.begin() + 4, url.begin(),
                   [](char c) { return static_cast<char>(c - 32); });
    ASSERT_EQ(url.substr(0, 7), "HTTP://");
    EXPECT_EQ(openUrl(url, &ext), 0);
    EXPECT_EQ(support::readAll(*stream), "0123456789");
}

namespace {

class OpenHttps : public testing::Test
{
protected:
    OpenHttps() : server(support::Tls().requireClientSignedBy(support::certificates().ca.certificate))
    {
        server.on("/song", Reply::resource("0123456789"));
    }

    int open() { return mdch_OpenUrl(server.url("/song").c_str(), 0, &ext, stream); }

    HttpServer server;
    support::EngineStopped engineStopped;
    mdch_UrlExtended_struct ext{};
    boost::shared_ptr<MdchUrlBase> stream;
};

} // namespace

TEST_F(OpenHttps, trustedFolderClientCertificateAndPassPhraseAreUsed)
{
    const auto& files = support::certificates().clientFiles;
    ext.caCertPath = support::certificates().caDirectory.c_str();
    ext.certPasswd = files.password.c_str();
    for (const std::string* certificate : {&files.encryptedPem, &files.p12}) {
        ext.clientCert = certificate->c_str();
        EXPECT_EQ(open(), 0) << *certificate;
        EXPECT_EQ(support::readAll(*stream), "0123456789");
        EXPECT_EQ(server.connections().back().clientSubject, "CN = test client");
    }
}

TEST_F(OpenHttps, aServerThatTheFolderDoesNotTrustIsRefused)
{
    const auto& files = support::certificates().clientFiles;
    ext.caCertPath = support::certificates().unrelatedDirectory.c_str();
    ext.clientCert = files.pem.c_str();
    EXPECT_EQ(open(), 150);
    EXPECT_EQ(ext.error, 150);
    EXPECT_NE(stream, nullptr);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(OpenHttps, withoutAFolderTheSystemsTrustCounts)
{
    EXPECT_EQ(open(), 150);
    EXPECT_EQ(ext.error, 150);
}
