// What stands beside and on top of streams: proxy, URLs, playlists, redirects, radio titles, uploads.
#include "each_call.h"
#include "mdc_hlp_http_access.h"
#include "mdc_hlp_httpproxy.h"
#include "mdc_hlp_icy.h"
#include "mdc_hlp_playlist.h"
#include "mdc_hlp_redirect.h"
#include "mdc_hlp_upload.h"
#include "mdc_hlp_url_encode.h"
#include "mdc_hlp_url_patch.h"
#include "support/ftp_server.h"
#include "support/http_proxy.h"
#include "support/http_server.h"
#include "support/media.h"
#include "support/scripted_stream.h"
#include "support/slow_icy.h"
#include "support/temp_dir.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <deque>
#include <gtest/gtest.h>
#include <list>
#include <optional>
#include <vector>

namespace {

using faults::EachCall;
using faults::inLibrary;
using faults::Kind;
using faults::Outcome;
using support::HttpServer;
using support::Media;
using support::Reply;

// Either the new setting holds afterwards, or the one before.
TEST(ProxyFaults, leaveOneSettingWhole)
{
    md::httpProxyInfo_struct former;
    former.host = "former.proxy.example.beyond.any.small.text";
    former.port = 1;
    former.user = "a former user beyond any small text";
    md::httpProxyInfo_struct next = former;
    next.host = "next.proxy.example.beyond.any.small.text";
    next.port = 2;
    const auto scenario = [&]() -> Outcome {
        md::setHttpProxyInfo(former, true, true);
        const bool isSet = inLibrary([&] { md::setHttpProxyInfo(next, true, true); });
        md::httpProxyInfo_struct found;
        md::getHttpProxyInfo(found);
        const md::httpProxyInfo_struct& wanted = isSet ? next : former;
        if (found.host != wanted.host || found.port != wanted.port || found.user != wanted.user) {
            return Outcome::wrong("a mixture");
        }
        md::httpProxyInfo_struct again;
        const bool isRead = inLibrary([&] { md::getHttpProxyInfo(again); });
        return isSet && isRead ? Outcome() : Outcome::failed("no memory");
    };
    faults::eachCallFails(Kind::kMemory, scenario, {1, false, 5});
    md::setHttpProxyInfo(former, false, false);
}

// A request for which the proxy cannot be set does not go out past it.
TEST(ProxyFaults, sendNothingPastTheProxy)
{
    HttpServer server;
    server.on("/a", Reply().body("ok"));
    support::HttpProxy proxy;
    proxy.requireBasic("user", "secret");
    md::httpProxyInfo_struct setting;
    setting.host = "127.0.0.1";
    setting.port = proxy.port();
    setting.user = "user";
    setting.password = "secret";
    md::setHttpProxyInfo(setting, true, true);
    const std::string url = server.url("/a");
    const auto scenario = [&]() -> Outcome {
        const std::size_t before = proxy.requests().size();
        const std::size_t servedBefore = server.requests().size();
        std::string bytes;
        int error = 0;
        if (!inLibrary([&] {
                md::HttpAccess stream;
                const int opened = stream.open(url.c_str(), 0);
                unsigned char buffer[10];
                const int count = stream.read(buffer, sizeof buffer);
                error = opened < 0 ? opened : stream.error();
                const faults::OutsideLibrary outside;
                bytes.assign(buffer, buffer + std::max(count, 0));
            })) {
            return Outcome::failed("no memory");
        }
        if (server.requests().size() - servedBefore > proxy.requests().size() - before) {
            return Outcome::wrong("a request went past the proxy");
        }
        if (bytes == "ok" && error == 0) {
            return {};
        }
        return error != 0 && bytes.empty()
                   ? Outcome::failed("error " + std::to_string(error))
                   : Outcome::wrong("'" + bytes + "', error " + std::to_string(error));
    };
    faults::eachCallFails(Kind::kCurl, scenario, {1, false, 20});
    faults::eachCallFails(Kind::kMemory, scenario, {1, false, 5});
    faults::eachCallFails(Kind::kCurlMemory, scenario, {3, false, 20});
    md::setHttpProxyInfo(setting, false, false);
}

TEST(TextFaults, ofUrls)
{
    const std::string url = "http://radio.example/a path beyond any small text/\xe4\xf6\xfc?q=%41";
    const std::string encoded = md::urlEncode(url);
    const std::string repaired = md::urlPatch(url);
    const auto scenario = [&]() -> Outcome {
        std::string texts[3];
        if (!inLibrary([&] {
                texts[0] = md::urlEncode(url);
                texts[1] = md::urlDecode(texts[0]);
                texts[2] = md::urlPatch(url);
            })) {
            return Outcome::failed("no memory");
        }
        return texts[0] == encoded && texts[1] == url && texts[2] == repaired ? Outcome()
                                                                              : Outcome::wrong("other texts");
    };
    faults::eachCallFails(Kind::kMemory, scenario, {1, false, 3});
}

TEST(TextFaults, ofPlaylists)
{
    const support::TempDir folder;
    const std::string list =
        folder.write("list.m3u", "#EXTM3U\n#PLAYLIST:A name beyond any small text\n"
                                 "#EXTINF:12,An artist beyond small texts - A title beyond small texts\n"
                                 "http://radio.example/a-first-item-beyond-small-texts.mp3\n"
                                 "http://radio.example/a-second-item-beyond-small-texts.mp3\n");
    const auto scenario = [&]() -> Outcome {
        std::list<md::PlaylistEntry> entries;
        std::string text;
        int result = 0;
        if (!inLibrary(
                [&] { result = md::scanPlaylist(list, entries, text, md::kConversionLatin1ToUtf8); })) {
            return Outcome::wrong("it throws");
        }
        int number = 0;
        for (const md::PlaylistEntry& entry : entries) {
            const std::string which = number++ == 0 ? "first" : "second";
            if (entry.locator != "http://radio.example/a-" + which + "-item-beyond-small-texts.mp3" ||
                entry.title != (number == 1 ? "A title beyond small texts" : "")) {
                return Outcome::wrong("a wrong entry: " + entry.locator);
            }
        }
        if (result != 0) {
            return Outcome::failed("result " + std::to_string(result));
        }
        // A list that could not be taken apart gives 0 and the entries so far.
        return number == 2 && text == "A name beyond any small text" ? Outcome()
                                                                     : Outcome::failed("entries are missing");
    };
    for (const Kind kind : {Kind::kMemory, Kind::kDescriptor, Kind::kFileFacts}) {
        faults::eachCallFails(kind, scenario);
    }
}

TEST(RedirectFaults, giveAnErrorOrTheRightAddress)
{
    HttpServer server;
    server.on("/station", Reply()
                              .contentType("audio/x-mpegurl")
                              .body("#EXTM3U\nhttp://radio.example/a-stream-beyond-any-small-text\n"));
    const std::string url = server.url("/station");
    const auto scenario = [&]() -> Outcome {
        std::deque<std::string> found;
        int result = 0;
        if (!inLibrary([&] { result = md::streamNeedRedirect(url, found); })) {
            return Outcome::wrong("it throws");
        }
        if (result < 0) {
            return found.empty() ? Outcome::failed("result " + std::to_string(result))
                                 : Outcome::wrong("an error, and an address");
        }
        return result == 1 &&
                       found == std::deque<std::string>{"http://radio.example/a-stream-beyond-any-small-text"}
                   ? Outcome()
                   : Outcome::wrong("result " + std::to_string(result));
    };
    faults::eachCallFails(Kind::kMemory, scenario, {1, false, 20});
    faults::eachCallFails(Kind::kCurl, scenario, {1, false, 20});
    faults::eachCallFails(Kind::kDescriptor, scenario);
    faults::eachCallFails(Kind::kThread, scenario);
}

TEST(RadioFaults, loseATitleAtMost)
{
    const std::string block = support::icyBlock("StreamTitle='Artist - A title beyond any small text';");
    const auto scenario = [&]() -> Outcome {
        const auto stream = boost::make_shared<support::ScriptedStream>("abcd" + block + "efgh");
        stream->reserveRequests(16);
        std::optional<md::IcyReader> radio;
        unsigned char buffer[8];
        int count = 0;
        if (!inLibrary([&] { radio.emplace(stream, 4); })) {
            return Outcome::failed("no reader");
        }
        if (!inLibrary([&] { count = radio->read(buffer, 8); })) {
            return Outcome::wrong("a read throws");
        }
        if (count != 8 || std::string(buffer, buffer + 8) != "abcdefgh") {
            return Outcome::wrong("other bytes");
        }
        const std::string title = radio->title();
        if (title.empty()) {
            return Outcome::failed("the title is lost");
        }
        return title == "Artist - A title beyond any small text" ? Outcome() : Outcome::wrong(title);
    };
    faults::eachCallFails(Kind::kMemory, scenario, {1, false, 3});
}

class UploadFaults : public testing::Test
{
protected:
    Outcome upload()
    {
        const std::string name = "a-file-beyond-any-small-text." + std::to_string(++m_runs);
        int result = 0;
        if (!inLibrary([&] {
                md::FtpAccess access;
                access.setServerUrl(m_server.host());
                access.setServerPath("a-folder-beyond-any-small-text");
                access.setUserName("user");
                access.setUserPassword("secret");
                access.setSourceFile(m_file);
                access.setUploadedFile(name);
                result = access.upload();
            })) {
            return Outcome::failed("no memory for the settings");
        }
        if (result != 0) {
            return Outcome::failed("result " + std::to_string(result));
        }
        if (faults::curlGaveNoHandle()) {
            return Outcome::failed("no handle, which counts as a success by old custom");
        }
        return hasArrived(name) ? Outcome() : Outcome::wrong("a success without the file");
    }

    // What earlier runs left behind may come late.
    bool hasArrived(const std::string& name) const
    {
        return support::waitUntil([&] {
            const auto uploads = m_server.uploads();
            return std::any_of(uploads.begin(), uploads.end(), [&](const support::FtpUpload& one) {
                return one.path.find(name) != std::string::npos && one.atEnd && one.sha256 == m_digest;
            });
        });
    }

    void check(Kind kind, const EachCall& how = {})
    {
        faults::eachCallFails(
            kind, [this] { return upload(); }, how);
    }

    static constexpr std::size_t kBytes = 100'000;
    support::FtpServer m_server;
    support::TempDir m_folder;
    std::string m_content = Media(6).bytes(0, kBytes);
    std::string m_digest = support::sha256Of(m_content);
    std::string m_file = m_folder.write("local.bin", m_content);
    int m_runs = 0;
};

TEST_F(UploadFaults, ofMemory)
{
    check(Kind::kMemory, {1, false, 5});
}

TEST_F(UploadFaults, ofLibcurlsMemory)
{
    check(Kind::kCurlMemory, {2, false, 50});
}

TEST_F(UploadFaults, ofDescriptors)
{
    check(Kind::kDescriptor, {1, false, 4});
}

TEST_F(UploadFaults, ofFileFacts)
{
    check(Kind::kFileFacts, {1, false, 2});
}

TEST_F(UploadFaults, ofNetworkCalls)
{
    check(Kind::kNetwork, {1, false, 10});
}

} // namespace
