// TLS connections, failed handshakes, ciphers and client certificates.
#include "support/certificates.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <array>
#include <fstream>
#include <functional>
#include <memory>
#include <openssl/ssl.h>
#include <sstream>
#include <unistd.h>

using support::certificates;
using support::ConnectionInfo;
using support::HttpServer;
using support::HttpStream;
using support::Media;
using support::Reply;
using support::Request;
using support::Tls;
using support::TraceCapture;

namespace {

const Media kMedia(11);
constexpr std::uint64_t kSize = 400000;

std::unique_ptr<HttpServer> serve(const Tls& tls)
{
    auto server = std::make_unique<HttpServer>(tls);
    server->otherwise([](const Request&) { return Reply::resource(kMedia, kSize); });
    return server;
}

void trustCa(HttpStream& stream)
{
    EXPECT_EQ(stream.setCertificate(certificates().ca.certificate.get()), 0);
}

void trustDirectory(HttpStream& stream)
{
    stream.setCaCertPath(certificates().caDirectory);
}

// Reads at the start and at a far position, which takes a second request.
void readAtTwoPlaces(HttpStream& stream, const std::string& url)
{
    stream.start(url);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(0, 10));
    EXPECT_EQ(stream.seek(350000, SEEK_SET), 0);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(350000, 10));
}

using HttpTlsConnections = support::HttpClientTest;

class HttpTlsClient : public support::HttpClientTest
{
protected:
    HttpTlsClient() : server(serve(Tls().requireClientSignedBy(certificates().ca.certificate))) {}

    bool fetchWith(HttpStream& stream, const std::string& file, const std::string& password = "")
    {
        trustCa(stream);
        stream.setClientCert(file);
        stream.setCertPasswd(password);
        return kMedia.matches(0, stream.fetch(server->url("/"))) && stream.facts().startPos == kSize;
    }

    std::string subject() const
    {
        for (const ConnectionInfo& info : server->connections()) {
            if (info.established) {
                return info.clientSubject;
            }
        }
        return "none";
    }

    TraceCapture traces;
    std::unique_ptr<HttpServer> server;
};

} // namespace

// --- Connections and sessions ---

TEST_F(HttpTlsConnections, OwnTrustMeansAFreshConnectionWithoutResumptionForEveryRequest)
{
    for (const auto& trust : {trustCa, trustDirectory}) {
        for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
            const auto server = serve(Tls(certificates().rsaLeaf()).versions(version, version));
            for (int round = 0; round < 2; ++round) {
                HttpStream stream;
                trust(stream);
                readAtTwoPlaces(stream, server->url("/"));
            }
            const std::vector<ConnectionInfo> connections = server->connections();
            EXPECT_EQ(connections.size(), 4U);
            for (const ConnectionInfo& info : connections) {
                EXPECT_TRUE(info.established);
                EXPECT_EQ(info.requests, 1U);
                EXPECT_FALSE(info.resumed) << info.version;
            }
        }
    }
}

TEST_F(HttpTlsConnections, AnotherListIsNotServedByAVerifiedConnection)
{
    const auto server = serve(Tls());
    HttpStream good;
    trustCa(good);
    EXPECT_EQ(good.fetch(server->url("/")).size(), kSize);
    HttpStream otherList;
    otherList.setCertificate(certificates().unrelatedCa.certificate.get());
    EXPECT_EQ(otherList.fetch(server->url("/")), "");
    EXPECT_EQ(otherList.error(), MDCH_HTTP_ECERT);
    HttpStream otherDirectory;
    otherDirectory.setCaCertPath(certificates().unrelatedDirectory);
    EXPECT_EQ(otherDirectory.fetch(server->url("/")), "");
    EXPECT_EQ(otherDirectory.error(), MDCH_HTTP_ECERT);
    EXPECT_EQ(server->requests().size(), 1U);
}

TEST_F(HttpTlsConnections, AnUnverifiedConnectionServesNobodyWhoVerifies)
{
    const auto server = serve(Tls());
    HttpStream careless;
    careless.setVerifyHost(false);
    EXPECT_EQ(careless.fetch(server->url("/")).size(), kSize);
    HttpStream list;
    list.setCertificate(certificates().unrelatedCa.certificate.get());
    EXPECT_EQ(list.fetch(server->url("/")), "");
    EXPECT_EQ(list.error(), MDCH_HTTP_ECERT);
    HttpStream directory;
    directory.setCaCertPath(certificates().unrelatedDirectory);
    EXPECT_EQ(directory.fetch(server->url("/")), "");
    EXPECT_EQ(directory.error(), MDCH_HTTP_ECERT);
    HttpStream system;
    EXPECT_EQ(system.fetch(server->url("/")), "");
    EXPECT_EQ(system.error(), MDCH_HTTP_ECERT);
    EXPECT_EQ(server->requests().size(), 1U);
}

TEST_F(HttpTlsConnections, AConnectionOfAnOwnListServesNobodyElse)
{
    const auto server = serve(Tls());
    for (const auto& trust : {trustCa, trustDirectory}) {
        HttpStream own;
        trust(own);
        EXPECT_EQ(own.fetch(server->url("/")).size(), kSize);
        HttpStream system;
        EXPECT_EQ(system.fetch(server->url("/")), "");
        EXPECT_EQ(system.error(), MDCH_HTTP_ECERT);
    }
    EXPECT_EQ(server->requests().size(), 2U);
}

TEST_F(HttpTlsConnections, SeekIsVerifiedAgain)
{
    const TraceCapture traces;
    const auto server = serve(Tls());
    HttpStream stream;
    trustCa(stream);
    readAtTwoPlaces(stream, server->url("/"));
    EXPECT_EQ(traces.count("mdchHttpSsl_verifyCertificateCallback(): verify certificate for fd " +
                           stream.fd() + "\n"),
              2U);
}

// --- Handshakes that fail ---

TEST_F(HttpTlsConnections, FailedHandshakeIsATlsError)
{
    const TraceCapture traces;
    for (const Tls::Handshake handshake : {Tls::Handshake::CloseAfterHello, Tls::Handshake::Garbage}) {
        const auto server = serve(Tls().handshake(handshake));
        HttpStream stream;
        trustCa(stream);
        EXPECT_EQ(stream.fetch(server->url("/")), "");
        EXPECT_EQ(stream.error(), MDCH_HTTP_ESSL);
        EXPECT_TRUE(traces.waitFor("mdchHttpCurl_fillBuffer(): received error on fd " + stream.fd() +
                                   " (35=>151)\n"));
    }
}

TEST_F(HttpTlsConnections, StalledHandshakeEndsWithAClose)
{
    const auto server = serve(Tls().handshake(Tls::Handshake::Stall));
    HttpStream stream;
    trustCa(stream);
    stream.start(server->url("/"));
    ASSERT_TRUE(server->waitForConnections(1));
    EXPECT_EQ(stream.close(), 0);
    EXPECT_TRUE(server->waitForOpenConnections(0));
}

// --- Ciphers and versions ---

TEST_F(HttpTlsConnections, CipherListIsTheFixedOneInEveryVerificationWay)
{
    // It names no cipher for EC certificates below TLS 1.3, which has ciphers of its own.
    const auto elliptic = serve(Tls().versions(TLS1_2_VERSION, TLS1_2_VERSION));
    const auto rsa = serve(Tls(certificates().rsaLeaf()).versions(TLS1_2_VERSION, TLS1_2_VERSION));
    const auto unverified = [](HttpStream& stream) { stream.setVerifyHost(false); };
    for (const auto& prepare :
         {std::function<void(HttpStream&)>(trustCa), std::function<void(HttpStream&)>(trustDirectory),
          std::function<void(HttpStream&)>(unverified)}) {
        HttpStream refused;
        prepare(refused);
        EXPECT_EQ(refused.fetch(elliptic->url("/")), "");
        EXPECT_EQ(refused.error(), MDCH_HTTP_ESSL);
        HttpStream served;
        prepare(served);
        EXPECT_EQ(served.fetch(rsa->url("/")).size(), kSize);
    }
    for (const ConnectionInfo& info : rsa->connections()) {
        EXPECT_EQ(info.cipher, "ECDHE-RSA-AES256-GCM-SHA384");
        EXPECT_EQ(info.version, "TLSv1.2");
    }
}

TEST_F(HttpTlsConnections, NewestVersionIsSpoken)
{
    const auto server = serve(Tls());
    HttpStream stream;
    trustCa(stream);
    EXPECT_EQ(stream.fetch(server->url("/")).size(), kSize);
    EXPECT_EQ(server->connections().at(0).version, "TLSv1.3");
}

// --- Client certificates ---

TEST_F(HttpTlsClient, PemFileWithItsKey)
{
    HttpStream stream;
    EXPECT_TRUE(fetchWith(stream, certificates().clientFiles.pem));
    EXPECT_NE(subject().find("test client"), std::string::npos) << subject();
    const std::string text =
        "mdchHttpCurl_initDescriptor(): set client certificate for fd " + stream.fd() + "\n";
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 5000U);
    EXPECT_FALSE(traces.hasAnywhere("certificate type is P12"));
    EXPECT_FALSE(traces.hasAnywhere("setting ssl key passswd"));
}

TEST_F(HttpTlsClient, PemFileWithAnEncryptedKey)
{
    HttpStream stream;
    EXPECT_TRUE(
        fetchWith(stream, certificates().clientFiles.encryptedPem, certificates().clientFiles.password));
    EXPECT_NE(subject().find("test client"), std::string::npos) << subject();
    EXPECT_EQ(traces.count("mdchHttpCurl_initDescriptor(): setting ssl key passswd\n"), 1U);
    EXPECT_FALSE(traces.hasAnywhere(certificates().clientFiles.password));
}

TEST_F(HttpTlsClient, Pkcs12FileWithAPassPhrase)
{
    HttpStream stream;
    EXPECT_TRUE(fetchWith(stream, certificates().clientFiles.p12, certificates().clientFiles.password));
    EXPECT_NE(subject().find("test client"), std::string::npos) << subject();
    EXPECT_EQ(
        traces.count("mdchHttpCurl_initDescriptor(): certificate type is P12 for fd " + stream.fd() + "\n"),
        1U);
}

TEST_F(HttpTlsClient, Pkcs12FileWithAnEmptyPassPhrase)
{
    HttpStream stream;
    EXPECT_TRUE(fetchWith(stream, certificates().clientFiles.plainP12));
}

TEST_F(HttpTlsClient, Pkcs12IsRecognisedAnywhereInThePathWithoutRegardToCase)
{
    std::ifstream file(certificates().clientFiles.p12, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    const support::TempDir folder;
    const std::string path = folder.write("mine.P12.old", content.str());
    HttpStream stream;
    EXPECT_TRUE(fetchWith(stream, path, certificates().clientFiles.password));
    EXPECT_TRUE(traces.hasAnywhere("certificate type is P12"));
}

TEST_F(HttpTlsClient, MissingOrWrongFilesEndTheTransfer)
{
    for (const std::string& file : {std::string("/nowhere/client.pem"), certificates().ca.pem,
                                    certificates().clientFiles.p12 + ".missing"}) {
        HttpStream stream;
        EXPECT_FALSE(fetchWith(stream, file));
        EXPECT_EQ(stream.error(), MDCH_HTTP_EUNKNOWN) << file;
    }
    EXPECT_TRUE(server->requests().empty());
}

TEST_F(HttpTlsClient, ServerThatWantsACertificateRefusesWithoutOne)
{
    server = serve(Tls(certificates().rsaLeaf())
                       .requireClientSignedBy(certificates().ca.certificate)
                       .versions(TLS1_2_VERSION, TLS1_2_VERSION));
    HttpStream none;
    trustCa(none);
    EXPECT_EQ(none.fetch(server->url("/")), "");
    EXPECT_EQ(none.error(), MDCH_HTTP_ESSL);
    EXPECT_TRUE(server->requests().empty());
}

TEST_F(HttpTlsClient, RefusalOfTheNewestVersionComesBehindTheHandshake)
{
    HttpStream none;
    trustCa(none);
    EXPECT_EQ(none.fetch(server->url("/")), "");
    EXPECT_EQ(none.error(), MDCH_HTTP_ENETWORK);
    EXPECT_TRUE(server->requests().empty());
}

TEST_F(HttpTlsClient, CertificateIsShownInEveryVerificationWay)
{
    const auto unverified = [](HttpStream& stream) { stream.setVerifyHost(false); };
    for (const auto& prepare :
         {std::function<void(HttpStream&)>(trustDirectory), std::function<void(HttpStream&)>(unverified)}) {
        HttpStream stream;
        prepare(stream);
        stream.setClientCert(certificates().clientFiles.pem);
        EXPECT_EQ(stream.fetch(server->url("/")).size(), kSize);
    }
    EXPECT_EQ(server->requests().size(), 2U);
}

TEST_F(HttpTlsClient, EncryptedKeyWithoutPassPhraseFailsWithoutAsking)
{
    // Whoever asked would read from here, where nobody ever writes.
    std::array<int, 2> silence{};
    ASSERT_EQ(pipe(silence.data()), 0);
    const int formerInput = dup(STDIN_FILENO);
    ASSERT_GE(dup2(silence[0], STDIN_FILENO), 0);
    const std::string none;
    for (const std::string& file :
         {certificates().clientFiles.encryptedPem, certificates().clientFiles.p12}) {
        for (const std::string& password : {none, std::string("wrong")}) {
            HttpStream stream;
            EXPECT_FALSE(fetchWith(stream, file, password));
            EXPECT_TRUE(stream.waitDone());
            EXPECT_EQ(stream.error(), MDCH_HTTP_EUNKNOWN);
        }
    }
    EXPECT_TRUE(server->requests().empty());
    dup2(formerInput, STDIN_FILENO);
    close(formerInput);
    close(silence[0]);
    close(silence[1]);
}
