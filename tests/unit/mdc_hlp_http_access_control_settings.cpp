// md::HttpAccess: request settings, response queries, pause and resume, open with a body.

#include "support/certificates.h"
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
using support::Request;
using support::TraceCapture;
using support::waitForDescriptor;

const Media kMedia(29);

class Settings : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    Request last() const { return m_server.requests().back(); }

    template <class Function>
    static auto field(Function function)
    {
        return inspect(100, function);
    }
};

// --- User agent ---

TEST_F(Settings, theUserAgentGoesToThisAndEveryLaterDescriptor)
{
    m_server.on("/", Reply().body("x"));
    HttpStream stream("First/1");
    EXPECT_EQ(field([](auto& desc) { return desc.userAgent; }), "First/1");
    stream.setUserAgent("Second/2");
    EXPECT_EQ(field([](auto& desc) { return desc.userAgent; }), "Second/2");
    stream.fetch(m_server.url("/"));
    EXPECT_EQ(last().header("User-Agent"), "Second/2");
    stream.close();
    stream.setUserAgent("Third/3"); // while closed
    stream.fetch(m_server.url("/"));
    EXPECT_EQ(last().header("User-Agent"), "Third/3");
    stream.setUserAgent("");
    stream.fetch(m_server.url("/"));
    EXPECT_FALSE(last().hasHeader("User-Agent"));
}

// --- Cookies ---

TEST_F(Settings, cookiesAreJoinedWithASemicolonAndNoBlank)
{
    m_server.on("/", Reply().body("x"));
    HttpStream stream;
    EXPECT_EQ(stream.getCookies(), "");
    stream.setCookie("");
    EXPECT_EQ(stream.getCookies(), "");
    stream.setCookie("a=1");
    stream.setCookie("");
    stream.setCookie("b=2");
    EXPECT_EQ(stream.getCookies(), "a=1;b=2");
    EXPECT_EQ(field([](auto& desc) { return desc.cookies; }), "a=1;b=2");
    stream.fetch(m_server.url("/"));
    EXPECT_EQ(last().header("Cookie"), "a=1;b=2");
}

TEST_F(Settings, cookiesOfAResponseAreReadBackAfterItsHeader)
{
    m_server.on("/", Reply().header("Set-Cookie: session=42; Path=/").body("x"));
    HttpStream stream;
    stream.fetch(m_server.url("/"));
    EXPECT_NE(stream.getCookies().find("\tsession\t42"), std::string::npos) << stream.getCookies();
}

TEST_F(Settings, cookiesSetAfterAResponseGoOutWithTheNextOpen)
{
    m_server.on("/", Reply().body("x"));
    HttpStream stream;
    stream.setCookie("a=1");
    stream.fetch(m_server.url("/"));
    stream.setCookie("b=2");
    stream.fetch(m_server.url("/"));
    EXPECT_EQ(last().header("Cookie"), "a=1;b=2");
}

TEST_F(Settings, cookiesOfAClosedOrGoneStreamAreEmpty)
{
    HttpStream closed;
    HttpStream gone;
    closed.setCookie("a=1");
    gone.setCookie("a=1");
    closed.close();
    EXPECT_EQ(closed.getCookies(), "");
    closed.setCookie("b=2");
    EXPECT_EQ(closed.getCookies(), "");
    HttpAccess::shutdown();
    EXPECT_EQ(gone.getCookies(), "");
    gone.setCookie("b=2");
    EXPECT_EQ(gone.getCookies(), "");
}

// --- Header lines ---

TEST_F(Settings, headerLinesGoOutInTheirOrder)
{
    m_server.on("/", Reply().body("x"));
    HttpStream stream;
    stream.setHeaderLine("X-B: 2");
    stream.setHeaderLine("X-A: 1");
    stream.setHeaderLine("X-B: 3");
    stream.fetch(m_server.url("/"));
    std::vector<std::string> own;
    for (const std::string& line : last().lines) {
        if (line.rfind("X-", 0) == 0) {
            own.push_back(line);
        }
    }
    EXPECT_EQ(own, (std::vector<std::string>{"X-B: 2", "X-A: 1", "X-B: 3"}));
}

TEST_F(Settings, aHeaderLineActsAtTheNextOpen)
{
    const Gate rest;
    m_server.on("/", Reply::resource(kMedia, 1000).wait(At::body(100), rest));
    HttpStream stream;
    stream.start(m_server.url("/"));
    EXPECT_EQ(stream.readSome(100).size(), 100U);
    stream.setHeaderLine("X-Late: 1");
    Gate(rest).open();
    EXPECT_EQ(stream.readAll().size(), 900U);
    EXPECT_FALSE(last().hasHeader("X-Late"));
    stream.fetch(m_server.url("/"));
    EXPECT_EQ(last().header("X-Late"), "1");
}

// --- TLS settings ---

TEST_F(Settings, tlsSettingsAreKept)
{
    HttpStream stream;
    stream.setCaCertPath("/etc/own certificates");
    stream.setVerifyHost(false);
    stream.setClientCert("client.p12");
    stream.setCertPasswd("secret");
    field([](auto& desc) {
        EXPECT_EQ(desc.caPath, "/etc/own certificates");
        EXPECT_FALSE(desc.verifyHost);
        EXPECT_EQ(desc.clientCertificate, "client.p12");
        EXPECT_EQ(desc.keyPassword, "secret");
        return 0;
    });
    stream.setVerifyHost(true);
    EXPECT_TRUE(field([](auto& desc) { return desc.verifyHost; }));
}

TEST_F(Settings, aCertificateIsAddedToTheTransfer)
{
    HttpStream stream;
    EXPECT_EQ(field([](auto& desc) { return desc.certificates; }), nullptr);
    EXPECT_EQ(stream.setCertificate(support::certificates().ca.certificate.get()), 0);
    EXPECT_NE(field([](auto& desc) { return desc.certificates; }), nullptr);
    stream.close();
    EXPECT_EQ(stream.setCertificate(support::certificates().ca.certificate.get()), -22);
}

TEST_F(Settings, ofAClosedOrGoneStreamAreIgnored)
{
    HttpStream closed;
    HttpStream gone;
    closed.close();
    HttpAccess::shutdown();
    for (HttpStream* stream : {&closed, &gone}) {
        stream->setHeaderLine("X-A: 1");
        stream->setCaCertPath("/etc");
        stream->setVerifyHost(false);
        stream->setClientCert("a");
        stream->setCertPasswd("b");
        stream->setUserAgent("Agent/1");
        stream->clearerr();
    }
    m_server.on("/", Reply().body("x"));
    EXPECT_EQ(closed.fetch(m_server.url("/")), "x");
    EXPECT_FALSE(last().hasHeader("X-A"));
    EXPECT_EQ(last().header("User-Agent"), "Agent/1") << "which the object itself keeps";
    EXPECT_TRUE(inspect(closed.number(), [](auto& desc) { return desc.verifyHost; }));
}

// --- Response queries ---

TEST_F(Settings, theHeaderListHoldsTheLinesOfTheLastResponse)
{
    m_server.on("/", Reply::redirect("/target").header("X-Redirect: 1"));
    m_server.on("/target", Reply().header("X-First: 1").header("X-Second: 2").body("x"));
    HttpStream stream;
    stream.start(m_server.url("/"));
    std::deque<std::string> lines = {"left over"};
    EXPECT_EQ(stream.getHeaderList(lines), 0);
    const std::deque<std::string> expected = {"HTTP/1.1 200 OK\r\n", "X-First: 1\r\n", "X-Second: 2\r\n",
                                              "Content-Length: 1\r\n"};
    EXPECT_EQ(lines, expected);
}

TEST_F(Settings, theResponseCodeIsThatOfTheLastResponse)
{
    m_server.on("/missing", Reply::error(404));
    m_server.on("/part", Reply::resource(kMedia, 1000));
    HttpStream stream;
    stream.start(m_server.url("/missing"));
    EXPECT_EQ(stream.getResponseCode(), 404);
    stream.open(m_server.url("/part").c_str(), nullptr, 0, 10);
    EXPECT_EQ(stream.getResponseCode(), 206);
}

TEST_F(Settings, queriesGiveTheHeaderWaitsResult)
{
    m_server.on("/", Reply::silence());
    HttpStream stream;
    std::deque<std::string> lines = {"kept"};
    EXPECT_EQ(stream.getResponseCode(), -11) << "never opened";
    EXPECT_EQ(stream.getHeaderList(lines), -11);
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 0);
    stream.start(m_server.url("/"));
    EXPECT_EQ(stream.getResponseCode(), -14);
    EXPECT_EQ(stream.getHeaderList(lines), -14);
    stream.fcntl(MDCH_FCNTL_NONBLOCKING);
    EXPECT_EQ(stream.getResponseCode(), -11);
    EXPECT_EQ(stream.getHeaderList(lines), -11);
    EXPECT_EQ(lines, std::deque<std::string>{"kept"});
}

TEST_F(Settings, queriesOfAClosedOrGoneStreamTellIt)
{
    HttpStream closed;
    HttpStream gone;
    std::deque<std::string> lines;
    closed.close();
    HttpAccess::shutdown();
    EXPECT_EQ(closed.getResponseCode(), -22);
    EXPECT_EQ(closed.getHeaderList(lines), -22);
    EXPECT_EQ(gone.getResponseCode(), -38);
    EXPECT_EQ(gone.getHeaderList(lines), 0);
    EXPECT_TRUE(lines.empty());
}

TEST_F(Settings, theResponseCodeIsMinusOneWhileNoneIsKnown)
{
    m_server.on("/", Reply::hangUp());
    HttpStream stream;
    stream.start(m_server.url("/"));
    ASSERT_TRUE(stream.waitDone());
    EXPECT_EQ(stream.getResponseCode(), -1);
}

// --- Pause and resume ---

TEST_F(Settings, pauseAndResumeGiveZeroAndKeepEveryByte)
{
    m_server.on("/", Reply::resource(kMedia, 1'000'000));
    HttpStream stream;
    stream.start(m_server.url("/"));
    EXPECT_EQ(stream.pause(), 0) << "after the header wait";
    EXPECT_TRUE(field([](auto& desc) { return desc.closedInPause; }));
    EXPECT_EQ(stream.resume(), 0);
    EXPECT_EQ(stream.resume(), 0) << "not paused: nothing to do";
    const std::string all = stream.readAll();
    EXPECT_EQ(all.size(), 1'000'000U);
    EXPECT_TRUE(kMedia.matches(0, all));
}

TEST_F(Settings, pauseAndResumeOfAClosedOrGoneStreamGiveMinus22)
{
    HttpStream closed;
    HttpStream gone;
    closed.close();
    EXPECT_EQ(closed.pause(), -22);
    EXPECT_EQ(closed.resume(), -22);
    HttpAccess::shutdown();
    const TraceCapture trace;
    EXPECT_EQ(gone.pause(), -22);
    EXPECT_EQ(gone.resume(), -22);
    EXPECT_TRUE(
        trace.has("mdchHttpCurl_pause(): requested seek without descriptor record or multi handle\n"));
    EXPECT_TRUE(
        trace.has("mdchHttpCurl_resume(): requested seek without descriptor record or multi handle\n"));
}

// --- Open with a body ---

TEST_F(Settings, openWithABodyPostsItAndOwnsACopy)
{
    m_server.on("/", Reply().body("answer"));
    HttpStream stream;
    const std::string body("a\0b", 3);
    EXPECT_EQ(stream.open(m_server.url("/").c_str(), body.data(), 3, 0), 100);
    field([&body](auto& desc) {
        EXPECT_NE(desc.postData, body.data());
        EXPECT_EQ(std::string(desc.postData, 3), body);
        EXPECT_EQ(desc.postDataSize, 3);
        return 0;
    });
    EXPECT_EQ(stream.readAll(), "answer");
    EXPECT_EQ(last().method, "POST");
    EXPECT_EQ(last().body, body);
}

TEST_F(Settings, openWithABodyAndAPositionAsksForARange)
{
    m_server.on("/", Reply::resource(kMedia, 1000));
    HttpStream stream;
    stream.start(m_server.url("/"), "question", 100);
    EXPECT_EQ(stream.tell(), 100);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(100, 900));
    EXPECT_EQ(last().header("Range"), "bytes=100-");
    EXPECT_EQ(last().body, "question");
    EXPECT_EQ(stream.size(), 1000);
}

TEST_F(Settings, openWithoutABodyIsAGet)
{
    m_server.on("/", Reply::resource(kMedia, 1000));
    HttpStream stream;
    stream.open(m_server.url("/").c_str(), nullptr, 0, 100);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(100, 900));
    EXPECT_EQ(last().method, "GET");
    EXPECT_EQ(last().header("Range"), "bytes=100-");
}

TEST_F(Settings, openWithABodyOnAClosedStreamGetsANewNumber)
{
    m_server.on("/", Reply().body("answer"));
    HttpStream stream;
    stream.close();
    EXPECT_EQ(stream.start(m_server.url("/"), "question", 0), 101);
    EXPECT_EQ(stream.readAll(), "answer");
}

} // namespace
