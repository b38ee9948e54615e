// The scripted server's TLS side and the certificates, seen by an OpenSSL client.
#include "support/http_server.h"
#include "support/sockets.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

using support::certificates;
using support::HttpServer;
using support::Identity;
using support::Reply;
using support::Tls;

namespace {

struct ClientOptions
{
    const support::Authority* trusted = nullptr; // none: nothing is verified
    std::string host; // checked against the certificate, sent as SNI if it is a name
    const Identity* identity = nullptr;
    int version = 0;
    std::string ciphers; // below TLS 1.3
    SSL_SESSION* session = nullptr;
};

// OpenSSL writes with write(), which raises SIGPIPE once the server has hung up. Blocked in the client's thread
// alone and later than the server's threads start, so that a signal raised by those would still end the test.
class BrokenPipeGuard
{
public:
    BrokenPipeGuard()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~BrokenPipeGuard()
    {
        const timespec atOnce{0, 0};
        sigtimedwait(&pipe_, nullptr, &atOnce);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

private:
    sigset_t pipe_{};
    sigset_t before_{};
};

class TlsClient
{
public:
    TlsClient(const HttpServer& server, const ClientOptions& options)
        : context_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free),
          socket_(support::connectLoopback(server.port()))
    {
        configure(options);
        ssl_.reset(SSL_new(context_.get()));
        SSL_set_fd(ssl_.get(), socket_.get());
        if (options.session != nullptr) {
            SSL_set_session(ssl_.get(), options.session);
        }
        if (options.host == "127.0.0.1") {
            X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), options.host.c_str());
        } else if (!options.host.empty()) {
            SSL_set1_host(ssl_.get(), options.host.c_str());
            // What SSL_set_tlsext_host_name does, without its C cast.
            std::string name = options.host;
            SSL_ctrl(ssl_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, name.data());
        }
        ERR_clear_error();
        connected_ = SSL_connect(ssl_.get()) == 1;
    }

    bool connected() const { return connected_; }
    long verifyResult() const { return SSL_get_verify_result(ssl_.get()); }

    void ask(const std::string& path)
    {
        const std::string request = "GET " + path + " HTTP/1.1\r\nConnection: close\r\n\r\n";
        SSL_write(ssl_.get(), request.data(), static_cast<int>(request.size()));
    }

    // The whole answer; what each read gives is the content of at most one record.
    std::string fetch(const std::string& path)
    {
        ask(path);
        std::string all;
        std::array<char, 20000> part{};
        for (int got = 0; (got = SSL_read(ssl_.get(), part.data(), part.size())) > 0;) {
            all.append(part.data(), static_cast<std::size_t>(got));
            largestRecord_ = std::max(largestRecord_, static_cast<std::size_t>(got));
        }
        cleanEnd_ = (SSL_get_shutdown(ssl_.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
        return all;
    }
    std::size_t largestRecord() const { return largestRecord_; }
    bool cleanEnd() const { return cleanEnd_; }

    std::shared_ptr<SSL_SESSION> session() const { return {SSL_get1_session(ssl_.get()), SSL_SESSION_free}; }

private:
    void configure(const ClientOptions& options)
    {
        if (options.trusted != nullptr) {
            X509_STORE_add_cert(SSL_CTX_get_cert_store(context_.get()), options.trusted->certificate.get());
            SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
        }
        if (options.identity != nullptr) {
            SSL_CTX_use_certificate(context_.get(), options.identity->certificate.get());
            SSL_CTX_use_PrivateKey(context_.get(), options.identity->key.get());
        }
        SSL_CTX_set_min_proto_version(context_.get(), options.version);
        SSL_CTX_set_max_proto_version(context_.get(), options.version);
        if (!options.ciphers.empty()) {
            SSL_CTX_set_cipher_list(context_.get(), options.ciphers.c_str());
        }
    }

    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
    support::UniqueFd socket_;
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, SSL_free};
    BrokenPipeGuard guard_;
    bool connected_ = false;
    std::size_t largestRecord_ = 0;
    bool cleanEnd_ = false;
};

ClientOptions trusting(const support::Authority& authority, const std::string& host = "127.0.0.1")
{
    ClientOptions options;
    options.trusted = &authority;
    options.host = host;
    return options;
}

// X509_V_OK, or why the server's certificate is refused by a client that trusts the CA.
long verdictOn(const Identity& identity, const support::Authority& trusted,
               const std::string& host = "127.0.0.1")
{
    const HttpServer server{Tls(identity)};
    const TlsClient client(server, trusting(trusted, host));
    EXPECT_EQ(client.connected(), client.verifyResult() == X509_V_OK);
    return client.verifyResult();
}

std::string contentOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

bool readsKey(const std::string& path, std::string password)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_file(path.c_str(), "r"), BIO_free);
    // Without a callback of its own, a phrase given as user data is taken; an empty one never asks a terminal.
    const support::PrivateKey key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, password.data()));
    ERR_clear_error();
    return key && EVP_PKEY_eq(key.get(), certificates().client.key.get()) == 1;
}

bool readsPkcs12(const std::string& path, const std::string& password)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_file(path.c_str(), "rb"), BIO_free);
    const std::unique_ptr<PKCS12, decltype(&PKCS12_free)> p12(d2i_PKCS12_bio(bio.get(), nullptr),
                                                              PKCS12_free);
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    const bool good = PKCS12_parse(p12.get(), password.c_str(), &key, &certificate, nullptr) == 1;
    const support::PrivateKey ownedKey(key);
    const support::Certificate ownedCertificate(certificate);
    ERR_clear_error();
    return good && X509_cmp(certificate, certificates().client.certificate.get()) == 0;
}

} // namespace

TEST(TlsServer, ServesAndTellsOfTheConnection)
{
    HttpServer server{Tls()};
    server.on("/a", Reply().body(std::string(1000, 'x')).pieces(100));
    EXPECT_EQ(server.url("/a"), "https://127.0.0.1:" + std::to_string(server.port()) + "/a");
    EXPECT_EQ(server.urlAs("localhost", "/a"), "https://localhost:" + std::to_string(server.port()) + "/a");
    TlsClient client(server, trusting(certificates().ca, "localhost"));
    ASSERT_TRUE(client.connected());
    const std::string answer = client.fetch("/a");
    EXPECT_EQ(answer.substr(answer.size() - 1000), std::string(1000, 'x'));
    EXPECT_LE(client.largestRecord(), 100U);
    EXPECT_TRUE(client.cleanEnd());
    const support::ConnectionInfo info = server.connections().at(0);
    EXPECT_TRUE(info.established);
    EXPECT_FALSE(info.resumed);
    EXPECT_EQ(info.version, "TLSv1.3");
    EXPECT_EQ(info.serverName, "localhost");
    EXPECT_EQ(info.clientSubject, "");
    EXPECT_EQ(server.requests("/a").size(), 1U);
}

TEST(TlsServer, EndsWithAFarewellOrWithoutOne)
{
    HttpServer server{Tls()};
    server.on("/closed", Reply().body("hello").close(support::At::body(3)));
    server.on("/cut", Reply().body("hello").cut(support::At::body(3)));
    for (const bool isClosed : {true, false}) {
        TlsClient client(server, trusting(certificates().ca, "localhost"));
        const std::string answer = client.fetch(isClosed ? "/closed" : "/cut");
        EXPECT_EQ(answer.substr(answer.find("\r\n\r\n") + 4), "hel");
        EXPECT_EQ(client.cleanEnd(), isClosed);
    }
}

TEST(TlsServer, ResumesSessionsUnlessToldOtherwise)
{
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const bool cache : {true, false}) {
            HttpServer server{Tls().sessionCache(cache)};
            server.on("/a", Reply().body("ok"));
            ClientOptions options = trusting(certificates().ca);
            options.version = version;
            TlsClient first(server, options);
            first.fetch("/a");
            const auto session = first.session();
            options.session = session.get();
            TlsClient second(server, options);
            EXPECT_NE(second.fetch("/a").find("ok"), std::string::npos);
            EXPECT_EQ(server.connections().at(1).resumed, cache);
        }
    }
}

TEST(TlsServer, AsksForClientCertificates)
{
    HttpServer server{Tls().requireClientSignedBy(certificates().ca.certificate)};
    server.on("/a", Reply().body("ok"));
    ClientOptions options = trusting(certificates().ca);
    options.identity = &certificates().client;
    TlsClient good(server, options);
    EXPECT_NE(good.fetch("/a").find("ok"), std::string::npos);
    EXPECT_EQ(server.connections().at(0).clientSubject, "CN = test client");
    options.identity = &certificates().unrelatedClient;
    TlsClient wrong(server, options);
    EXPECT_EQ(wrong.fetch("/a"), "");
    options.identity = nullptr;
    TlsClient none(server, options);
    EXPECT_EQ(none.fetch("/a"), "");
    ASSERT_TRUE(server.waitForOpenConnections(0));
    EXPECT_FALSE(server.connections().at(1).established);
    EXPECT_NE(server.connections().at(2).handshakeError.find("peer did not return a certificate"),
              std::string::npos);
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST(TlsServer, LimitsVersions)
{
    const HttpServer server{Tls().versions(TLS1_2_VERSION, TLS1_2_VERSION)};
    ClientOptions options = trusting(certificates().ca);
    options.version = TLS1_3_VERSION;
    EXPECT_FALSE(TlsClient(server, options).connected());
    options.version = TLS1_2_VERSION;
    EXPECT_TRUE(TlsClient(server, options).connected());
}

TEST(TlsServer, ServesRsaCiphers)
{
    HttpServer server{Tls(certificates().rsaLeaf())};
    ClientOptions options = trusting(certificates().ca);
    options.version = TLS1_2_VERSION;
    for (const std::string cipher : {"ECDHE-RSA-AES256-GCM-SHA384", "AES128-GCM-SHA256"}) {
        options.ciphers = cipher;
        EXPECT_TRUE(TlsClient(server, options).connected());
        ASSERT_TRUE(server.waitForOpenConnections(0));
        EXPECT_EQ(server.connections().back().cipher, cipher);
    }
}

TEST(TlsServer, FailsHandshakesAtCommand)
{
    for (const Tls::Handshake kind : {Tls::Handshake::CloseAfterHello, Tls::Handshake::Garbage}) {
        const HttpServer server{Tls().handshake(kind)};
        EXPECT_FALSE(TlsClient(server, ClientOptions()).connected());
        ASSERT_TRUE(server.waitForOpenConnections(0));
        EXPECT_FALSE(server.connections().at(0).established);
    }
    std::optional<HttpServer> stalling(std::in_place, Tls().handshake(Tls::Handshake::Stall));
    std::thread client([&] { EXPECT_FALSE(TlsClient(*stalling, ClientOptions()).connected()); });
    ASSERT_TRUE(stalling->waitForConnections(1));
    EXPECT_EQ(stalling->openConnections(), 1U);
    stalling->dropConnections();
    client.join();
}

TEST(TlsServer, SurvivesPlainBytesAndClientsThatLeave)
{
    HttpServer server{Tls()};
    server.on("/a", Reply::endless());
    support::RawClient plain(server.port());
    plain.send("GET / HTTP/1.1\r\n\r\n");
    plain.readAll();
    EXPECT_TRUE(plain.ended());
    { // Leaves while the server is sending.
        TlsClient client(server, trusting(certificates().ca));
        client.ask("/a");
        ASSERT_TRUE(server.waitForBodyBytes("/a", 1));
    }
    EXPECT_TRUE(server.waitForOpenConnections(0));
    EXPECT_FALSE(server.connections().at(0).established);
    EXPECT_NE(server.connections().at(0).handshakeError, "");
}

TEST(TestCertificates, AreWhatTheySay)
{
    const support::Certificates& set = certificates();
    EXPECT_EQ(verdictOn(set.leaf, set.ca), X509_V_OK);
    EXPECT_EQ(verdictOn(set.leaf, set.ca, "localhost"), X509_V_OK);
    EXPECT_EQ(verdictOn(set.intermediateLeaf, set.ca), X509_V_OK);
    EXPECT_EQ(verdictOn(set.rsaLeaf(), set.ca), X509_V_OK);
    EXPECT_EQ(verdictOn(set.lonelyLeaf, set.ca), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
    EXPECT_EQ(verdictOn(set.leaf, set.unrelatedCa), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
    EXPECT_EQ(verdictOn(set.selfSigned, set.ca), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
    const support::Authority itself{set.selfSigned.certificate, set.selfSigned.key, set.selfSigned.pem};
    EXPECT_EQ(verdictOn(set.selfSigned, itself), X509_V_OK);
    EXPECT_EQ(verdictOn(set.expiredLeaf, set.ca), X509_V_ERR_CERT_HAS_EXPIRED);
    EXPECT_EQ(verdictOn(set.wrongHostLeaf, set.ca), X509_V_ERR_IP_ADDRESS_MISMATCH);
    EXPECT_EQ(verdictOn(set.wrongHostLeaf, set.ca, "localhost"), X509_V_ERR_HOSTNAME_MISMATCH);
    EXPECT_EQ(verdictOn(set.wrongHostLeaf, set.ca, "another.example.test"), X509_V_OK);
}

TEST(TestCertificates, ComeAsFiles)
{
    const support::Certificates& set = certificates();
    EXPECT_EQ(contentOf(set.ca.pem), support::toPem(set.ca.certificate));
    EXPECT_EQ(contentOf(set.intermediateLeaf.pem), support::toPem(set.intermediateLeaf.certificate) +
                                                       support::toPem(set.intermediate.certificate));
    EXPECT_EQ(contentOf(set.leaf.keyPem), support::toPem(set.leaf.key));
    EXPECT_EQ(contentOf(set.caDirectory + "/ca.pem"), support::toPem(set.ca.certificate));
    EXPECT_EQ(contentOf(set.unrelatedDirectory + "/ca.pem"), support::toPem(set.unrelatedCa.certificate));
    EXPECT_EQ(support::subjectOf(set.client.certificate), "CN = test client");

    const support::ClientFiles& files = set.clientFiles;
    EXPECT_TRUE(readsKey(files.pem, ""));
    EXPECT_TRUE(readsKey(files.encryptedPem, files.password));
    EXPECT_FALSE(readsKey(files.encryptedPem, ""));
    EXPECT_FALSE(readsKey(files.encryptedPem, "wrong"));
    EXPECT_NE(contentOf(files.encryptedPem).find("BEGIN ENCRYPTED PRIVATE KEY"), std::string::npos);
    EXPECT_TRUE(readsPkcs12(files.p12, files.password));
    EXPECT_FALSE(readsPkcs12(files.p12, "wrong"));
    EXPECT_TRUE(readsPkcs12(files.plainP12, ""));
}
