// Files and media volumes.
#include "activity.h"

#include "mdc_hlp_url.h"
#include "support/temp_dir.h"
#include "support/volume.h"

#include <algorithm>
#include <cstdio>

using support::Media;

namespace {

constexpr std::uint64_t kSize = 400'000;

class HandleActivity : public Activity
{
protected:
    using Activity::Activity;

    std::uint64_t bitRate() const override { return 4'000'000; }
    std::chrono::milliseconds breath() const override { return std::chrono::milliseconds(10); }

    void readHereAndThere(const std::string& url)
    {
        const Media media(Site::seedOf(kSize));
        const unsigned int handle = mdch_UrlOpen(url.c_str(), MDCH_MODE_READ);
        demand(handle != 0, "no handle for " + url);
        opened();
        demandEqual(mdch_UrlSize(handle), static_cast<long long>(kSize), "size");
        for (std::uint64_t left = 1 + below(8); left > 0; --left) {
            const std::uint64_t target = below(kSize);
            demandEqual(mdch_UrlSeek(handle, static_cast<long long>(target), SEEK_SET), 0, "seek");
            const int count = mdch_UrlRead(handle, buffer(), kMost);
            check(media, target, buffer(), count);
            demandEqual(static_cast<std::uint64_t>(count), std::min<std::uint64_t>(kMost, kSize - target),
                        "count");
            demandEqual(mdch_UrlTell(handle), static_cast<long long>(target) + count, "tell");
        }
        demandEqual(mdch_UrlClose(handle), 0, "close");
    }

    void write(const std::string& url)
    {
        const Media media(Site::seedOf(kSize));
        const unsigned int handle = mdch_UrlOpen(url.c_str(), MDCH_MODE_WRITE);
        demand(handle != 0, "no handle for " + url);
        opened();
        for (std::uint64_t position = 0; position < kSize; position += kMost) {
            media.fill(position, buffer(), kMost);
            demandEqual(mdch_UrlWrite(handle, buffer(), kMost), static_cast<int>(kMost), "write");
        }
        demandEqual(mdch_UrlClose(handle), 0, "close");
    }

    void cannotBeOpened(Fault& caused, const std::string& url, int error)
    {
        caused.says("mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): open returned error=" + std::to_string(error) +
                    " " + url + ".");
        mdch_UrlExtended_struct options{};
        demandEqual(mdch_UrlOpenExt(url.c_str(), MDCH_MODE_READ, &options), 0U, "handle");
        demandEqual(options.error, error, "error");
    }
};

class Files : public HandleActivity
{
public:
    Files(const Site& site, Ledger& ledger, std::uint32_t seed) : HandleActivity("file", site, ledger, seed)
    {
        fault("missing file",
              [this](Fault& caused) { cannotBeOpened(caused, "file://" + m_folder.file("none"), -2); });
    }

private:
    void round() override
    {
        const std::string path = m_folder.file("film");
        write("file://" + path);
        readHereAndThere(path);
        demandEqual(std::remove(path.c_str()), 0, "remove");
    }

    support::TempDir m_folder{"soak"};
};

class Volumes : public HandleActivity
{
public:
    Volumes(const Site& site, Ledger& ledger, std::uint32_t seed)
        : HandleActivity("media volume", site, ledger, seed)
    {
        m_folder.makeDir("in");
        fault("missing file", [this](Fault& caused) {
            const Stick stick(m_folder);
            cannotBeOpened(caused, "nvl2://SOAK-1/none", -2);
        });
        fault("no volume", [this](Fault& caused) { cannotBeOpened(caused, "nvl2://SOAK-1/in/film", -19); });
    }

private:
    // Put in, and pulled out again.
    struct Stick
    {
        explicit Stick(const support::TempDir& folder)
        {
            demand(nvol2VolumeAdd("SOAK-1", (folder.path() + "/").c_str()) > 0, "the volume is refused");
        }
        ~Stick() { nvol2VolumeRemove("SOAK-1"); }
        Stick(const Stick&) = delete;
        Stick& operator=(const Stick&) = delete;
    };

    void round() override
    {
        const Stick stick(m_folder);
        write("nvl2://SOAK-1/in/film");
        readHereAndThere("nvl2://soak-1/in/film");
    }

    support::TempDir m_folder{"soak"};
};

} // namespace

void addLocalActivities(Activities& all, const Site& site, Ledger& ledger, std::uint32_t seed)
{
    all.push_back(std::make_unique<Files>(site, ledger, seed));
    all.push_back(std::make_unique<Volumes>(site, ledger, seed));
}
