#include "mdc_hlp_playlist.h"

#include "mdc_hlp_playlist_read.h"
#include "mdc_hlp_trace.h"
#include "mdc_hlp_url.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <new>

namespace md {

namespace {

constexpr long long kMostBytes = 50000;
constexpr std::chrono::seconds kPatience{60};

class OpenHandle
{
public:
    explicit OpenHandle(const std::string& locator) : m_handle(mdch_UrlOpen(locator.c_str(), MDCH_MODE_READ))
    {
    }
    ~OpenHandle() { close(); }
    OpenHandle(const OpenHandle&) = delete;
    OpenHandle& operator=(const OpenHandle&) = delete;

    unsigned int get() const { return m_handle; }

    void close()
    {
        if (m_handle != 0) {
            mdch_UrlClose(m_handle);
            m_handle = 0;
        }
    }

private:
    unsigned int m_handle;
};

} // namespace

std::vector<unsigned char> readPlaylist(unsigned int handle, std::chrono::steady_clock::duration patience)
{
    const long long size = mdch_UrlSize(handle);
    std::vector<unsigned char> data(
        static_cast<std::size_t>(size < 0 ? kMostBytes : std::min(size, kMostBytes)));
    const auto end = std::chrono::steady_clock::now() + patience;
    std::size_t count = 0;
    while (count < data.size()) {
        const int got =
            mdch_UrlRead(handle, data.data() + count, static_cast<unsigned int>(data.size() - count));
        if (got <= 0) {
            break;
        }
        count += static_cast<std::size_t>(got);
        if (std::chrono::steady_clock::now() >= end) {
            break;
        }
    }
    data.resize(count);
    return data;
}

int scanPlaylist(const std::string& locator, std::list<PlaylistEntry>& entries, std::string& text,
                 Conversion_t conversion)
{
    MDCH_TRACE(kTraceCall, "%s:%d:%s(): Called.\n", MDCH_HERE);
    try {
        OpenHandle handle(locator);
        if (handle.get() == 0) {
            MDCH_TRACE(kTraceError, "%s:%d:%s(): Unable to open \"%s\".\n", MDCH_HERE, locator.c_str());
            return -ENOENT;
        }
        const std::vector<unsigned char> data = readPlaylist(handle.get(), kPatience);
        if (data.empty()) {
            MDCH_TRACE(kTraceNotice, "%s:%d:%s(): Found an empty playlist \"%s\".\n", MDCH_HERE,
                       locator.c_str());
            return 0;
        }
        handle.close();
        const int result = parseM3uBufferToPlaylist(locator, data, conversion, entries, text);
        if (result < 0) {
            MDCH_TRACE(kTraceError, "%s:%d:%s(): Error parsing playlist \"%s\": %d.\n", MDCH_HERE,
                       locator.c_str(), result);
        }
        MDCH_TRACE(kTraceNotice, "%s:%d:%s(): Finished parsing playlist \"%s\".\n", MDCH_HERE,
                   locator.c_str());
        return 0;
    } catch (const std::bad_alloc&) {
        return -ENOENT; // the one failure that callers know
    }
}

} // namespace md
