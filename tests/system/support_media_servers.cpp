#include "support_media_servers.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>

namespace support {

namespace {

std::string unescaped(std::string text)
{
    const std::pair<const char*, const char*> entities[] = {
        {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&amp;", "&"}};
    for (const auto& [entity, letter] : entities) {
        for (std::size_t at = 0; (at = text.find(entity, at)) != std::string::npos; ++at) {
            text.replace(at, std::string(entity).size(), letter);
        }
    }
    return text;
}

// What stands between two marks, again and again.
std::vector<std::string> allBetween(const std::string& text, const std::string& begin, const std::string& end)
{
    std::vector<std::string> found;
    for (std::size_t at = 0; (at = text.find(begin, at)) != std::string::npos;) {
        at += begin.size();
        found.push_back(text.substr(at, text.find(end, at) - at));
    }
    return found;
}

std::string firstBetween(const std::string& text, const std::string& begin, const std::string& end)
{
    const std::vector<std::string> all = allBetween(text, begin, end);
    return all.empty() ? std::string() : all.front();
}

} // namespace

MediaServer::MediaServer(const std::string& name, const PutMedia& putMedia, std::string control,
                         std::string root)
    : LocalServer(name), m_control(std::move(control)), m_root(std::move(root))
{
    putMedia(folder().makeDir("media"));
    m_files = static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(mediaFolder()),
                                                     std::filesystem::directory_iterator()));
}

bool MediaServer::isReady()
{
    constexpr int kDeepest = 8;
    m_items.clear();
    findItems(m_root, kDeepest);
    return m_items.size() >= m_files;
}

std::string MediaServer::browse(const std::string& container) const
{
    const std::string body =
        "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
        "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
        "<u:Browse xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\"><ObjectID>" +
        container +
        "</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter>"
        "<StartingIndex>0</StartingIndex><RequestedCount>0</RequestedCount><SortCriteria></SortCriteria>"
        "</u:Browse></s:Body></s:Envelope>";
    const Result answer =
        runToEnd({"curl", "--silent", "--noproxy", "*", "--header", "Content-Type: text/xml", "--header",
                  "SOAPAction: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"", "--data", body,
                  base() + m_control});
    return unescaped(answer.out);
}

void MediaServer::findItems(const std::string& container, int depth)
{
    const std::string listing = browse(container);
    for (const std::string& item : allBetween(listing, "<item ", "</item>")) {
        for (const std::string& resource : allBetween(item, "<res ", "</res>")) {
            const std::string address = unescaped(resource.substr(resource.find('>') + 1));
            if (m_items.empty()) {
                m_first = address; // of an item, the file itself comes first
            }
            m_items.try_emplace(address.substr(address.rfind('.') + 1), address);
        }
    }
    if (depth > 0 && m_items.empty()) {
        for (const std::string& below : allBetween(listing, "<container ", ">")) {
            findItems(firstBetween(" " + below, " id=\"", "\""), depth - 1);
        }
    }
}

MiniDlna::MiniDlna(const PutMedia& putMedia) : MediaServer("minidlna", putMedia, "/ctl/ContentDir", "64")
{
    ProcessOptions options;
    options.withoutPrivileges = true;
    start(1, options);
}

// It lists an item while it still looks into it, and may list more than one address of it.
bool MiniDlna::isReady()
{
    const std::filesystem::directory_iterator files(mediaFolder());
    return MediaServer::isReady() &&
           std::all_of(begin(files), end(files), [this](const std::filesystem::directory_entry& file) {
               return lists(file.path().extension().string().substr(1));
           });
}

std::vector<std::string> MiniDlna::command()
{
    // A database of its own for each attempt.
    const std::string state = folder().makeDir("state" + std::to_string(port()));
    const std::string file =
        folder().write("minidlna.conf", "port=" + std::to_string(port()) +
                                            "\nnetwork_interface=lo\ninotify=no\nfriendly_name=test\n"
                                            "media_dir=" +
                                            mediaFolder() + "\ndb_dir=" + state + "\nlog_dir=" + state +
                                            "\nminissdpdsocket=" + state + "/none\n");
    return {"minidlnad", "-d", "-R", "-f", file, "-P", state + "/pid"};
}

MediaNetwork::MediaNetwork()
{
    if (!m_network) {
        throw Unavailable(m_network.problem());
    }
    // Without IPv6: its addresses cannot be used before they are known to be the only ones.
    const std::string name = kInterface;
    m_network.ip("link add " + name + " type veth peer name other");
    m_network.ip("link set " + name + " addrgenmode none");
    m_network.ip("link set other addrgenmode none");
    m_network.ip("address add " + std::string(kAddress) + "/24 dev " + name);
    m_network.ip("link set " + name + " up");
    m_network.ip("link set other up");
    m_network.ip("route replace 224.0.0.0/4 dev " + name);
}

Gerbera::Gerbera(const PutMedia& putMedia) : MediaServer("gerbera", putMedia, "/upnp/control/cds", "0")
{
    start(0);
}

std::string Gerbera::base() const
{
    return std::string("http://") + MediaNetwork::kAddress + ":" + std::to_string(m_port);
}

std::vector<std::string> Gerbera::command()
{
    ++m_port; // another one for each attempt
    const std::string home = folder().makeDir("home" + std::to_string(m_port));
    const std::string data = unpackedFile("/usr/share/gerbera");
    const std::string file = folder().write(
        "config.xml",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<config version=\"2\" xmlns=\"http://mediatomb.cc/config/2\">\n"
        "<server><ui enabled=\"no\"/><name>test</name>"
        "<udn>uuid:5c02b3a4-1111-4222-8333-123456789abc</udn><home>" +
            home + "</home><webroot>" + data +
            "/web</webroot><storage><sqlite3 enabled=\"yes\"><database-file>db</database-file></sqlite3>"
            "</storage></server>\n"
            "<import hidden-files=\"no\"><scripting script-charset=\"UTF-8\"><common-script>" +
            data + "/js/common.js</common-script><playlist-script>" + data +
            "/js/playlists.js</playlist-script><virtual-layout type=\"disabled\"/></scripting>"
            "<mappings><extension-mimetype ignore-unknown=\"no\"><map from=\"wav\" to=\"audio/x-wav\"/>"
            "</extension-mimetype></mappings></import>\n</config>\n");
    return {unpackedFile("/usr/bin/gerbera"),
            "--ip",
            MediaNetwork::kAddress,
            "--port",
            std::to_string(m_port),
            "--config",
            file,
            "--home",
            home,
            "--add",
            mediaFolder()};
}

// It finds its files in /usr and /etc only: there they are for this process alone, laid over the machine's own.
Rygel::Rygel(const PutMedia& putMedia)
    : MediaServer("rygel", putMedia, "/Control/MediaExport/RygelContentDirectory", "0")
{
    const Result overlay = runToEnd({"unshare", "--mount", "mount", "-t", "overlay", "overlay", "-o",
                                     "lowerdir=" + unpackedFile("/usr") + ":/usr", "/usr"});
    if (overlay.status != 0) {
        throw Unavailable("no overlay file system in a mount namespace: " + overlay.err);
    }
    const std::string home = folder().makeDir("home");
    ProcessOptions options;
    options.setting = {"HOME=" + home, "XDG_CACHE_HOME=" + home, "XDG_CONFIG_HOME=" + home,
                       "XDG_DATA_HOME=" + home, "XDG_RUNTIME_DIR=" + home,
                       // What there is of its plugins takes seconds to find out, the first time.
                       "GST_REGISTRY=" + unpackedFile("/gstreamer-registry")};
    options.unset = {"DBUS_SESSION_BUS_ADDRESS", "DISPLAY"};
    start(1, options);
}

std::vector<std::string> Rygel::command()
{
    folder().write("etc/rygel.conf",
                   "[general]\nipv6=false\ninterface=" + std::string(MediaNetwork::kInterface) +
                       "\nport=" + std::to_string(port()) +
                       "\nupnp-enabled=true\nenable-transcoding=true\nallow-upload=false\n"
                       "allow-deletion=false\nlog-level=*:3\nacl-fallback-policy=true\n"
                       "media-engine=librygel-media-engine-gst.so\n"
                       "[GstMediaEngine]\ntranscoders=mp3\n"
                       "[MediaExport]\nenabled=true\ntitle=test\nuris=" +
                       mediaFolder() +
                       "\nextract-metadata=true\nmonitor-changes=false\nvirtual-folders=false\n"
                       "[MPRIS]\nenabled=false\n[External]\nenabled=false\n");
    const std::string script = "mount -t overlay overlay -o lowerdir=\"$1\":/usr /usr && "
                               "mount -t overlay overlay -o lowerdir=\"$2\":/etc /etc && exec /usr/bin/rygel";
    return {"unshare", "--mount", "sh", "-c", script, "rygel", unpackedFile("/usr"), folder().file("etc")};
}

} // namespace support
