// Uploads to real FTP servers: every byte arrives, and every refusal has its result.
#include "support_ftp.h"

#include "mdc_hlp_upload.h"
#include "support/ftp_server.h"
#include "support/ftp_upload.h"
#include "support/media.h"
#include "support/trace_capture.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using support::FtpHost;
using support::Media;
using support::Proftpd;
using support::Vsftpd;

constexpr std::size_t kHundredMegabytes = 100000000;

md::FtpAccess uploadTo(const FtpHost& server, const std::string& file)
{
    md::FtpAccess access;
    access.setServerUrl(server.host());
    access.setServerPath("in");
    access.setUserName(server.user());
    access.setUserPassword(server.password());
    access.setSourceFile(file);
    access.setUploadedFile("a.bin");
    return access;
}

// Large contents are compared without printing them.
void expectSame(const std::string& got, const std::string& wanted)
{
    EXPECT_EQ(got.size(), wanted.size());
    EXPECT_TRUE(got == wanted) << "the bytes differ";
}

template <typename Server>
class RealServer : public testing::Test
{
protected:
    Server m_server;
    support::TempDir m_folder;

    // result of upload, and libcurl's code
    void expectResult(md::FtpAccess access, int result, int code)
    {
        EXPECT_EQ(access.upload(), result);
        EXPECT_EQ(access.getCurlCode(), code);
    }
};

using Servers = testing::Types<Vsftpd, Proftpd>;
TYPED_TEST_SUITE(RealServer, Servers, ); // the comma: ISO C++17 wants an argument for "..."

TYPED_TEST(RealServer, EveryByteArrives)
{
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{65535}, std::size_t{65536},
                                   std::size_t{65537}, kHundredMegabytes}) {
        const std::string content = Media(9).bytes(0, size);
        md::FtpAccess access = uploadTo(this->m_server, this->m_folder.write("a.bin", content));
        EXPECT_EQ(access.upload(), 0) << size;
        expectSame(support::readFile(this->m_server.stored("a.bin")), content);
        double total = 0;
        double actual = 0;
        EXPECT_EQ(access.getProgress(total, actual), size == 0 ? 0 : 2);
        EXPECT_EQ(actual, static_cast<double>(size));
    }
}

TYPED_TEST(RealServer, AnExistingFileIsReplaced)
{
    for (const std::string& content : {std::string("a long first content"), std::string("short")}) {
        EXPECT_EQ(uploadTo(this->m_server, this->m_folder.write("a.bin", content)).upload(), 0);
        EXPECT_EQ(support::readFile(this->m_server.stored("a.bin")), content);
    }
}

TYPED_TEST(RealServer, MissingDirectoriesAreMade)
{
    md::FtpAccess access = uploadTo(this->m_server, this->m_folder.write("a.bin", "hello"));
    access.setServerPath("in/deep/deeper");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_EQ(support::readFile(this->m_server.stored("deep/deeper/a.bin")), "hello");
    EXPECT_EQ(access.upload(), 0); // where they exist by now
}

TYPED_TEST(RealServer, NamesMayHoldWhatAUrlEscapes)
{
    md::FtpAccess access = uploadTo(this->m_server, this->m_folder.write("a.bin", "hello"));
    access.setUploadedFile("a%20b%23c%3Fd%25e%3Btype=a");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_EQ(support::readFile(this->m_server.stored("a b#c?d%e;type=a")), "hello");
}

TYPED_TEST(RealServer, Ipv6)
{
    const std::string content = Media(9).bytes(0, 1000000);
    md::FtpAccess access = uploadTo(this->m_server, this->m_folder.write("a.bin", content));
    access.setServerUrl(this->m_server.hostIpv6());
    EXPECT_EQ(access.upload(), 0);
    expectSame(support::readFile(this->m_server.stored("a.bin")), content);
}

TYPED_TEST(RealServer, WithoutANameTheLogInIsAnonymous)
{
    if (std::is_same_v<TypeParam, Proftpd> && geteuid() != 0) {
        GTEST_SKIP() << "ProFTPD lets anonymous users in only when it is started by root";
    }
    md::FtpAccess access = uploadTo(this->m_server, this->m_folder.write("a.bin", "hello"));
    access.setUserName("");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_EQ(support::readFile(this->m_server.stored("a.bin")), "hello");
}

TYPED_TEST(RealServer, AWrongPasswordIsRefused)
{
    md::FtpAccess access = uploadTo(this->m_server, this->m_folder.write("a.bin", "hello"));
    access.setUserPassword("wrong");
    this->expectResult(access, -2, 67);
    EXPECT_FALSE(std::filesystem::exists(this->m_server.stored("a.bin")));
}

TYPED_TEST(RealServer, AReadOnlyDirectoryRefusesTheFile)
{
    md::FtpAccess access = uploadTo(this->m_server, this->m_folder.write("a.bin", "hello"));
    access.setServerPath("readonly");
    this->expectResult(access, -4, 25);
    access.setServerPath("readonly/deep");
    this->expectResult(access, -6, 9);
}

TYPED_TEST(RealServer, ACancelFromAnotherThreadEndsTheUpload)
{
    const std::string content = Media(9).bytes(0, kHundredMegabytes);
    support::RunningUpload upload(uploadTo(this->m_server, this->m_folder.write("a.bin", content)));
    double total = 0;
    double actual = 0;
    EXPECT_TRUE(
        support::waitUntil([&] { return upload.access().getProgress(total, actual) == 1 && actual > 0; }));
    upload.access().cancel();
    EXPECT_EQ(upload.result(), -5);
    EXPECT_EQ(upload.access().getProgress(total, actual), 3);
    EXPECT_LT(actual, total);
    EXPECT_LT(std::filesystem::file_size(this->m_server.stored("a.bin")), content.size());
}

TEST(ProftpdUpload, AFileBeyondTheServersLimitFails)
{
    const Proftpd server;
    const support::TempDir folder;
    const std::string fits = Media(9).bytes(0, Proftpd::kSmall);
    md::FtpAccess access = uploadTo(server, folder.write("a.bin", fits));
    access.setServerPath("in/small");
    EXPECT_EQ(access.upload(), 0);
    expectSame(support::readFile(server.stored("small/a.bin")), fits);

    // The server closes the data connection in the middle; libcurl may meet that, or the reply, first.
    folder.write("a.bin", Media(9).bytes(0, 20 * Proftpd::kSmall));
    const int result = access.upload();
    EXPECT_LT(result, 0);
    EXPECT_TRUE(access.getCurlCode() == 55 || access.getCurlCode() == 18 || access.getCurlCode() == 70)
        << access.getCurlCode();
}

TEST(VsftpdUpload, WithoutTrustNothingIsSent)
{
    const Vsftpd server(Vsftpd::Security::kImplicitTls);
    const support::TempDir folder;
    const support::TraceCapture trace;
    md::FtpAccess access = uploadTo(server, folder.write("a.bin", "hello"));
    access.setProtocol("ftps");
    EXPECT_EQ(access.upload(), -6);
    EXPECT_EQ(access.getCurlCode(), 60);
    EXPECT_EQ(trace.count("mdc_hlp_upload_impl.cpp:#:upload(): curl_easy_perform() failed:  errorCode: 60    "
                          "SSL peer certificate or SSH remote key was not OK\n"),
              1U);
    EXPECT_FALSE(std::filesystem::exists(server.stored("a.bin")));
    EXPECT_FALSE(trace.hasAnywhere(server.password()));
}

// What a 32-bit count would get wrong. The file is all hole but for its ends, and the server counts and digests the
// bytes without storing them.
#ifndef MDC_SANITIZED_THREAD // a minute for one thread's arithmetic
TEST(ScriptedUpload, AFileOfMoreThanFourGigabytes)
{
    constexpr std::uint64_t kSize = (std::uint64_t{1} << 32U) + 100003;
    const support::TempDir folder;
    const std::string file = folder.write("a.bin", "first");
    ASSERT_EQ(truncate(file.c_str(), static_cast<off_t>(kSize - 4)), 0)
        << "the file system holds no files of more than 4 GiB";
    std::ofstream(file, std::ios::binary | std::ios::app) << "last";
    support::Digest digest;
    {
        std::ifstream stream(file, std::ios::binary);
        std::vector<char> part(std::size_t{1} << 20U);
        while (stream.read(part.data(), static_cast<std::streamsize>(part.size())) || stream.gcount() > 0) {
            digest.add(part.data(), static_cast<std::size_t>(stream.gcount()));
        }
    }
    const support::FtpServer server;
    md::FtpAccess access = support::uploadTo(server, file);
    EXPECT_EQ(access.upload(), 0);
    ASSERT_EQ(server.uploads().size(), 1U);
    EXPECT_EQ(server.uploads()[0].bytes, kSize);
    EXPECT_EQ(server.uploads()[0].sha256, digest.finish());
    double total = 0;
    double actual = 0;
    EXPECT_EQ(access.getProgress(total, actual), 2);
    EXPECT_EQ(actual, static_cast<double>(kSize));
}
#endif

} // namespace
