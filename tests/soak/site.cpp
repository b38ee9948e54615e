#include "site.h"

#include "support/certificates.h"
#include "support/ftp_server.h"
#include "support/http_server.h"
#include "support/slow_icy.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using support::At;
using support::FtpServer;
using support::HttpServer;
using support::Media;
using support::Reply;
using support::Request;

namespace {

std::string radioBody()
{
    const Media sound(Site::kSoundSeed);
    std::string body;
    for (int i = 0; i < Site::kTitles; ++i) {
        body += sound.bytes(static_cast<std::uint64_t>(i) * Site::kInterval, Site::kInterval) +
                support::icyTitleBlock("Title " + std::to_string(i));
    }
    return body;
}

std::string answerAbout(const FtpServer& ftp, const std::string& name)
{
    for (const support::FtpUpload& upload : ftp.uploads()) {
        if (upload.path == "/in/" + name && upload.atEnd) {
            return std::to_string(upload.bytes) + " " + upload.sha256;
        }
    }
    return "none";
}

// Path parts as words.
Reply answer(const Request& request, const Reply& radio, const FtpServer& ftp, const std::string& http)
{
    constexpr std::uint64_t kSlow = 200'000;
    std::string path = request.path;
    for (char& letter : path) {
        letter = letter == '/' ? ' ' : letter;
    }
    std::istringstream words(path);
    std::string kind;
    std::uint64_t size = 0;
    std::uint64_t at = 0;
    words >> kind;
    if (kind == "uploaded") {
        std::string name;
        words >> name;
        return Reply().body(answerAbout(ftp, name));
    }
    words >> size >> at;
    const Reply film = Reply::resource(Media(Site::seedOf(size)), size);
    if (kind == "film") {
        return film;
    }
    if (kind == "slow") {
        return Reply(film).throttle(kSlow);
    }
    if (kind == "cut") {
        return Reply(film).close(At::body(at));
    }
    if (kind == "reset") {
        return Reply(film).reset(At::body(at));
    }
    if (kind == "stall") {
        return Reply(film).stall(At::body(at));
    }
    if (kind == "shifted") {
        return Reply(film).shiftRanges(5);
    }
    if (kind == "status") {
        return Reply::error(static_cast<int>(size));
    }
    if (kind == "hangup") {
        return Reply::hangUp();
    }
    if (kind == "silent") {
        return Reply::silence();
    }
    if (kind == "radio") {
        return radio;
    }
    if (kind == "list.m3u") {
        return Reply()
            .contentType("audio/x-mpegurl")
            .body("#EXTM3U\n#EXTINF:5,Artist - Song\n" + http + "/film/1000\n#EXTINF:-1,News\n" + http +
                  "/radio\n");
    }
    if (kind == "station.m3u") {
        return Reply().contentType("audio/x-mpegurl").body(http + "/radio\n");
    }
    if (kind == "station.asx") {
        return Reply()
            .contentType("video/x-ms-asf")
            .body("<asx><entry><ref href=\"" + http + "/radio\"/></entry></asx>");
    }
    return Reply::error(404);
}

} // namespace

Site::Site()
{
    std::array<int, 2> down{};
    std::array<int, 2> up{};
    if (pipe2(down.data(), O_CLOEXEC) != 0 || pipe2(up.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    support::UniqueFd end(down[1]);
    support::UniqueFd in(down[0]);
    support::UniqueFd said(up[0]);
    support::UniqueFd out(up[1]);
    m_process = fork();
    if (m_process < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_process == 0) {
        end.reset();
        said.reset();
        try {
            serve(in, std::move(out));
        } catch (const std::exception& problem) {
            std::cerr << "the servers: " << problem.what() << std::endl;
        }
        std::exit(EXIT_SUCCESS); // the certificates' files go
    }
    m_end = std::move(end);
    out.reset();
    std::string text;
    std::array<char, 4096> part{};
    for (ssize_t count = 1; count > 0; text.append(part.data(), static_cast<std::size_t>(count))) {
        count = read(said.get(), part.data(), part.size());
        if (count < 0) {
            throw std::system_error(errno, std::generic_category(), "the servers do not start");
        }
    }
    take(text);
}

Site::~Site()
{
    m_end.reset();
    waitpid(m_process, nullptr, 0);
}

void Site::serve(const support::UniqueFd& in, support::UniqueFd out)
{
    const support::LoopbackPort nobody = support::closedPort();
    FtpServer taking;
    FtpServer refusing;
    refusing.answer(FtpServer::finalReply, "552 full");
    FtpServer breaking;
    breaking.dataPoint(1000);
    breaking.close(FtpServer::data);
    HttpServer plain;
    HttpServer secure{support::Tls(support::certificates().leaf)};
    const Reply station = Reply::icy("Radio", kInterval).body(radioBody());
    for (HttpServer* server : {&plain, &secure}) {
        server->recordNothing();
        server->otherwise([&, url = plain.url("")](const Request& request) {
            return answer(request, station, taking, url);
        });
    }
    const std::string text = plain.url("") + " " + secure.url("") + " " + nobody.url("") + " " +
                             support::certificates().caDirectory + " " +
                             support::certificates().unrelatedDirectory + " " + taking.host() + " " +
                             refusing.host() + " " + breaking.host() + "\n";
    if (write(out.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return;
    }
    out.reset();
    char byte = 0;
    while (read(in.get(), &byte, 1) < 0 && errno == EINTR) { // until the other end is closed
    }
}

void Site::take(const std::string& text)
{
    std::istringstream words(text);
    words >> http >> https >> refused >> caFolder >> otherFolder >> ftp >> ftpRefusing >> ftpBreaking;
    if (!words) {
        throw std::runtime_error("the servers do not start");
    }
}
