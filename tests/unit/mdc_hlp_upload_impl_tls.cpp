// Uploads over TLS: what arrives, whom libcurl trusts, and how a cancel gets through.
#include "mdc_hlp_upload.h"

#include "support/certificates.h"
#include "support/ftp_upload.h"
#include "support/media.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <atomic>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string>

#include <openssl/x509_vfy.h>

namespace {

// Whether the test CA stands in the system's trust store.
std::atomic<bool> g_isTrusted{true};

} // namespace

// libcurl reads the system's trust store with this function of OpenSSL: here the test CA is all that stands in it.
// Whatever is done with the certificates is OpenSSL's own.
extern "C" int X509_STORE_load_file(X509_STORE* store, const char* /*file*/)
{
    const support::Certificates& files = support::certificates();
    const support::Authority& authority = g_isTrusted ? files.ca : files.unrelatedCa;
    return X509_STORE_add_cert(store, authority.certificate.get());
}

namespace {

using support::FtpServer;
using support::Gate;
using support::Media;
using support::RunningUpload;
using support::Tls;
using support::TraceCapture;

const std::string kHere = "mdc_hlp_upload_impl.cpp:#:";

md::FtpAccess secureUploadTo(const FtpServer& server, const std::string& file)
{
    md::FtpAccess access = support::uploadTo(server, file);
    access.setProtocol("ftps");
    access.setUserName("user");
    access.setUserPassword("secret");
    return access;
}

class Secure : public testing::Test
{
protected:
    ~Secure() override { g_isTrusted = true; }

    support::TempDir m_folder;
    const std::string m_content = Media(7).bytes(0, 3000001);
    const std::string m_file = m_folder.write("a.bin", m_content);
    TraceCapture m_trace;
};

class SecureCancel : public testing::TestWithParam<const char*>
{
};

} // namespace

TEST_F(Secure, nameFileAndDataGoOverTls)
{
    FtpServer server{Tls()};
    server.account("user", "secret");
    md::FtpAccess access = secureUploadTo(server, m_file);
    EXPECT_EQ(access.upload(), 0);
    ASSERT_EQ(server.uploads().size(), 1U);
    const support::FtpUpload upload = server.uploads()[0];
    EXPECT_TRUE(upload.encrypted);
    EXPECT_TRUE(upload.atEnd);
    EXPECT_EQ(upload.sha256, support::sha256Of(m_content));
    EXPECT_TRUE(server.connections().at(0).established);
    EXPECT_EQ(m_trace.count(kHere + "upload(): URL generated: ftps://" + server.host() + "/in/a.bin\n"), 1U);
    EXPECT_FALSE(m_trace.hasAnywhere("secret"));
}

TEST_F(Secure, theProtocolsNameMayBeInAnyCase)
{
    const FtpServer server{Tls()};
    md::FtpAccess access = secureUploadTo(server, m_file);
    access.setProtocol("FTPS");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_TRUE(server.uploads().at(0).encrypted);
}

TEST_F(Secure, withoutTrustNotEvenTheNameIsSent)
{
    g_isTrusted = false;
    const FtpServer server{Tls()};
    md::FtpAccess access = secureUploadTo(server, m_file);
    EXPECT_EQ(access.upload(), -6);
    EXPECT_EQ(access.getCurlCode(), 60);
    EXPECT_EQ(m_trace.count(kHere + "upload(): curl_easy_perform() failed:  errorCode: 60    "
                                    "SSL peer certificate or SSH remote key was not OK\n"),
              1U);
    EXPECT_TRUE(server.commands().empty());
}

TEST_F(Secure, aCertificateForAnotherHostIsRefused)
{
    const FtpServer server{Tls(support::certificates().wrongHostLeaf)};
    md::FtpAccess access = secureUploadTo(server, m_file);
    EXPECT_EQ(access.upload(), -6);
    EXPECT_EQ(access.getCurlCode(), 60);
    EXPECT_TRUE(server.commands().empty());
}

TEST_F(Secure, aServerThatWantsTheDataInTheClearDoesNotGetIt)
{
    FtpServer server{Tls()};
    server.plainDataOnly();
    md::FtpAccess access = secureUploadTo(server, m_file);
    EXPECT_EQ(access.upload(), -6);
    EXPECT_EQ(access.getCurlCode(), 64);
    EXPECT_TRUE(server.uploads().empty());
}

TEST_F(Secure, aServerWithoutTlsIsNoSecureServer)
{
    FtpServer server;
    server.answer(FtpServer::greeting, "220 This is no TLS record, whatever a client makes of it");
    md::FtpAccess access = secureUploadTo(server, m_file);
    EXPECT_EQ(access.upload(), -6);
    EXPECT_EQ(access.getCurlCode(), 35);
}

TEST_F(Secure, nobodyWaitsForTheAnswerToTheGoodBye)
{
    FtpServer server{Tls()};
    server.stall("QUIT");
    RunningUpload upload(secureUploadTo(server, m_file));
    EXPECT_EQ(upload.result(), 0);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST_F(Secure, connectionsThatEndLeaveNothingOpen)
{
    const auto round = [this](const char* point) {
        FtpServer server{Tls()};
        server.dataPoint(100000);
        server.reset(point);
        return secureUploadTo(server, m_file).upload();
    };
    EXPECT_EQ(round("none"), 0);
    const auto before = support::openDescriptors();
    for (const char* point : {FtpServer::greeting, "PASS", "STOR", FtpServer::dataHandshake, FtpServer::data,
                              FtpServer::finalReply}) {
        EXPECT_LT(round(point), 0) << point;
        EXPECT_EQ(support::openDescriptors(), before) << point;
    }
}

TEST_P(SecureCancel, endsTheUploadAndItsConnections)
{
    const support::TempDir folder;
    const std::string file = folder.write("a.bin", Media(7).bytes(0, 20000000));
    const TraceCapture trace;
    FtpServer server{Tls()};
    server.dataPoint(100000);
    server.stall(GetParam());
    RunningUpload upload(secureUploadTo(server, file));
    ASSERT_TRUE(server.waitForPoint(GetParam()));
    EXPECT_TRUE(upload.isRunning());
    upload.access().cancel();
    EXPECT_EQ(upload.result(), -5);
    EXPECT_EQ(upload.access().getCurlCode(), 42);
    EXPECT_TRUE(trace.hasAnywhere("upload aborted after: "));
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

INSTANTIATE_TEST_SUITE_P(Stalls, SecureCancel,
                         testing::Values(FtpServer::greeting, "USER", "PROT", "STOR", FtpServer::dataConnect,
                                         FtpServer::dataHandshake, FtpServer::data, FtpServer::finalReply));

TEST_F(Secure, aCancelWhileTheServerOwesItsHandshake)
{
    const FtpServer server(Tls().handshake(Tls::Handshake::Stall));
    md::FtpAccess access = secureUploadTo(server, m_file);
    std::atomic<int> calls{0};
    access.setProgressCallback(
        &calls, [](void* user, long long, long long) { ++*static_cast<std::atomic<int>*>(user); });
    RunningUpload upload(access);
    EXPECT_TRUE(support::waitUntil([&server] { return server.connections().size() == 1; }));
    const int seen = calls;
    EXPECT_TRUE(support::waitUntil([&calls, seen] { return calls >= seen + 3; })); // they go on
    upload.access().cancel();
    EXPECT_EQ(upload.result(), -5);
}

TEST_F(Secure, aStopInAnyProgressCall)
{
    const FtpServer server{Tls()};
    const std::string file = m_folder.write("b.bin", "hello");
    constexpr int kAtLeast = 10;
    EXPECT_GT(support::stopInEachCall([&] { return secureUploadTo(server, file); }).value_or(0), kAtLeast);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST_F(Secure, aCancelAtAnyStepOfTheWay)
{
    constexpr int kRounds = 40;
    const FtpServer server{Tls()};
    const std::string file = m_folder.write("b.bin", "hello");
    EXPECT_EQ(support::cancelAfterEachCall([&] { return secureUploadTo(server, file); }, kRounds), 0);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}
