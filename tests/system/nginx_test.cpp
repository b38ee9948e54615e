// Streams against a real web server: bytes, lengths, ranges, certificates and errors.
#include "support_nginx.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url.h"
#include "mdc_hlp_url_base.h"
#include "support/certificates.h"
#include "support/media.h"
#include "support/sockets.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using support::Nginx;

constexpr unsigned int kPiece = 10000; // no divisor of any buffer size

std::string contentOf(std::size_t size)
{
    return support::Media(3).bytes(0, size);
}

struct Opened
{
    int result = 0;
    boost::shared_ptr<MdchUrlBase> stream;
    mdch_UrlExtended_struct ext{};

    md::HttpAccess& http() const { return dynamic_cast<md::HttpAccess&>(*stream); }
};

Opened openStream(const std::string& url, mdch_UrlExtended_struct ext = {})
{
    Opened opened;
    opened.ext = ext;
    opened.result = mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, &opened.ext, opened.stream);
    return opened;
}

Opened openTrusting(const std::string& url, const std::string& folder)
{
    mdch_UrlExtended_struct ext{};
    ext.caCertPath = folder.c_str();
    return openStream(url, ext);
}

std::string readAll(MdchUrlBase& stream)
{
    std::string content;
    std::vector<unsigned char> piece(kPiece);
    for (;;) {
        const int got = stream.read(piece.data(), kPiece);
        if (got <= 0) {
            return content;
        }
        content.append(piece.begin(), piece.begin() + got);
    }
}

std::string readAll(unsigned int handle)
{
    std::string content;
    std::vector<unsigned char> piece(kPiece);
    for (;;) {
        const int got = mdch_UrlRead(handle, piece.data(), kPiece);
        if (got <= 0) {
            return content;
        }
        content.append(piece.begin(), piece.begin() + got);
    }
}

// Large contents are compared without printing them.
void expectSame(const std::string& got, const std::string& wanted)
{
    EXPECT_EQ(got.size(), wanted.size());
    EXPECT_TRUE(got == wanted) << "the bytes differ";
}

class NginxTest : public testing::Test
{
protected:
    Nginx m_server;
};

class NginxSizes : public testing::TestWithParam<std::size_t>
{
protected:
    Nginx m_server;
};

TEST_P(NginxSizes, EveryByteArrivesThroughBothInterfaces)
{
    const std::string content = contentOf(GetParam());
    m_server.addFile("song.mp3", content);

    const Opened opened = openStream(m_server.plain("/song.mp3"));
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.stream->size(), static_cast<long long>(content.size()));
    expectSame(readAll(*opened.stream), content);
    EXPECT_NE(opened.stream->eof(), 0);
    EXPECT_EQ(opened.stream->error(), 0);
    EXPECT_EQ(opened.stream->tell(), static_cast<long long>(content.size()));

    const unsigned int handle = mdch_UrlOpen(m_server.plain("/song.mp3").c_str(), MDCH_MODE_READ);
    ASSERT_NE(handle, 0U);
    EXPECT_EQ(mdch_UrlSize(handle), static_cast<long long>(content.size()));
    expectSame(readAll(handle), content);
    EXPECT_NE(mdch_UrlEof(handle), 0);
    EXPECT_EQ(mdch_UrlError(handle), 0);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

INSTANTIATE_TEST_SUITE_P(Sizes, NginxSizes, testing::Values(0U, 1U, 16383U, 16384U, 16385U, 5U << 20U));

TEST_F(NginxTest, TheHeaderTellsTypeStatusAndSeekability)
{
    m_server.addFile("song.mp3", contentOf(1000));
    const Opened opened = openStream(m_server.plain("/song.mp3"));
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.http().getResponseCode(), 200);
    EXPECT_EQ(opened.stream->isSeekable(), 1);
    EXPECT_EQ(opened.stream->capability() & MDCH_CAPABILITY_BYTE_SEEK, MDCH_CAPABILITY_BYTE_SEEK);

    std::deque<std::string> lines;
    ASSERT_EQ(opened.http().getHeaderList(lines), 0);
    EXPECT_EQ(lines.front(), "HTTP/1.1 200 OK\r\n");
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Content-Type: audio/mpeg\r\n"), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Content-Length: 1000\r\n"), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Accept-Ranges: bytes\r\n"), lines.end());
}

TEST_F(NginxTest, SeeksGiveTheBytesOfTheNewPosition)
{
    const std::string content = contentOf(5U << 20U);
    m_server.addFile("song.mp3", content);
    const unsigned int handle = mdch_UrlOpen(m_server.plain("/song.mp3").c_str(), MDCH_MODE_READ);
    ASSERT_NE(handle, 0U);
    ASSERT_EQ(mdch_UrlIsSeekable(handle), 1);
    const auto size = static_cast<long long>(content.size());
    for (const long long position : {size - 1000, 0LL, 4000000LL, 4000100LL, 1LL, size - 1}) {
        ASSERT_EQ(mdch_UrlSeek(handle, position, SEEK_SET), 0) << position;
        EXPECT_EQ(mdch_UrlTell(handle), position);
        EXPECT_EQ(mdch_UrlGetc(handle),
                  static_cast<unsigned char>(content[static_cast<std::size_t>(position)]));
        EXPECT_EQ(mdch_UrlSize(handle), size);
    }
    ASSERT_EQ(mdch_UrlSeek(handle, -100000, SEEK_END), 0);
    expectSame(readAll(handle), content.substr(content.size() - 100000));
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

TEST_F(NginxTest, PauseAndResumeLoseNothing)
{
    const std::string content = contentOf(2U << 20U);
    m_server.addFile("song.mp3", content);
    const Opened opened = openStream(m_server.plain("/song.mp3"));
    ASSERT_EQ(opened.result, 0);
    std::string got(300000, '\0');
    ASSERT_EQ(opened.stream->read(reinterpret_cast<unsigned char*>(got.data()), 300000), 300000);
    ASSERT_EQ(opened.stream->pause(), 0);
    ASSERT_EQ(opened.stream->resume(), 0);
    expectSame(got + readAll(*opened.stream), content);
    EXPECT_EQ(opened.stream->size(), static_cast<long long>(content.size()));
}

TEST_F(NginxTest, ARedirectIsFollowed)
{
    const std::string content = contentOf(5000);
    m_server.addFile("song.mp3", content);
    const Opened opened = openStream(m_server.plain("/moved"));
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.http().getResponseCode(), 200);
    expectSame(readAll(*opened.stream), content);
}

TEST_F(NginxTest, APinnedAuthorityLetsTheServerIn)
{
    const std::string content = contentOf(3U << 20U);
    m_server.addFile("song.mp3", content);
    const Opened opened = openTrusting(m_server.secure("/song.mp3"), support::certificates().caDirectory);
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.stream->size(), static_cast<long long>(content.size()));
    expectSame(readAll(*opened.stream), content);
    ASSERT_EQ(opened.stream->seek(1000000, SEEK_SET), 0);
    expectSame(readAll(*opened.stream), content.substr(1000000));
}

TEST_F(NginxTest, AnOlderServerWithTls12IsServed)
{
    const std::string content = contentOf(100000);
    m_server.addFile("song.mp3", content);
    const Opened opened =
        openTrusting(m_server.secureTls12("/song.mp3"), support::certificates().caDirectory);
    ASSERT_EQ(opened.result, 0);
    expectSame(readAll(*opened.stream), content);
}

TEST_F(NginxTest, APinnedSelfSignedCertificateLetsTheServerIn)
{
    m_server.addFile("song.mp3", contentOf(1000));
    const support::TempDir folder;
    folder.write("server.pem", support::readFile(support::certificates().selfSigned.pem));
    const Opened opened = openTrusting(m_server.selfSigned("/song.mp3"), folder.path());
    ASSERT_EQ(opened.result, 0);
    expectSame(readAll(*opened.stream), contentOf(1000));
}

TEST_F(NginxTest, CertificatesThatNobodyVouchesForAreRefused)
{
    m_server.addFile("song.mp3", contentOf(1000));
    const Opened untrusted = openStream(m_server.selfSigned("/song.mp3"));
    EXPECT_EQ(untrusted.result, MDCH_HTTP_ECERT);
    EXPECT_EQ(untrusted.ext.error, MDCH_HTTP_ECERT);
    EXPECT_EQ(openTrusting(m_server.selfSigned("/song.mp3"), support::certificates().caDirectory).result,
              MDCH_HTTP_ECERT);
    EXPECT_EQ(openTrusting(m_server.secure("/song.mp3"), support::certificates().unrelatedDirectory).result,
              MDCH_HTTP_ECERT);
    EXPECT_EQ(openTrusting(m_server.wrongHost("/song.mp3"), support::certificates().caDirectory).result,
              MDCH_HTTP_ECERT);
}

TEST_F(NginxTest, AClientCertificateOpensTheDoor)
{
    m_server.addFile("song.mp3", contentOf(1000));
    const support::Certificates& files = support::certificates();
    const std::string url = m_server.clientOnly("/song.mp3");

    const Opened without = openTrusting(url, files.caDirectory);
    EXPECT_EQ(without.result, 2); // the server answers 400
    EXPECT_EQ(without.http().getResponseCode(), 400);

    mdch_UrlExtended_struct ext{};
    ext.caCertPath = files.caDirectory.c_str();
    ext.clientCert = files.clientFiles.pem.c_str();
    const Opened plainKey = openStream(url, ext);
    ASSERT_EQ(plainKey.result, 0);
    expectSame(readAll(*plainKey.stream), contentOf(1000));

    ext.certPasswd = files.clientFiles.password.c_str();
    for (const std::string& file : {files.clientFiles.encryptedPem, files.clientFiles.p12}) {
        ext.clientCert = file.c_str();
        EXPECT_EQ(openStream(url, ext).result, 0) << file;
    }
}

TEST_F(NginxTest, StatusesBecomeErrors)
{
    const struct
    {
        const char* path;
        int status;
        int error;
    } cases[] = {{"/none", 404, 2}, {"/forbidden", 403, 2}, {"/unavailable", 503, 22}, {"/broken", 500, 22}};
    for (const auto& one : cases) {
        const Opened opened = openStream(m_server.plain(one.path));
        EXPECT_EQ(opened.result, one.error) << one.path;
        EXPECT_EQ(opened.ext.error, one.error) << one.path;
        EXPECT_EQ(opened.http().getResponseCode(), one.status) << one.path;
    }
    mdch_UrlExtended_struct ext{};
    EXPECT_EQ(mdch_UrlOpenExt(m_server.plain("/none").c_str(), MDCH_MODE_READ, &ext), 0U);
    EXPECT_EQ(ext.error, 2);
}

TEST_F(NginxTest, TlsOnAPlainPortIsATlsError)
{
    EXPECT_EQ(openStream(m_server.secureToPlain("/song.mp3")).result, MDCH_HTTP_ESSL);
}

TEST_F(NginxTest, RedirectsThatLeadNowhere)
{
    EXPECT_EQ(openStream(m_server.plain("/elsewhere")).result, MDCH_HTTP_EPROTOCOL);
    EXPECT_EQ(openStream(m_server.plain("/circle")).result, MDCH_HTTP_ENETWORK);
}

TEST(Network, RefusedAndUnknownHostsAreNetworkErrors)
{
    const support::LoopbackPort refused = support::closedPort();
    EXPECT_EQ(openStream(refused.url("/song.mp3")).result, MDCH_HTTP_ENETWORK);
    EXPECT_EQ(openStream("http://no-such-host.invalid/song.mp3").result, MDCH_HTTP_ENETWORK);
}

} // namespace
