// "openssl s_server": TLS as old and as odd as it comes.
#include "songs.h"

#include "../support_openssl_server.h"

#include "support/certificates.h"

#include <gtest/gtest.h>
#include <utility>

namespace matrix {

namespace {

using support::certificates;
using support::Identity;
using support::OpensslServer;

constexpr const char* kSong = "/song.mp3";
constexpr const char* kText = "la la la";

std::unique_ptr<Server> oddServer()
{
    const auto web = std::make_shared<OpensslServer>(certificates().leaf);
    auto server = std::make_unique<SongServer>();
    server->content = songBytes();
    web->addFile("song.mp3", server->content);
    server->url = web->secureUrl(kSong);
    server->caFolder = certificates().caDirectory;
    server->headers = {"HTTP/1.0 200 ok", "Content-type: text/plain"};
    server->capability = MDCH_CAPABILITY_STALLING;
    server->process = web;
    return server;
}

// The result of an open at a server of that kind; a success has read the text.
int resultAt(const Identity& identity, const std::vector<std::string>& options,
             const std::string& clientCertificate = {},
             const std::string& caFolder = certificates().caDirectory)
{
    const OpensslServer web(identity, options);
    web.addFile("song.mp3", kText);
    SongServer server;
    server.url = web.secureUrl(kSong);
    server.caFolder = caFolder;
    server.clientCertificate = clientCertificate;
    const Opened opened = open(server);
    if (opened.result == 0) {
        EXPECT_EQ(read(*opened.stream), kText);
    }
    return opened.result;
}

// Without a length an end that comes too early looks like any other.
void checkCrash(Server& server)
{
    auto& song = dynamic_cast<SongServer&>(server);
    const Opened opened = open(song);
    ASSERT_EQ(opened.result, 0);
    const std::string start = read(*opened.stream, 100000);
    song.process.reset();
    const std::string rest = read(*opened.stream);
    expectSame(start + rest, song.content.substr(0, start.size() + rest.size()));
    EXPECT_LT(start.size() + rest.size(), song.content.size());
    EXPECT_TRUE(opened.stream->eof() != 0 || opened.stream->error() != 0);
    EXPECT_EQ(open(song).result, MDCH_HTTP_ENETWORK);
}

void checkNoLength(Server& server)
{
    const Opened opened = open(dynamic_cast<SongServer&>(server));
    ASSERT_EQ(opened.result, 0);
    EXPECT_LT(opened.stream->size(), 0);
    EXPECT_EQ(opened.stream->isSeekable(), 0);
    EXPECT_NE(opened.stream->seek(1000, SEEK_SET), 0);
    EXPECT_NE(opened.stream->seek(0, SEEK_END), 0);
    EXPECT_EQ(opened.stream->tell(), 0);
}

// The one list of ciphers that streams offer below TLS 1.3 is for RSA keys.
void checkVersions(Server& /*server*/)
{
    const Identity& rsa = certificates().rsaLeaf();
    EXPECT_EQ(resultAt(certificates().leaf, {"-tls1_3"}), 0);
    EXPECT_EQ(resultAt(rsa, {"-tls1_3"}), 0);
    EXPECT_EQ(resultAt(rsa, {"-tls1_2"}), 0);
    EXPECT_EQ(resultAt(certificates().leaf, {"-tls1_2"}), MDCH_HTTP_ESSL);
}

// OpenSSL 3 on this system wants at least TLS 1.2.
void checkOldVersions(Server& /*server*/)
{
    const Identity& rsa = certificates().rsaLeaf();
    for (const char* version : {"-tls1_1", "-tls1"}) {
        EXPECT_EQ(resultAt(rsa, {version, "-cipher", "ALL:@SECLEVEL=0"}), MDCH_HTTP_ESSL) << version;
    }
}

void checkClientCertificate(Server& /*server*/)
{
    const std::vector<std::string> strict = {"-Verify", "1", "-CAfile", certificates().ca.pem,
                                             "-verify_return_error"};
    EXPECT_EQ(resultAt(certificates().leaf, strict, certificates().clientFiles.pem), 0);
    const std::vector<std::string> strict12 = {
        "-Verify", "1", "-CAfile", certificates().ca.pem, "-verify_return_error", "-tls1_2"};
    EXPECT_EQ(resultAt(certificates().rsaLeaf(), strict12, certificates().clientFiles.pem), 0);
    EXPECT_EQ(resultAt(certificates().rsaLeaf(), strict12), MDCH_HTTP_ESSL);
    EXPECT_NE(resultAt(certificates().leaf, strict),
              0); // with TLS 1.3 the refusal comes behind the handshake
}

void checkExpired(Server& /*server*/)
{
    EXPECT_EQ(resultAt(certificates().expiredLeaf, {}), MDCH_HTTP_ECERT);
}

void checkWrongHost(Server& /*server*/)
{
    EXPECT_EQ(resultAt(certificates().wrongHostLeaf, {}), MDCH_HTTP_ECERT);
}

void checkUntrusted(Server& /*server*/)
{
    EXPECT_EQ(resultAt(certificates().leaf, {}, {}, certificates().unrelatedDirectory), MDCH_HTTP_ECERT);
    EXPECT_EQ(resultAt(certificates().selfSigned, {}), MDCH_HTTP_ECERT);
    EXPECT_EQ(resultAt(certificates().lonelyLeaf, {}), MDCH_HTTP_ECERT);
    EXPECT_EQ(resultAt(certificates().intermediateLeaf, {"-cert_chain", certificates().intermediate.pem}), 0);
}

} // namespace

std::vector<Column> tlsColumns()
{
    const std::string noRange = "it sends neither lengths nor ranges";
    return {{"TLS",
             "OpensslServer",
             "openssl s_server",
             {"openssl", "version"},
             oddServer,
             {songCell("Open"),
              {"NoLength", checkNoLength, {}},
              songCell("Whole"),
              noCell("HundredSeeks", noRange),
              noCell("SeekToTheEnd", noRange),
              songCell("PauseAndResume"),
              songCell("Reopen"),
              noCell("TwoAtOnce", "it serves one connection after the other"),
              songCell("Headers"),
              {"Crash", checkCrash, {}},
              {"TlsVersions", checkVersions, {}},
              {"OldTlsVersions", checkOldVersions, {}},
              {"ClientCertificate", checkClientCertificate, {}},
              {"Expired", checkExpired, {}},
              {"WrongHost", checkWrongHost, {}},
              {"Untrusted", checkUntrusted, {}}}}};
}

} // namespace matrix
