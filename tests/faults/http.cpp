// HTTP streams, plain and over TLS.
#include "http_stream.h"
#include "support/certificates.h"
#include "support/http_server.h"
#include "support/temp_dir.h"

#include <atomic>
#include <cstdio>
#include <gtest/gtest.h>

namespace {

using faults::EachCall;
using faults::Kind;
using faults::Outcome;
using support::HttpServer;
using support::Media;
using support::Reply;

const Media kMedia(11);
constexpr long long kSize = 400'000;
constexpr std::uint64_t kBytesPerSecond = 40'000;

// So many times fewer calls fail where each takes so much longer: everywhere, and over TLS.
#if defined(MDC_SANITIZED_THREAD)
constexpr long kSlow = 37;
constexpr long kSlowTls = 37;
#elif defined(MDC_SANITIZED_ADDRESS)
constexpr long kSlow = 1;
constexpr long kSlowTls = 3;
#else
constexpr long kSlow = 1;
constexpr long kSlowTls = 1;
#endif

class HttpFaults : public testing::Test
{
protected:
    explicit HttpFaults(support::Tls tls) : m_server(std::move(tls)) { script(); }
    HttpFaults() { script(); }

    // A player's visit.
    Outcome visit()
    {
        m_isComplete = true;
        faults::StreamWalk walk(kMedia, kSize);
        mdch_UrlExtended_struct options = m_options;
        options.userAgent = "player/1.0";
        options.cookie = "session=a-cookie-that-is-no-small-text";
        options.flags = MDCH_URL_ICY_METADATA | MDCH_URL_DLNA_STREAMING;
        walk.open(m_server.url("/film"), options);
        walk.read(10'000);
        walk.seek(5'000, SEEK_CUR);
        walk.read(1'000);
        walk.pauseAndResume();
        walk.read(1'000);
        walk.seek(300'000, SEEK_SET);
        walk.read(1'000);
        walk.seekTime(2'500, 2'500 * static_cast<long long>(kBytesPerSecond) / 1'000);
        walk.read(1'000);
        walk.readToEnd();
        walk.close();
        if (walk.outcome().isRight() && !m_isComplete) {
            return Outcome::wrong("a request lacked what was set");
        }
        return walk.outcome();
    }

    void check(Kind kind, const EachCall& how)
    {
        faults::eachCallFails(
            kind, [this] { return visit(); }, how);
    }

    HttpServer m_server;
    mdch_UrlExtended_struct m_options{};

private:
    void script()
    {
        m_server.on("/film", [this](const support::Request& request) {
            if (request.header("User-Agent") != "player/1.0" || !request.hasHeader("icy-metadata") ||
                request.header("transferMode.dlna.org") != "Streaming" ||
                request.header("Cookie").find("session=a-cookie") == std::string::npos) {
                m_isComplete = false;
            }
            return Reply::timeSeekResource(kMedia, kSize, kBytesPerSecond)
                .contentFeatures("DLNA.ORG_OP=11")
                .cookie("place=here");
        });
    }

    std::atomic<bool> m_isComplete{true};
};

TEST_F(HttpFaults, memory)
{
    check(Kind::kMemory, {kSlow, false, 50});
}

TEST_F(HttpFaults, memoryThatDoesNotComeBack)
{
    check(Kind::kMemory, {3 * kSlow, true, 50});
}

TEST_F(HttpFaults, memoryOfLibcurl)
{
    check(Kind::kCurlMemory, {2 * kSlow, false, 50});
}

TEST_F(HttpFaults, descriptors)
{
    check(Kind::kDescriptor, {1, false, 4});
}

TEST_F(HttpFaults, networkCalls)
{
    check(Kind::kNetwork, {kSlow, false, 5});
}

TEST_F(HttpFaults, threads)
{
    check(Kind::kThread, {1, false, 1});
}

TEST_F(HttpFaults, functionsOfLibcurl)
{
    check(Kind::kCurl, {kSlow, false, 50});
}

class HttpsFaults : public HttpFaults
{
protected:
    HttpsFaults()
        : HttpFaults(support::Tls(support::certificates().leaf)
                         .requireClientSignedBy(support::certificates().ca.certificate))
    {
        m_options.caCertPath = support::certificates().caDirectory.c_str();
        m_options.clientCert = support::certificates().clientFiles.encryptedPem.c_str();
        m_options.certPasswd = support::certificates().clientFiles.password.c_str();
    }

    void checkDistrust(Kind kind, const EachCall& how)
    {
        m_options.caCertPath = m_strangers.path().c_str();
        check(kind, how);
    }

    support::TempDir m_strangers; // certificates that the server's does not descend from
};

TEST_F(HttpsFaults, memory)
{
    check(Kind::kMemory, {kSlowTls, false, 50});
}

TEST_F(HttpsFaults, memoryOfLibcurl)
{
    check(Kind::kCurlMemory, {5 * kSlowTls, false, 50});
}

TEST_F(HttpsFaults, functionsOfLibcurl)
{
    check(Kind::kCurl, {2 * kSlowTls, false, 50});
}

TEST_F(HttpsFaults, functionsOfOpenssl)
{
    check(Kind::kSsl, {1, false, 4});
}

TEST_F(HttpsFaults, memoryOfOpenssl)
{
    check(Kind::kSslMemory, {1499 * kSlowTls, false, 1000});
}

TEST_F(HttpsFaults, descriptors)
{
    check(Kind::kDescriptor, {1, false, 5});
}

TEST_F(HttpsFaults, factsOfFiles)
{
    check(Kind::kFileFacts, {1, false, 3});
}

TEST_F(HttpsFaults, nothingMakesAStrangerTrusted)
{
    for (const Kind kind : {Kind::kSsl, Kind::kFileFacts, Kind::kDescriptor}) {
        checkDistrust(kind, {1, false, 1, true});
    }
    checkDistrust(Kind::kCurl, {2 * kSlowTls, false, 1, true});
    checkDistrust(Kind::kSslMemory, {499 * kSlowTls, false, 1, true});
}

} // namespace
