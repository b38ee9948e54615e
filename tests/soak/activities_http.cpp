// Films over HTTP and HTTPS, through the class and through handles.
#include "activity.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url.h"

#include <algorithm>
#include <thread>

using support::Media;

namespace {

constexpr int kPatience = 90; // seconds, for header and data: longer than any machine takes

class OpenFilm : public md::HttpAccess
{
public:
    explicit OpenFilm(const std::string& url, const std::string& caFolder = {})
    {
        fcntl(MDCH_FCNTL_HEADER_TIMEOUT, kPatience);
        fcntl(MDCH_FCNTL_DATA_TIMEOUT, kPatience);
        if (!caFolder.empty()) {
            setCaCertPath(caFolder);
        }
        m_number = open(url.c_str(), MDCH_MODE_READ);
    }
    int number() const { return m_number; }

private:
    int m_number;
};

class HttpActivity : public Activity
{
protected:
    using Activity::Activity;

    std::uint64_t bitRate() const override { return 4'000'000; }

    // Reads so many bytes, which are there.
    void readAt(MdchUrlBase& stream, std::uint64_t size, std::uint64_t& position, std::uint64_t wanted)
    {
        const std::uint64_t expected = std::min(wanted, size - position);
        const int count = stream.read(buffer(), static_cast<unsigned int>(wanted));
        check(Media(Site::seedOf(size)), position, buffer(), count);
        demandEqual(static_cast<std::uint64_t>(count), expected,
                    "count at " + std::to_string(position) + " of " + std::to_string(size) + ", error " +
                        std::to_string(stream.error()));
        position += expected;
    }

    // To the end, whatever it is.
    std::uint64_t readToEnd(MdchUrlBase& stream, std::uint64_t size, std::uint64_t position = 0)
    {
        for (;;) {
            const int count = stream.read(buffer(), kMost);
            check(Media(Site::seedOf(size)), position, buffer(), count);
            if (count == 0) {
                return position;
            }
            position += static_cast<std::uint64_t>(count);
        }
    }

    void play(md::HttpAccess& stream, std::uint64_t size)
    {
        std::uint64_t position = 0;
        readAt(stream, size, position, 1 + below(2000));
        for (std::uint64_t left = 3 + below(8); left > 0; --left) {
            switch (below(8)) {
            case 0:
            case 1:
                seek(stream, size, position);
                break;
            case 2:
                demandEqual(stream.pause(), 0, "pause");
                demandEqual(stream.resume(), 0, "resume");
                break;
            case 3:
                demandEqual(stream.size(), static_cast<long long>(size), "size");
                demandEqual(stream.isSeekable(), 1, "isSeekable");
                break;
            default:
                readAt(stream, size, position, 1 + below(kMost));
            }
            demandEqual(stream.tell(), static_cast<long long>(position), "tell");
        }
        demandEqual(stream.error(), 0, "error");
    }

    void seek(md::HttpAccess& stream, std::uint64_t size, std::uint64_t& position)
    {
        const std::uint64_t target = below(size);
        const auto to = static_cast<long long>(target);
        const auto from = static_cast<long long>(position);
        const auto end = static_cast<long long>(size);
        const std::uint64_t whence = below(3);
        const long long offset = whence == 0 ? to : whence == 1 ? to - from : to - end;
        demandEqual(stream.seek(offset, static_cast<int>(whence)), 0,
                    "seek to " + std::to_string(to) + ", error " + std::to_string(stream.error()) +
                        ", result");
        position = target;
    }

    std::uint64_t pickSize() { return below(3) == 0 ? 60'000 : 3'000'000; }
    static std::string path(const char* kind, std::uint64_t size)
    {
        return std::string("/") + kind + "/" + std::to_string(size);
    }
};

class Films : public HttpActivity
{
public:
    Films(const Site& site, Ledger& ledger, std::uint32_t seed) : HttpActivity("film", site, ledger, seed)
    {
        fault("404", [this](Fault& caused) { endsBeforeItBegins(caused, "/status/404", 2); });
        fault("503", [this](Fault& caused) { endsBeforeItBegins(caused, "/status/503", 22); });
        fault("no answer", [this](Fault& caused) {
            caused.must("mdchHttpCurl_fillBuffer(): received error on fd # (52=>156)");
            endsBeforeItBegins(caused, "/hangup", 156);
        });
        fault("refused connection", [this](Fault& caused) {
            caused.must("MDCH_HTTP_ENETWORK for fd #");
            caused.must("mdchHttpCurl_fillBuffer(): received error on fd # (7=>152)");
            OpenFilm stream(m_site.refused + "/");
            demandEqual(stream.error(), 152, "error");
            stream.close();
            caused.settle(stream.number());
        });
        fault("cut off", [this](Fault& caused) {
            caused.must("mdchHttpCurl_fillBuffer(): received error on fd # (18=>153)");
            breaksOff(caused, "cut", 153);
        });
        fault("reset", [this](Fault& caused) {
            caused.must("MDCH_HTTP_ENETWORK for fd #");
            caused.must("mdchHttpCurl_fillBuffer(): received error on fd # (56=>152)");
            breaksOff(caused, "reset", 152);
        });
        fault("wrong range", [this](Fault& caused) { answersElsewhere(caused); });
    }

private:
    void round() override
    {
        const std::uint64_t size = pickSize();
        OpenFilm stream(m_site.http + path("film", size));
        opened();
        play(stream, size);
    }

    void endsBeforeItBegins(Fault& caused, const std::string& where, int error)
    {
        if (error != 156) {
            const bool server = error == 22;
            caused.must(server ? "mdchHttpCurl_headerCallback(): got server error 503 on fd #"
                               : "mdchHttpCurl_headerCallback(): got error 404 on fd #");
            caused.may("mdchHttpCurl_fillBuffer(): already done with error on fd #: " +
                       std::to_string(error));
        }
        OpenFilm stream(m_site.http + where);
        opened();
        demandEqual(stream.error(), error, "error");
        demandEqual(stream.read(buffer(), kMost), 0, "read");
        stream.close();
        caused.settle(stream.number());
    }

    void breaksOff(Fault& caused, const char* kind, int error)
    {
        constexpr std::uint64_t kSize = 1'000'000;
        const std::uint64_t place = 1 + below(kSize - 1);
        OpenFilm stream(m_site.http + path(kind, kSize) + "/" + std::to_string(place));
        opened();
        const std::uint64_t came = readToEnd(stream, kSize);
        demand(came <= place && (came == place || error == 152),
               std::to_string(came) + " bytes of " + std::to_string(place));
        demandEqual(stream.error(), error, "error");
        demandEqual(stream.eof(), 1, "eof");
        stream.close();
        caused.settle(stream.number());
    }

    void answersElsewhere(Fault& caused)
    {
        constexpr std::uint64_t kSize = 3'000'000;
        caused.must("mdchHttpCurl_headerCallback(): response starts at 2000005 instead of 2000000 on fd #");
        caused.must("internalSeek(): error during seek on fd #");
        caused.may("mdchHttpCurl_fillBuffer(): already done with error on fd #: 153");
        OpenFilm stream(m_site.http + path("shifted", kSize));
        opened();
        std::uint64_t position = 0;
        readAt(stream, kSize, position, 1000);
        demand(stream.seek(2'000'000, SEEK_SET) < 0, "a seek that the server answers elsewhere");
        demandEqual(stream.error(), 153, "error");
        demandEqual(stream.read(buffer(), kMost), 0, "read");
        stream.close();
        caused.settle(stream.number());
    }
};

class SecureFilms : public HttpActivity
{
public:
    SecureFilms(const Site& site, Ledger& ledger, std::uint32_t seed)
        : HttpActivity("film over TLS", site, ledger, seed)
    {
        fault("untrusted", [this](Fault& caused) {
            caused.must("mdchHttpCurl_fillBuffer(): received error on fd # (60=>150)");
            caused.elsewhere(
                "mdchHttpSsl_verifyCertificateCallback(): verify cert failed: unable to get local "
                "issuer certificate (20)");
            OpenFilm stream(m_site.https + "/film/60000", m_site.otherFolder);
            opened();
            demandEqual(stream.error(), 150, "error");
            stream.close();
            caused.settle(stream.number());
        });
    }

private:
    void round() override
    {
        const std::uint64_t size = pickSize();
        OpenFilm stream(m_site.https + path("film", size), m_site.caFolder);
        opened();
        play(stream, size);
    }
};

// A server that is slow, or that stops.
class SlowFilms : public HttpActivity
{
public:
    SlowFilms(const Site& site, Ledger& ledger, std::uint32_t seed)
        : HttpActivity("slow film", site, ledger, seed)
    {
        fault("data time-out", [this](Fault& caused) {
            constexpr std::uint64_t kSize = 200'000;
            OpenFilm stream(m_site.http + path("stall", kSize) + "/" + std::to_string(1 + below(50'000)));
            opened();
            demandEqual(stream.error(), 0, "error");
            stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 1);
            const int count = stream.read(buffer(), kMost);
            check(Media(Site::seedOf(kSize)), 0, buffer(), count);
            demandEqual(stream.error(), 11, "error");
            caused.must("read(): wait for data TIMEDOUT on fd #");
            caused.must("read(): cannot fill up the requested buffer on fd # (" + std::to_string(count) +
                        "<" + std::to_string(kMost) + "), timeout: 1");
            stream.close();
            caused.settle(stream.number());
        });
        fault("header time-out", [this](Fault& caused) {
            caused.must("waitForHeader(): wait for header fd # timed out");
            OpenFilm stream(m_site.http + "/silent");
            opened();
            stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 1);
            demandEqual(stream.error(), 14, "error");
            stream.close();
            caused.settle(stream.number());
        });
    }

private:
    // Without waiting, as a player with one loop for everything does.
    void round() override
    {
        const std::uint64_t size = 10'000 + 10'000 * below(5);
        OpenFilm stream(m_site.http + path("slow", size));
        opened();
        demandEqual(stream.size(), static_cast<long long>(size), "size");
        stream.fcntl(MDCH_FCNTL_NONBLOCKING);
        std::uint64_t position = 0;
        while (stream.eof() == 0) {
            const int count = stream.read(buffer(), kMost);
            check(Media(Site::seedOf(size)), position, buffer(), count);
            position += static_cast<std::uint64_t>(count);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        demandEqual(position, size, "length");
        demandEqual(stream.error(), 0, "error");
    }
};

// As a program in C has it.
class Handles : public HttpActivity
{
public:
    Handles(const Site& site, Ledger& ledger, std::uint32_t seed) : HttpActivity("handle", site, ledger, seed)
    {
        fault("410", [this](Fault& caused) {
            caused.must("mdchHttpCurl_headerCallback(): got error 410 on fd #");
            caused.may("mdchHttpCurl_fillBuffer(): already done with error on fd #: 2");
            caused.says("mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): error after open: 2");
            mdch_UrlExtended_struct options{};
            demandEqual(mdch_UrlOpenExt((m_site.http + "/status/410").c_str(), MDCH_MODE_READ, &options), 0U,
                        "handle");
            demandEqual(options.error, 2, "error");
            opened();
        });
        fault("invalid handle", [this](Fault& caused) {
            caused.says("mdc_hlp_url.cpp:#:mdch_UrlRead(): Invalid handle 2000000000.");
            demandEqual(mdch_UrlRead(2'000'000'000U, buffer(), kMost), 0, "read");
        });
    }

private:
    void round() override
    {
        const std::uint64_t size = pickSize();
        const unsigned int handle = mdch_UrlOpen((m_site.http + path("film", size)).c_str(), MDCH_MODE_READ);
        demand(handle != 0, "no handle");
        opened();
        const Media media(Site::seedOf(size));
        demandEqual(mdch_UrlSize(handle), static_cast<long long>(size), "size");
        for (std::uint64_t left = 1 + below(6); left > 0; --left) {
            const std::uint64_t target = below(size);
            demandEqual(mdch_UrlSeek(handle, static_cast<long long>(target), SEEK_SET), 0, "seek");
            demandEqual(mdch_UrlGetc(handle), static_cast<int>(media.at(target)), "getc");
            demandEqual(mdch_UrlPause(handle), 0, "pause");
            demandEqual(mdch_UrlResume(handle), 0, "resume");
            const int count = mdch_UrlRead(handle, buffer(), kMost);
            check(media, target + 1, buffer(), count);
            demandEqual(static_cast<std::uint64_t>(count), std::min<std::uint64_t>(kMost, size - target - 1),
                        "count");
        }
        demandEqual(mdch_UrlError(handle), 0, "error");
        demandEqual(mdch_UrlClose(handle), 0, "close");
    }
};

} // namespace

void addHttpActivities(Activities& all, const Site& site, Ledger& ledger, std::uint32_t seed)
{
    all.push_back(std::make_unique<Films>(site, ledger, seed));
    all.push_back(std::make_unique<SecureFilms>(site, ledger, seed));
    all.push_back(std::make_unique<SlowFilms>(site, ledger, seed));
    all.push_back(std::make_unique<Handles>(site, ledger, seed));
}
