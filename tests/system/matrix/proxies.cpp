// A web server behind proxies that want a log-in: forwarded requests, and tunnels for https.
#include "songs.h"

#include "../support_nginx.h"
#include "../support_proxies.h"

#include "mdc_hlp_httpproxy.h"
#include "support/certificates.h"
#include "support/sockets.h"

#include <gtest/gtest.h>

namespace matrix {

namespace {

constexpr const char* kSong = "/song.mp3";

// The one proxy of the process; none again at the end.
class ProxySetting
{
public:
    ProxySetting(const ProxySetting&) = delete;
    ProxySetting& operator=(const ProxySetting&) = delete;
    explicit ProxySetting(const support::ProxyServer& proxy)
    {
        m_setting.host = "127.0.0.1";
        m_setting.port = proxy.port();
        m_setting.user = proxy.user();
        m_setting.password = proxy.password();
        logIn();
    }
    ~ProxySetting() { md::setHttpProxyInfo(m_setting, false, false); }

    void logIn() const { md::setHttpProxyInfo(m_setting, true, true); }
    void logInWith(const std::string& password) const
    {
        md::httpProxyInfo_struct wrong = m_setting;
        wrong.password = password;
        md::setHttpProxyInfo(wrong, true, true);
    }
    void stayUnknown() const { md::setHttpProxyInfo(m_setting, true, false); }

private:
    md::httpProxyInfo_struct m_setting;
};

// What a proxy answers to somebody it does not know.
struct Refusals
{
    int unknown;       // status
    int wrongPassword; // status
};

class SongBehindProxy : public SongServer
{
public:
    std::unique_ptr<support::Nginx> web = std::make_unique<support::Nginx>();
    std::unique_ptr<ProxySetting> setting;
    Refusals refusals{};
    bool isTunnel = false;
};

template <typename Proxy>
std::unique_ptr<Server> songBehind(bool isTunnel, Refusals refusals, int unreachable)
{
    static const support::LoopbackPort nobody = support::closedPort();
    auto server = std::make_unique<SongBehindProxy>();
    const auto proxy = std::make_shared<Proxy>();
    server->content = songBytes();
    server->web->addFile("song.mp3", server->content);
    server->setting = std::make_unique<ProxySetting>(*proxy);
    server->process = proxy;
    server->refusals = refusals;
    server->isTunnel = isTunnel;
    server->headers = {"HTTP/1.1 200 OK", "Content-Type: audio/mpeg",
                       "Content-Length: " + std::to_string(server->content.size()), "Accept-Ranges: bytes"};
    server->moved = server->web->plain("/moved");
    if (isTunnel) {
        server->url = server->web->secure(kSong);
        server->caFolder = support::certificates().caDirectory;
        server->failures = {
            {server->web->secure("/none.mp3"), 404, 2},
            {"https://127.0.0.1:" + std::to_string(nobody.port()) + kSong, 0, MDCH_HTTP_ENETWORK},
            {server->web->selfSigned(kSong), 0, MDCH_HTTP_ECERT}};
    } else {
        server->url = server->web->plain(kSong);
        server->failures = {{server->web->plain("/none.mp3"), 404, 2},
                            {server->web->plain("/unavailable"), 503, 22},
                            {nobody.url(kSong), unreachable, 22}};
    }
    return server;
}

void expectRefused(const SongBehindProxy& server, int status)
{
    const Opened opened = open(server);
    if (server.isTunnel) {
        EXPECT_EQ(opened.result, MDCH_HTTP_ENETWORK); // the proxy's answer is none of the server's
    } else {
        EXPECT_EQ(opened.result, 2);
        EXPECT_EQ(opened.http().getResponseCode(), status);
    }
}

void checkLogIn(Server& server)
{
    const auto& song = dynamic_cast<SongBehindProxy&>(server);
    song.setting->stayUnknown();
    expectRefused(song, song.refusals.unknown);
    song.setting->logInWith("open barley");
    expectRefused(song, song.refusals.wrongPassword);
    song.setting->logIn();
    const Opened opened = open(song);
    ASSERT_EQ(opened.result, 0);
    expectSame(read(*opened.stream, 1000), song.content.substr(0, 1000));
}

std::vector<Cell> proxyCells(bool isTunnel)
{
    std::vector<Cell> cells = songCells(isTunnel ? "a tunnel does not see it" : "");
    cells.insert(cells.end() - 1, {"LogIn", checkLogIn, {}}); // the crash costs a start
    return cells;
}

} // namespace

std::vector<Column> proxyColumns()
{
    using support::Squid;
    using support::Tinyproxy;
    const std::string group = "Proxies";
    const std::vector<std::string> squid = {support::unpackedFile("/usr/sbin/squid"), "-v"};
    const std::vector<std::string> tinyproxy = {"tinyproxy", "-v"};
    const Refusals strict{407, 407};
    const Refusals odd{407, 401};
    return {
        {group, "Squid", "squid", squid, [=] { return songBehind<Squid>(false, strict, 503); },
         proxyCells(false)},
        {group, "SquidTunnel", "squid, CONNECT", squid, [=] { return songBehind<Squid>(true, strict, 503); },
         proxyCells(true)},
        {group, "Tinyproxy", "tinyproxy", tinyproxy, [=] { return songBehind<Tinyproxy>(false, odd, 500); },
         proxyCells(false)},
        {group, "TinyproxyTunnel", "tinyproxy, CONNECT", tinyproxy,
         [=] { return songBehind<Tinyproxy>(true, odd, 500); }, proxyCells(true)},
    };
}

} // namespace matrix
