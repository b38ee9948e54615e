// Datagrams, and uploads.
#include "activity.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_upload.h"
#include "mdc_hlp_url_base.h"
#include "support/ftp_server.h"
#include "support/temp_dir.h"
#include "support/udp_socket.h"

#include <algorithm>
#include <curl/curl.h>
#include <set>
#include <string>

using support::Media;

namespace {

class Datagrams : public Activity
{
public:
    Datagrams(const Site& site, Ledger& ledger, std::uint32_t seed, bool multicast)
        : Activity(multicast ? "multicast" : "datagram", site, ledger, seed), m_multicast(multicast)
    {
        fault("no port", [](Fault& caused) {
            caused.says("mdc_hlp_url_udp.cpp:#:parseUrl(): port missing.");
            caused.says("mdc_hlp_url_udp.cpp:#:open(): parseUrl failed.");
            caused.says("mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): open returned error=-22 udp://239.0.0.1.");
            boost::shared_ptr<MdchUrlBase> stream;
            demandEqual(mdch_OpenUrl("udp://239.0.0.1", MDCH_MODE_READ, nullptr, stream), -22, "open");
        });
        if (!multicast) { // whose close tries to leave a group, and says so
            fault("no group", [this](Fault& caused) {
                caused.says("mdc_hlp_url_udp.cpp:#:close(): Dropping multicast group error.");
                listen(true);
            });
        }
    }

private:
    // What the stream's socket can hold, whoever sleeps meanwhile.
    static constexpr std::uint64_t kMostDatagrams = 40;
    static constexpr std::uint64_t kLargest = 1400;

    std::uint64_t bitRate() const override { return 8'000'000; }
    std::chrono::milliseconds breath() const override { return std::chrono::milliseconds(10); }

    void round() override
    {
        if (m_multicast) {
            listen(false);
        }
    }

    void listen(bool alone)
    {
        const std::string address =
            alone ? support::ownLoopbackAddress() : "239.0.0." + std::to_string(1 + below(9));
        const auto port = static_cast<std::uint16_t>(20'000 + below(5'000));
        const Media media(port);
        boost::shared_ptr<MdchUrlBase> stream;
        const std::string url = "udp://" + address + ":" + std::to_string(port);
        demandEqual(mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, nullptr, stream), 0, "open");
        opened();
        const support::UdpSender sender(address, port);
        for (std::uint64_t batch = 1 + below(20); batch > 0; --batch) {
            const std::uint64_t datagrams = 1 + below(kMostDatagrams);
            const std::size_t size = 1 + below(kLargest);
            for (std::uint64_t i = 0; i < datagrams; ++i) {
                sender.send(media.bytes(i * kLargest, size));
            }
            for (std::uint64_t i = 0; i < datagrams; ++i) {
                const int count = stream->read(buffer(), kMost);
                demandEqual(static_cast<std::size_t>(count), size, "datagram " + std::to_string(i));
                check(media, i * kLargest, buffer(), count);
            }
        }
        const int closed = stream->close();
        demand(closed == 0 || alone, "close gives " + std::to_string(closed));
    }

    bool m_multicast;
};

class Uploads : public Activity
{
public:
    Uploads(const Site& site, Ledger& ledger, std::uint32_t seed) : Activity("upload", site, ledger, seed)
    {
        fault("no room",
              [this](Fault& caused) { fails(caused, m_site.ftpRefusing, -6, {CURLE_REMOTE_DISK_FULL}); });
        fault("connection lost", [this](Fault& caused) {
            fails(caused, m_site.ftpBreaking, -2, {CURLE_SEND_ERROR, CURLE_RECV_ERROR});
        });
        fault("cancelled", [this](Fault& caused) {
            saysCode(caused, CURLE_ABORTED_BY_CALLBACK);
            md::FtpAccess access = prepare(m_site.ftp, 100'000);
            access.setProgressCallback(&access, [](void* user, long long /*total*/, long long /*now*/) {
                static_cast<md::FtpAccess*>(user)->cancel();
            });
            demandEqual(access.upload(), -5, "upload");
            std::string().swap(m_content);
        });
    }

private:
    md::FtpAccess prepare(const std::string& host, std::uint64_t size)
    {
        m_content = Media(m_uploads).bytes(0, size);
        m_name = "u" + std::to_string(++m_uploads);
        md::FtpAccess access;
        access.setServerUrl(host);
        access.setServerPath("in");
        access.setSourceFile(m_folder.write("file", m_content));
        access.setUploadedFile(m_name);
        opened();
        return access;
    }

    void round() override
    {
        md::FtpAccess access = prepare(m_site.ftp, below(1'000'000));
        demandEqual(access.upload(), 0, "upload");
        md::HttpAccess asked;
        asked.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 90);
        asked.open((m_site.http + "/uploaded/" + m_name).c_str(), MDCH_MODE_READ);
        const int count = asked.read(buffer(), kMost);
        const std::string has(buffer(), buffer() + std::max(count, 0));
        demand(has == std::to_string(m_content.size()) + " " + support::sha256Of(m_content),
               "the server has " + has);
        asked.close();
        this->count(m_content.size());
        std::string().swap(m_content); // nothing of it is there at a rest
    }

    void fails(Fault& caused, const std::string& host, int result, const std::set<int>& codes)
    {
        md::FtpAccess access = prepare(host, 100'000);
        demandEqual(access.upload(), result, "upload");
        const int code = access.getCurlCode();
        demand(codes.count(code) == 1, "code " + std::to_string(code));
        saysCode(caused, code);
        std::string().swap(m_content);
    }

    static void saysCode(Fault& caused, int code)
    {
        caused.says("mdc_hlp_upload_impl.cpp:#:upload(): curl_easy_perform() failed:  errorCode: " +
                    std::to_string(code) + "    " + curl_easy_strerror(static_cast<CURLcode>(code)));
    }

    support::TempDir m_folder{"soak"};
    std::string m_content;
    std::string m_name;
    std::uint64_t m_uploads = 0;
};

} // namespace

void addNetworkActivities(Activities& all, const Site& site, Ledger& ledger, std::uint32_t seed,
                          bool multicast)
{
    all.push_back(std::make_unique<Datagrams>(site, ledger, seed, multicast));
    all.push_back(std::make_unique<Uploads>(site, ledger, seed));
}
