#include "mdc_hlp_playlist.h"
#include "mdc_hlp_playlist_text.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <new>
#include <string_view>
#include <utility>

namespace {

// Text files hold no NUL; what calls itself M3U and is something else mostly does, near its start.
constexpr std::size_t kProbe = 512;

bool isText(std::string_view data)
{
    return data.substr(0, kProbe).find('\0') == std::string_view::npos;
}

std::string_view withoutByteOrderMark(std::string_view data)
{
    constexpr std::string_view kMark = "\xef\xbb\xbf";
    return md::startsWith(data, kMark) ? data.substr(kMark.size()) : data;
}

// Takes the next line off the data's front.
std::string_view takeLine(std::string_view& data)
{
    const std::size_t end = std::min(data.find('\n'), data.size());
    const std::string_view line = data.substr(0, end);
    data.remove_prefix(std::min(end + 1, data.size()));
    return line;
}

std::string_view withoutReturns(std::string_view line)
{
    while (!line.empty() && line.front() == '\r') {
        line.remove_prefix(1);
    }
    while (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

enum class Kind
{
    kEmpty,
    kHeader,
    kExtinf,
    kComment,
    kItem
};

Kind kindOf(std::string_view line)
{
    if (line.empty()) {
        return Kind::kEmpty;
    }
    if (line.front() != '#') {
        return Kind::kItem;
    }
    if (md::startsWith(line, "#EXTM3U")) {
        return Kind::kHeader;
    }
    return md::startsWith(line, "#EXTINF") ? Kind::kExtinf : Kind::kComment;
}

// What has been seen so far decides what a "#" line means.
class Classifier
{
public:
    Classifier(const std::string& locator, md::Conversion_t conversion, std::list<md::PlaylistEntry>& entries,
               std::string& text)
        : m_locator(locator), m_conversion(conversion), m_entries(entries), m_text(text)
    {
    }

    void take(std::string_view line)
    {
        switch (kindOf(line)) {
        case Kind::kEmpty:
            break;
        case Kind::kHeader:
        case Kind::kComment:
            takeComment(line);
            break;
        case Kind::kExtinf:
            m_extinf = line;
            m_state = State::kInEntry;
            break;
        case Kind::kItem:
            takeItem(line);
            break;
        }
    }

private:
    enum class State
    {
        kHead,      // nothing of the first entry yet: comments tell about the playlist
        kInEntry,   // behind an EXTINF line: comments belong to the entry
        kBehindItem // comments belong to nothing
    };

    void takeComment(std::string_view line)
    {
        if (m_state == State::kInEntry) {
            m_extinf += line;
        } else if (m_state == State::kHead) {
            takeName(line);
        }
    }

    void takeName(std::string_view line)
    {
        constexpr std::string_view kName = "#PLAYLIST:";
        if (md::startsWith(line, kName)) {
            m_text = md::trimmed(line.substr(kName.size()));
            m_named = true;
        } else if (!m_named && kindOf(line) == Kind::kComment) {
            m_text = md::trimmed(line.substr(1));
            m_named = true;
        }
    }

    void takeItem(std::string_view line)
    {
        md::PlaylistEntry entry;
        createM3uEntryFromData(m_locator, m_conversion, m_extinf, std::string(line), entry);
        m_entries.push_back(std::move(entry));
        m_extinf.clear();
        m_state = State::kBehindItem;
    }

    const std::string& m_locator;
    md::Conversion_t m_conversion;
    std::list<md::PlaylistEntry>& m_entries;
    std::string& m_text;
    State m_state = State::kHead;
    bool m_named = false; // a later comment does not count, a "#PLAYLIST:" line does
    std::string m_extinf;
};

} // namespace

int parseM3uBufferToPlaylist(const std::string& locator, const std::vector<unsigned char>& data,
                             md::Conversion_t conversion, std::list<md::PlaylistEntry>& entries,
                             std::string& text)
{
    std::string_view rest(reinterpret_cast<const char*>(data.data()), data.size());
    if (!isText(rest)) {
        return -EINVAL;
    }
    rest = withoutByteOrderMark(rest);
    try {
        Classifier classifier(locator, conversion, entries, text);
        while (!rest.empty()) {
            std::string_view line = withoutReturns(takeLine(rest));
            MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Length of line after \r stripping is %d bytes.\n",
                       MDCH_HERE, static_cast<int>(line.size()));
            line = md::withoutLeadingSpace(line);
            MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Length of line after space stripping is %d bytes.\n",
                       MDCH_HERE, static_cast<int>(line.size()));
            classifier.take(line);
        }
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
    return 0;
}
