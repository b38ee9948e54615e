// How an HTTPS request decides what to verify its server against, and what comes of it.
#include "mdc_hlp_http_ssl.h"
#include "support/certificates.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/issuer.h"
#include "support/trace_capture.h"

#include <boost/make_shared.hpp>
#include <cstdlib>
#include <memory>

using support::Certificate;
using support::certificates;
using support::HttpServer;
using support::HttpStream;
using support::Identity;
using support::Reply;
using support::Request;
using support::Tls;
using support::TraceCapture;

namespace {

class HttpRequestTls : public support::HttpClientTest
{
protected:
    // The server shows the leaf for 127.0.0.1 that the CA signed, unless said otherwise.
    HttpRequestTls() { serve(certificates().leaf); }

    void serve(const Identity& identity)
    {
        server = std::make_unique<HttpServer>(Tls(identity));
        server->otherwise([](const Request&) { return Reply().body("secret"); });
    }

    std::string fetch(HttpStream& stream) { return stream.fetch(server->url("/")); }

    void expectAccepted(HttpStream& stream)
    {
        EXPECT_EQ(fetch(stream), "secret");
        EXPECT_EQ(stream.error(), 0);
    }

    void expectRejected(HttpStream& stream)
    {
        EXPECT_EQ(fetch(stream), "");
        EXPECT_EQ(stream.error(), MDCH_HTTP_ECERT);
        EXPECT_TRUE(server->requests().empty());
    }

    static void trust(HttpStream& stream, const Certificate& certificate)
    {
        EXPECT_EQ(stream.setCertificate(certificate.get()), 0);
    }

    static std::string viaList(const HttpStream& stream)
    {
        return "mdchHttpCurl_initDescriptor(): request secured connection via X509 for fd " + stream.fd() +
               "\n";
    }
    static std::string viaDirectory(const HttpStream& stream)
    {
        return "mdchHttpCurl_initDescriptor(): request secured connection via ca_path for fd " + stream.fd() +
               "\n";
    }
    static std::string viaNothing(const HttpStream& stream)
    {
        return "mdchHttpCurl_initDescriptor(): Neither X509 nor ca_path set for https on fd " + stream.fd() +
               "\n";
    }
    static std::string bothSet(const HttpStream& stream)
    {
        return "mdchHttpCurl_initDescriptor(): do not use X509 and ca_path simultaneously for fd " +
               stream.fd() + "\n";
    }
    static std::string notVerifying()
    {
        return "mdc_hlp_http_curl_request_tls.cpp:#:mdchHttpCurl_initDescriptor(): not verifying host side\n";
    }

    TraceCapture traces;
    std::unique_ptr<HttpServer> server;
};

} // namespace

// --- The choice ---

TEST_F(HttpRequestTls, ListAloneVerifiesAgainstTheList)
{
    HttpStream stream;
    trust(stream, certificates().ca.certificate);
    expectAccepted(stream);
    EXPECT_EQ(traces.count(viaList(stream)), 1U);
    EXPECT_EQ(traces.severityOf(viaList(stream)), 5000U);
    EXPECT_EQ(traces.count("mdchHttpCurl_sslctxCallback(): got sslctx callback for fd " + stream.fd() + "\n"),
              1U);
    EXPECT_EQ(traces.count("mdchHttpSsl_verifyCertificateCallback(): verify certificate for fd " +
                           stream.fd() + "\n"),
              1U);
    EXPECT_FALSE(traces.has(viaDirectory(stream)));
    EXPECT_FALSE(traces.has(notVerifying()));
}

TEST_F(HttpRequestTls, ListWithoutTheIssuerRejects)
{
    HttpStream stream;
    trust(stream, certificates().unrelatedCa.certificate);
    expectRejected(stream);
    EXPECT_TRUE(traces.hasAnywhere("mdchHttpSsl_verifyCertificateCallback(): verify cert failed: "));
    EXPECT_TRUE(
        traces.waitFor("mdchHttpCurl_fillBuffer(): received error on fd " + stream.fd() + " (60=>150)\n"));
}

TEST_F(HttpRequestTls, DirectoryAloneVerifiesAgainstTheDirectory)
{
    HttpStream stream;
    stream.setCaCertPath(certificates().caDirectory);
    expectAccepted(stream);
    EXPECT_EQ(traces.count(viaDirectory(stream)), 1U);
    EXPECT_EQ(traces.severityOf(viaDirectory(stream)), 5000U);
    EXPECT_EQ(traces.count("mdchHttpSsl_verifyCertificateCallback(): verify certificate for fd " +
                           stream.fd() + "\n"),
              1U);
    EXPECT_FALSE(traces.has(viaList(stream)));
}

TEST_F(HttpRequestTls, DirectoryWithoutTheIssuerRejects)
{
    HttpStream stream;
    stream.setCaCertPath(certificates().unrelatedDirectory);
    expectRejected(stream);
    EXPECT_TRUE(traces.has(viaDirectory(stream)));
}

TEST_F(HttpRequestTls, DirectoryThatDoesNotExistRejects)
{
    HttpStream stream;
    stream.setCaCertPath(certificates().directory + "/missing");
    expectRejected(stream);
}

TEST_F(HttpRequestTls, ListAndDirectoryTogetherUseTheListAlone)
{
    HttpStream accepted;
    trust(accepted, certificates().ca.certificate);
    accepted.setCaCertPath(certificates().unrelatedDirectory);
    expectAccepted(accepted);
    EXPECT_EQ(traces.count(bothSet(accepted)), 1U);
    EXPECT_TRUE(traces.has(viaList(accepted)));
    EXPECT_FALSE(traces.has(viaDirectory(accepted)));

    serve(certificates().leaf);
    HttpStream rejected;
    trust(rejected, certificates().unrelatedCa.certificate);
    rejected.setCaCertPath(certificates().caDirectory);
    expectRejected(rejected);
}

TEST_F(HttpRequestTls, ListAndDirectoryWithoutVerificationVerifyNothing)
{
    HttpStream stream;
    trust(stream, certificates().unrelatedCa.certificate);
    stream.setCaCertPath(certificates().unrelatedDirectory);
    stream.setVerifyHost(false);
    expectAccepted(stream);
    EXPECT_TRUE(traces.has(bothSet(stream)));
    EXPECT_EQ(traces.count(notVerifying()), 1U);
    EXPECT_FALSE(traces.has(viaList(stream)));
}

TEST_F(HttpRequestTls, NeitherListNorDirectoryUsesTheSystemsAuthorities)
{
    HttpStream stream;
    expectRejected(stream);
    EXPECT_EQ(traces.count(viaNothing(stream)), 1U);
    EXPECT_EQ(traces.severityOf(viaNothing(stream)), 5000U);
    EXPECT_FALSE(traces.hasAnywhere("got sslctx callback"));
}

TEST_F(HttpRequestTls, EnvironmentNamesNoAuthorities)
{
    setenv("SSL_CERT_FILE", certificates().ca.pem.c_str(), 1);
    setenv("SSL_CERT_DIR", certificates().caDirectory.c_str(), 1);
    setenv("CURL_CA_BUNDLE", certificates().ca.pem.c_str(), 1);
    HttpStream system;
    expectRejected(system);
    HttpStream list;
    trust(list, certificates().unrelatedCa.certificate);
    expectRejected(list);
    for (const char* name : {"SSL_CERT_FILE", "SSL_CERT_DIR", "CURL_CA_BUNDLE"}) {
        unsetenv(name);
    }
}

// Beyond what 32 bits of seconds can count.
TEST_F(HttpRequestTls, ACertificateThatEndsInAHundredYearsIsAccepted)
{
    support::CertificateRequest request;
    request.commonName = "localhost";
    request.alternativeNames = {"DNS:localhost", "IP:127.0.0.1"};
    request.extendedUsage = "serverAuth";
    request.validToDays = 36500;
    Identity lasting;
    lasting.key = support::makeEcKey();
    lasting.certificate =
        support::makeCertificate(request, lasting.key, certificates().ca.certificate, certificates().ca.key);
    serve(lasting);
    HttpStream withList;
    trust(withList, certificates().ca.certificate);
    expectAccepted(withList);
    HttpStream withDirectory;
    withDirectory.setCaCertPath(certificates().caDirectory);
    expectAccepted(withDirectory);
}

TEST_F(HttpRequestTls, WithoutVerificationNothingIsVerified)
{
    serve(certificates().expiredLeaf);
    HttpStream withList;
    trust(withList, certificates().unrelatedCa.certificate);
    withList.setVerifyHost(false);
    expectAccepted(withList);
    HttpStream withDirectory;
    withDirectory.setCaCertPath(certificates().unrelatedDirectory);
    withDirectory.setVerifyHost(false);
    expectAccepted(withDirectory);
    HttpStream withNeither;
    withNeither.setVerifyHost(false);
    expectAccepted(withNeither);
    EXPECT_EQ(traces.count(notVerifying()), 3U);
    EXPECT_FALSE(traces.hasAnywhere("got sslctx callback"));
    EXPECT_FALSE(traces.hasAnywhere("request secured connection"));
    EXPECT_FALSE(traces.hasAnywhere("Neither X509 nor ca_path"));

    serve(certificates().wrongHostLeaf);
    HttpStream wrongHost;
    wrongHost.setVerifyHost(false);
    expectAccepted(wrongHost);
}

TEST_F(HttpRequestTls, SchemeIsComparedWithoutRegardToCase)
{
    for (const std::string scheme : {"HTTPS", "hTtPs"}) {
        HttpStream stream;
        trust(stream, certificates().ca.certificate);
        EXPECT_EQ(stream.fetch(scheme + server->url("/").substr(5)), "secret");
        EXPECT_TRUE(traces.has(viaList(stream)));
    }
}

TEST_F(HttpRequestTls, PlainUrlGetsNoTlsOptions)
{
    HttpServer plain;
    plain.on("/https://", Reply().body("plain"));
    HttpStream stream;
    trust(stream, certificates().ca.certificate);
    stream.setCaCertPath("/nowhere");
    stream.setClientCert("/nowhere.p12");
    stream.setCertPasswd("secret");
    EXPECT_EQ(stream.fetch(plain.url("/https://")), "plain");
    for (const char* text : {"X509", "ca_path", "not verifying host side", "set client certificate",
                             "certificate type is P12", "setting ssl key passswd", "open directory"}) {
        EXPECT_FALSE(traces.hasAnywhere(text)) << text;
    }
}

// --- What the list has to hold ---

TEST_F(HttpRequestTls, LeafAloneInTheListVerifies)
{
    HttpStream stream;
    trust(stream, certificates().leaf.certificate);
    expectAccepted(stream);
}

TEST_F(HttpRequestTls, IntermediateAloneInTheListVerifies)
{
    serve(certificates().intermediateLeaf);
    HttpStream stream;
    trust(stream, certificates().intermediate.certificate);
    expectAccepted(stream);
}

TEST_F(HttpRequestTls, RootVerifiesThroughTheIntermediateThatTheServerSends)
{
    serve(certificates().intermediateLeaf);
    HttpStream stream;
    trust(stream, certificates().ca.certificate);
    expectAccepted(stream);
}

TEST_F(HttpRequestTls, MissingIntermediateRejectsUnlessTheListHasIt)
{
    serve(certificates().lonelyLeaf);
    HttpStream rootOnly;
    trust(rootOnly, certificates().ca.certificate);
    expectRejected(rootOnly);
    HttpStream both;
    trust(both, certificates().ca.certificate);
    trust(both, certificates().intermediate.certificate);
    expectAccepted(both);
}

TEST_F(HttpRequestTls, SelfSignedServerVerifiesAgainstItself)
{
    serve(certificates().selfSigned);
    HttpStream stranger;
    trust(stranger, certificates().ca.certificate);
    expectRejected(stranger);
    HttpStream known;
    trust(known, certificates().selfSigned.certificate);
    expectAccepted(known);
}

TEST_F(HttpRequestTls, ExpiredCertificateIsRejectedInBothWays)
{
    serve(certificates().expiredLeaf);
    HttpStream list;
    trust(list, certificates().ca.certificate);
    expectRejected(list);
    EXPECT_TRUE(traces.has(
        "mdchHttpSsl_verifyCertificateCallback(): verify cert failed: certificate has expired (10)\n"));
    EXPECT_EQ(
        traces.severityOf("mdchHttpSsl_verifyCertificateCallback(): verify cert failed: certificate has "
                          "expired (10)\n"),
        3000U);
    HttpStream directory;
    directory.setCaCertPath(certificates().caDirectory);
    expectRejected(directory);
}

TEST_F(HttpRequestTls, WrongHostNameIsRejectedInBothWays)
{
    serve(certificates().wrongHostLeaf);
    HttpStream list;
    trust(list, certificates().ca.certificate);
    expectRejected(list);
    HttpStream directory;
    directory.setCaCertPath(certificates().caDirectory);
    expectRejected(directory);
}

// --- A second open ---

TEST_F(HttpRequestTls, SecondOpenLoadsTheDirectoryAnew)
{
    HttpStream stream;
    stream.setCaCertPath(certificates().caDirectory);
    expectAccepted(stream);
    stream.setCaCertPath(certificates().unrelatedDirectory);
    EXPECT_EQ(fetch(stream), "");
    EXPECT_EQ(stream.error(), MDCH_HTTP_ECERT);
    EXPECT_EQ(traces.count(viaDirectory(stream)), 2U);
    EXPECT_FALSE(traces.has(viaList(stream)));
}

TEST_F(HttpRequestTls, SecondOpenKeepsTheList)
{
    HttpStream stream;
    trust(stream, certificates().ca.certificate);
    expectAccepted(stream);
    expectAccepted(stream);
    EXPECT_EQ(traces.count(viaList(stream)), 2U);
}

TEST_F(HttpRequestTls, RedirectToASecuredServerIsVerifiedBySystemAuthorities)
{
    HttpServer plain;
    plain.on("/", Reply::redirect(server->url("/")));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(plain.url("/")), "");
    EXPECT_EQ(stream.error(), MDCH_HTTP_ECERT);
    EXPECT_TRUE(server->requests().empty());
}
