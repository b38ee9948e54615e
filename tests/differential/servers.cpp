#include "servers.h"

#include "support/http_server.h"
#include "support_nginx.h"

#include <mutex>
#include <random>
#include <stdexcept>
#include <unistd.h>

using support::At;
using support::HttpServer;
using support::Nginx;
using support::Reply;
using support::Request;

namespace {

constexpr const char* kPath = "/resource.bin";
constexpr const char* kNginx = "/usr/sbin/nginx";

// Ends some replies early: in order, with a reset, or before the first byte.
class Dropper
{
public:
    explicit Dropper(std::uint32_t seed) : m_random(seed) {}

    Reply reply(const Request& request)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        Reply whole = Reply::resource(TestedServer::media(), TestedServer::kSize);
        const unsigned choice = upTo(9);
        const std::uint64_t place = 1 + upTo(400'000);
        if (choice < 2) {
            return whole.close(At::body(place));
        }
        if (choice < 4) {
            return whole.reset(At::body(place));
        }
        // A stream that never had a header has nothing to compare: its first reply always begins.
        return choice == 4 && request.hasHeader("Range") ? Reply::hangUp() : whole;
    }

private:
    unsigned upTo(unsigned most) { return std::uniform_int_distribution<unsigned>(0, most)(m_random); }

    std::mutex m_mutex;
    std::mt19937 m_random; // guarded by m_mutex: replies are made on the connections' threads
};

class ScriptedServer : public TestedServer
{
public:
    ScriptedServer(const std::string& kind, std::uint32_t seed) : m_dropper(seed)
    {
        const Reply whole = Reply::resource(media(), kSize);
        if (kind == "length") {
            m_server.on(kPath, whole);
        } else if (kind == "chunked") {
            m_server.on(kPath, Reply(whole).chunked({5000, 40'000, 1, 16'384}));
        } else if (kind == "noranges") {
            m_server.on(kPath, Reply(whole).ignoreRanges());
        } else if (kind == "ignoring") {
            m_server.on(kPath, Reply(whole).ignoreRanges().header("Accept-Ranges: bytes"));
        } else if (kind == "shifted") {
            m_server.on(kPath, Reply(whole).shiftRanges(-7'777));
        } else if (kind == "dropping") {
            m_server.on(kPath, [this](const Request& request) { return m_dropper.reply(request); });
        } else {
            throw std::invalid_argument("no such server: " + kind);
        }
    }

    std::string url() const override { return m_server.url(kPath); }
    std::optional<std::size_t> connections() const override { return m_server.connectionCount(); }

private:
    Dropper m_dropper;
    HttpServer m_server;
};

class NginxServer : public TestedServer
{
public:
    NginxServer() { m_nginx.addFile("resource.bin", media().bytes(0, kSize)); }

    std::string url() const override { return m_nginx.plain(kPath); }
    std::optional<std::size_t> connections() const override { return std::nullopt; }

private:
    Nginx m_nginx;
};

} // namespace

const std::vector<Kind>& allKinds()
{
    static const std::vector<Kind> kinds = {
        {"length", true, false, true, false},   {"chunked", true, false, false, false},
        {"noranges", false, true, true, false}, {"ignoring", true, true, true, false},
        {"shifted", true, false, true, false},  {"dropping", true, false, true, true},
        {"nginx", true, false, true, false},
    };
    return kinds;
}

bool TestedServer::isThere(const Kind& kind)
{
    return std::string(kind.name) != "nginx" || access(kNginx, X_OK) == 0;
}

std::unique_ptr<TestedServer> TestedServer::make(const Kind& kind, std::uint32_t seed)
{
    if (std::string(kind.name) == "nginx") {
        return std::make_unique<NginxServer>();
    }
    return std::make_unique<ScriptedServer>(kind.name, seed);
}

const support::Media& TestedServer::media()
{
    static const support::Media instance(31);
    return instance;
}
