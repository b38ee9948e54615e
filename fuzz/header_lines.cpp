// Response header lines: the input is what a server sends, split behind each line feed as libcurl does.
#include "harness.h"
#include "mdc_hlp_http_curl.h"
#include "mdc_hlp_http_curl_engine.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace {

constexpr std::int32_t kNumber = 7;
constexpr std::int64_t kStart = 1000;
constexpr std::size_t kMostHeaderBytes = 307200;

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        lines.push_back(text.substr(begin, end - begin));
        begin = end;
    }
    return lines;
}

// Whether a server said that number, rather than that it came from nowhere.
bool standsIn(const std::string& text, std::int64_t value)
{
    std::string digits = std::to_string(value);
    digits.erase(0, digits.find_first_of("0123456789"));
    return text.find(digits) != std::string::npos;
}

// A handle that never ran: it knows no length and no status, so every block counts.
CURL* idleHandle()
{
    static CURL* handle = curl_easy_init();
    return handle;
}

// A registered transfer, asked for from a position or, without one, from wherever it begins.
class Transfer
{
public:
    explicit Transfer(std::int64_t requestedStart)
        : m_desc(boost::make_shared<md::MdchCurlDescriptor_struct>())
    {
        m_desc->fd = kNumber;
        m_desc->easy = idleHandle();
        m_desc->requestedStart = requestedStart;
        m_desc->startPos = std::max<std::int64_t>(requestedStart, 0);
        m_desc->writePos = m_desc->startPos;
        mdchHttpCurl_addDescriptor(m_desc);
    }
    ~Transfer()
    {
        md::unregisterDescriptor(*m_desc);
        m_desc->easy = nullptr; // stays for the next
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    const md::MdchCurlDescriptor_struct& desc() const { return *m_desc; }

    std::size_t give(const std::string& line)
    {
        std::vector<char> bytes(line.begin(), line.end()); // exact size
        const std::size_t taken =
            mdchHttpCurl_headerCallback(bytes.data(), 1, bytes.size(), md::numberAsPointer(kNumber));
        fuzz::require(std::equal(bytes.begin(), bytes.end(), line.begin()), "the line is only read");
        return taken;
    }

private:
    md::MdchDescriptorPtr m_desc;
};

// Which lines a descriptor should hold.
class KeptLines
{
public:
    enum class Kind
    {
        blank,
        ofTheBlock,
        trailer,
        tooMuch
    };

    Kind take(const std::string& line)
    {
        // As libcurl ends a header.
        if (!line.empty() && line.back() == '\n' && (line.front() == '\r' || line.front() == '\n')) {
            m_ended = true;
            return Kind::blank;
        }
        const bool status = line.substr(0, 5) == "HTTP/" || line.substr(0, 4) == "ICY ";
        if (m_ended && status) {
            m_ended = false;
            m_lines.clear();
            m_bytes = 0;
        }
        if (m_bytes + line.size() > kMostHeaderBytes) {
            return Kind::tooMuch;
        }
        m_bytes += line.size();
        m_lines.push_back(line);
        return m_ended ? Kind::trailer : Kind::ofTheBlock;
    }

    bool ended() const { return m_ended; }
    bool are(const std::deque<std::string>& lines) const { return lines == m_lines; }

private:
    std::deque<std::string> m_lines;
    std::size_t m_bytes = 0;
    bool m_ended = false;
};

struct Facts
{
    explicit Facts(const md::MdchCurlDescriptor_struct& desc)
        : length(desc.length), instanceLength(desc.instanceLength), startPos(desc.startPos),
          contentRangeStart(desc.contentRangeStart), capabilities(desc.capabilities)
    {
    }
    bool operator==(const Facts& other) const
    {
        return length == other.length && instanceLength == other.instanceLength &&
               startPos == other.startPos && contentRangeStart == other.contentRangeStart &&
               capabilities == other.capabilities;
    }

    std::int64_t length;
    std::int64_t instanceLength;
    std::int64_t startPos;
    std::int64_t contentRangeStart;
    std::uint32_t capabilities;
};

void checkFacts(const Transfer& transfer, const std::string& text)
{
    const md::MdchCurlDescriptor_struct& desc = transfer.desc();
    fuzz::require(desc.capabilities <= 7, "three capabilities");
    fuzz::require(desc.length == md::kLengthNotYetKnown || desc.length >= md::kLengthUnknown, "a length");
    fuzz::require(desc.length < 0 || desc.length == desc.instanceLength || standsIn(text, desc.length),
                  "a length that the server told");
    fuzz::require(desc.instanceLength == -1 || standsIn(text, desc.instanceLength),
                  "an instance length that the server told");
    fuzz::require(desc.contentRangeStart == -1 ||
                      (desc.contentRangeStart >= 0 && standsIn(text, desc.contentRangeStart)),
                  "a first byte that the server told");
    fuzz::require(desc.startPos >= 0 && desc.writePos == desc.startPos, "one position, not negative");
    fuzz::require(desc.requestedStart > 0 ? desc.startPos == desc.requestedStart
                                          : desc.startPos == 0 || standsIn(text, desc.startPos),
                  "a position that was asked for or that the server told");
    fuzz::require(desc.done == 0 && desc.error == 0 && desc.connected == 0 && desc.headerComplete == 0,
                  "no status, no verdict");
    fuzz::require(desc.state == md::kStateConstructed, "header lines do not change the state");
}

void feed(const std::string& text, std::int64_t requestedStart)
{
    Transfer transfer(requestedStart);
    KeptLines kept;
    for (const std::string& line : linesOf(text)) {
        const Facts before(transfer.desc());
        const std::size_t taken = transfer.give(line);
        const KeptLines::Kind kind = kept.take(line);
        fuzz::require(taken == (kind == KeptLines::Kind::tooMuch ? 0 : line.size()),
                      "all of a line is taken, until it is too much");
        const Facts after(transfer.desc());
        fuzz::require(kind != KeptLines::Kind::trailer || after == before, "a trailer changes nothing");
        fuzz::require(kind != KeptLines::Kind::blank ||
                          after.length == std::max<std::int64_t>(after.instanceLength, -1),
                      "at the end of a block its length is known, or that there is none");
        fuzz::require(kept.are(transfer.desc().responseHeaders), "the lines of the last block");
        fuzz::require((transfer.desc().headerBlockEnded != 0) == kept.ended(), "a blank line ends a block");
        checkFacts(transfer, text);
        if (taken == 0) {
            return; // libcurl ends the transfer
        }
    }
}

// The rules alone, with every capability and with none.
void applyRules(const std::string& text)
{
    for (const std::string& line : linesOf(text)) {
        for (const std::uint32_t capabilities : {0U, 7U}) {
            md::MdchCurlDescriptor_struct desc;
            desc.fd = kNumber;
            desc.capabilities = capabilities;
            mdchHttpParseHeaderLine(desc, line);
            fuzz::require(desc.capabilities <= 7, "three capabilities");
            fuzz::require(desc.length == md::kLengthNotYetKnown, "a line alone sets no length");
            fuzz::require(desc.instanceLength == -1 || standsIn(line, desc.instanceLength),
                          "an instance length that stands in the line");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    const std::string text = fuzz::textOf(data, size);
    feed(text, -1);
    feed(text, kStart);
    applyRules(text);
    return 0;
}
