// Web and media servers.
#include "songs.h"

#include "../support_icecast.h"
#include "../support_media_servers.h"
#include "../support_mpeg.h"
#include "../support_nginx.h"
#include "../support_web_servers.h"

#include "support/certificates.h"
#include "support/sockets.h"
#include "support/wait.h"

#include <cerrno>
#include <chrono>
#include <fstream>
#include <gtest/gtest.h>
#include <type_traits>

namespace matrix {

namespace {

using support::certificates;

constexpr const char* kSong = "/song.mp3";

// The lines that tell of a web server's song.
std::vector<std::string> songHeaders(const std::string& content, const std::string& type)
{
    return {"HTTP/1.1 200 OK", "Content-Type: " + type, "Content-Length: " + std::to_string(content.size()),
            "Accept-Ranges: bytes"};
}

// A server that is not there, for the errors of every column.
Failure refusal()
{
    static const support::LoopbackPort nobody = support::closedPort();
    return {nobody.url(kSong), 0, MDCH_HTTP_ENETWORK};
}

// Of the process's own thread, which stays in the network in which it was started.
class WorkerOfItsOwn
{
public:
    WorkerOfItsOwn() { md::HttpAccess::shutdown(); }
    ~WorkerOfItsOwn() { md::HttpAccess::shutdown(); }
    WorkerOfItsOwn(const WorkerOfItsOwn&) = delete;
    WorkerOfItsOwn& operator=(const WorkerOfItsOwn&) = delete;
};

struct InMediaNetwork
{
    WorkerOfItsOwn worker; // ends outside, behind the network
    support::MediaNetwork network;
};

template <typename WebServer>
std::unique_ptr<SongServer> songOn(const std::shared_ptr<WebServer>& web)
{
    auto server = std::make_unique<SongServer>();
    server->content = songBytes();
    server->headers = songHeaders(server->content, "audio/mpeg");
    web->addFile("song.mp3", server->content);
    server->process = web;
    return server;
}

template <typename WebServer>
std::unique_ptr<Server> plainSong()
{
    const auto web = std::make_shared<WebServer>();
    std::unique_ptr<SongServer> server = songOn(web);
    server->url = web->url(kSong);
    server->moved = web->url("/moved");
    server->failures = {{web->url("/none.mp3"), 404, 2}, {web->url("/forbidden"), 403, 2}, refusal()};
    return server;
}

std::unique_ptr<Server> nginxSong(bool isSecure)
{
    const auto web = std::make_shared<support::Nginx>();
    std::unique_ptr<SongServer> server = songOn(web);
    server->url = isSecure ? web->secure(kSong) : web->plain(kSong);
    server->moved = web->plain("/moved");
    if (isSecure) {
        server->caFolder = certificates().caDirectory;
        server->failures = {{web->secure("/none.mp3"), 404, 2},
                            {web->secureToPlain(kSong), 0, MDCH_HTTP_ESSL},
                            {web->selfSigned(kSong), 0, MDCH_HTTP_ECERT},
                            refusal()};
    } else {
        server->failures = {{web->plain("/none.mp3"), 404, 2},
                            {web->plain("/forbidden"), 403, 2},
                            {web->plain("/unavailable"), 503, 22},
                            {web->plain("/broken"), 500, 22},
                            {web->plain("/circle"), 302, MDCH_HTTP_ENETWORK},
                            refusal()};
    }
    return server;
}

std::unique_ptr<Server> lighttpdSecure()
{
    const auto web = std::make_shared<support::Lighttpd>();
    std::unique_ptr<SongServer> server = songOn(web);
    server->url = web->secureUrl(kSong);
    server->moved = web->secureUrl("/moved");
    server->caFolder = certificates().caDirectory;
    server->failures = {
        {web->secureUrl("/none.mp3"), 404, 2}, {web->secureUrl("/forbidden"), 403, 2}, refusal()};
    return server;
}

std::unique_ptr<Server> icecastFile()
{
    const auto web = std::make_shared<support::Icecast>(support::Icecast::Program::kNone);
    std::unique_ptr<SongServer> server = songOn(web);
    server->headers[0] = "HTTP/1.0 200 OK";
    server->url = web->url(kSong);
    server->failures = {{web->url("/none.mp3"), 404, 2}, refusal()};
    return server;
}

// Its transcoder's output, beside the file.
class TranscodedSong : public SongServer
{
public:
    std::string transcoded;
};

void putSong(const std::string& folder)
{
    std::ofstream(folder + "/song.wav", std::ios::binary) << songAsWave();
}

template <typename MediaServer, typename Song = SongServer>
std::unique_ptr<Song> mediaSong(const std::shared_ptr<void>& surroundings)
{
    const auto media = std::make_shared<MediaServer>(putSong);
    auto server = std::make_unique<Song>();
    server->content = songAsWave();
    server->url = media->onlyItem();
    server->headers = {"HTTP/1.1 200 OK", "Content-Type: audio/x-wav",
                       "Content-Length: " + std::to_string(server->content.size())};
    server->failures = {{media->base() + "/none.wav", 404, 2}, refusal()};
    server->surroundings = surroundings;
    if constexpr (std::is_same_v<Song, TranscodedSong>) {
        server->transcoded = media->item("mp3");
    }
    server->process = media;
    return server;
}

std::unique_ptr<Server> miniDlna()
{
    std::unique_ptr<SongServer> server = mediaSong<support::MiniDlna>(nullptr);
    server->headers = songHeaders(server->content, "audio/x-wav");
    server->headers.emplace_back("transferMode.dlna.org: Streaming");
    server->headers.emplace_back(
        "contentFeatures.dlna.org: "
        "DLNA.ORG_OP=01;DLNA.ORG_CI=0;DLNA.ORG_FLAGS=01700000000000000000000000000000");
    return server;
}

std::unique_ptr<Server> gerbera()
{
    return mediaSong<support::Gerbera>(std::make_shared<InMediaNetwork>());
}

std::unique_ptr<Server> rygel()
{
    std::unique_ptr<TranscodedSong> server =
        mediaSong<support::Rygel, TranscodedSong>(std::make_shared<InMediaNetwork>());
    server->headers.emplace_back("contentFeatures.dlna.org: DLNA.ORG_OP=01");
    server->capability = MDCH_CAPABILITY_BYTE_SEEK;
    return server;
}

// What is transcoded while it is sent has no length, and is sought by time.
void checkTimeSeek(Server& server)
{
    constexpr std::size_t kSample = 50000;
    constexpr std::size_t kFrames = 20;
    const auto& song = dynamic_cast<TranscodedSong&>(server);
    // A busy machine may take longer to start a transcoder than a stream waits for its header.
    constexpr std::chrono::seconds kPatience{60};
    Opened opened;
    const auto opens = [&] {
        opened = open(song, song.transcoded);
        return opened.result == 0;
    };
    ASSERT_TRUE(support::waitUntil(opens, kPatience)) << opened.result;
    MdchUrlBase& stream = *opened.stream;
    EXPECT_NE(stream.capability() & MDCH_CAPABILITY_TIME_SEEK, 0U);
    EXPECT_EQ(stream.isSeekable(), 0);
    EXPECT_LT(stream.size(), 0);
    EXPECT_GE(support::framesIn(read(stream, kSample)), kFrames);
    for (const unsigned int second : {30U, 5U, 50U}) {
        ASSERT_TRUE(support::waitUntil([&] { return stream.seekTime(second * 1000 + 500) == 0; }, kPatience));
        const std::string wanted = "npt=" + std::to_string(second) + ".500-";
        EXPECT_EQ(headerOf(opened, "TimeSeekRange.dlna.org").substr(0, wanted.size()), wanted);
        EXPECT_GE(support::framesIn(read(stream, kSample)), kFrames);
        EXPECT_EQ(stream.error(), 0);
    }
    EXPECT_NE(stream.seek(0, SEEK_SET), 0);
}

// A film that the server does not transcode cannot be sought by time; that disturbs nothing.
void checkNoTimeSeek(Server& server)
{
    const auto& song = dynamic_cast<SongServer&>(server);
    const Opened opened = open(song);
    ASSERT_EQ(opened.result, 0);
    const std::string start = read(*opened.stream, 100000);
    EXPECT_EQ(opened.stream->capability() & MDCH_CAPABILITY_TIME_SEEK, 0U);
    EXPECT_EQ(opened.stream->seekTime(2000), -ESPIPE);
    expectSame(start + read(*opened.stream), song.content);
}

std::vector<Cell> mediaCells(void (*timeSeek)(Server&))
{
    std::vector<Cell> cells = songCells("it sends nobody elsewhere");
    cells.insert(cells.end() - 1, {"TimeSeek", timeSeek, {}}); // the crash costs a start
    return cells;
}

} // namespace

std::vector<Column> fileColumns()
{
    const std::string group = "Web servers";
    return {
        {group, "Nginx", "nginx", {"nginx", "-v"}, [] { return nginxSong(false); }, songCells()},
        {group, "NginxTls", "nginx, https", {"nginx", "-v"}, [] { return nginxSong(true); }, songCells()},
        {group,
         "Lighttpd",
         "lighttpd",
         {support::unpackedFile("/usr/sbin/lighttpd"), "-v"},
         plainSong<support::Lighttpd>,
         songCells()},
        {group,
         "LighttpdTls",
         "lighttpd, https",
         {support::unpackedFile("/usr/sbin/lighttpd"), "-v"},
         lighttpdSecure,
         songCells()},
        {group, "Apache", "Apache httpd", {"apache2", "-v"}, plainSong<support::Apache>, songCells()},
        {group,
         "IcecastFile",
         "Icecast, a file",
         {"icecast2", "-v"},
         icecastFile,
         songCells("it sends nobody elsewhere")},
    };
}

std::vector<Column> mediaColumns()
{
    const std::string group = "Media servers";
    return {
        {group, "MiniDlna", "MiniDLNA", {"minidlnad", "-V"}, miniDlna, mediaCells(checkNoTimeSeek)},
        {group,
         "Gerbera",
         "Gerbera",
         {support::unpackedFile("/usr/bin/gerbera"), "--version"},
         gerbera,
         mediaCells(checkNoTimeSeek)},
        {group,
         "Rygel",
         "Rygel",
         {support::unpackedFile("/usr/bin/rygel"), "--version"},
         rygel,
         mediaCells(checkTimeSeek)},
    };
}

} // namespace matrix
