#include "mdc_hlp_icy.h"

#include "mdc_hlp_icy_block.h"
#include "mdc_hlp_icy_impl.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

namespace md {

namespace {

// The data time-out of a stream that mdch_OpenUrl opened. A server that sends a byte now and then, with a block
// behind each, would hold a call for days: none of its reads of the stream comes short.
constexpr std::chrono::seconds kLongestRead{30};

constexpr std::size_t kMostChanges = 64;

} // namespace

IcyReaderImpl::IcyReaderImpl(boost::shared_ptr<MdchUrlBase> stream, int interval, Clock::time_point (*now)())
    : m_stream(std::move(stream)), m_now(now), m_interval(static_cast<unsigned int>(std::max(interval, 0))),
      m_untilBlock(m_interval)
{
}

int IcyReaderImpl::read(unsigned char* buffer, unsigned int size)
{
    if (m_stream == nullptr) {
        errno = EBADF;
        return 0;
    }
    // Results are ints: no more than an int can tell is read at once.
    constexpr unsigned int kMost = std::numeric_limits<int>::max();
    const unsigned int most = buffer != nullptr ? std::min(size, kMost) : 0;
    const Clock::time_point start = m_now();
    unsigned int stored = 0;
    while (stored < most && (stored == 0 || m_now() - start < kLongestRead)) {
        const bool atBlock = isAtBlock();
        const Piece piece = atBlock ? nextOfBlock() : nextOfAudio(buffer + stored, most - stored);
        const int result = readPiece(piece);
        if (result <= 0) {
            return stored > 0 ? static_cast<int>(stored) : result;
        }
        const unsigned int count = std::min(static_cast<unsigned int>(result), piece.size);
        if (atBlock) {
            takeOfBlock(count);
        } else {
            takeOfAudio(count);
            stored += count;
        }
        if (count < piece.size) {
            break;
        }
    }
    return static_cast<int>(stored);
}

std::vector<IcyTitle> IcyReaderImpl::takeChanges()
{
    return std::exchange(m_changes, {});
}

IcyReaderImpl::Piece IcyReaderImpl::nextOfBlock()
{
    if (m_blockSize == 0) {
        return {&m_lengthByte, 1};
    }
    return {m_block.data() + m_blockRead, static_cast<unsigned int>(m_blockSize - m_blockRead)};
}

IcyReaderImpl::Piece IcyReaderImpl::nextOfAudio(unsigned char* buffer, unsigned int missing) const
{
    return {buffer, m_interval > 0 ? std::min(missing, m_untilBlock) : missing};
}

int IcyReaderImpl::readPiece(const Piece& piece)
{
    try {
        return m_stream->read(piece.place, piece.size);
    } catch (const std::exception& error) {
        MDCH_TRACE(kTraceError, "IcyReader::%s() the stream failed: %s\n", "read", error.what());
        return 0;
    }
}

void IcyReaderImpl::takeOfAudio(unsigned int count)
{
    m_position += count;
    if (m_interval > 0) {
        m_untilBlock -= count;
    }
}

void IcyReaderImpl::takeOfBlock(unsigned int count)
{
    if (m_blockSize == 0) {
        m_blockSize = kUnit * m_lengthByte;
        m_blockRead = 0;
    } else {
        m_blockRead += count;
    }
    if (m_blockRead < m_blockSize) {
        return;
    }
    if (m_blockSize > 0) {
        announce();
    }
    m_blockSize = 0;
    m_untilBlock = m_interval;
}

void IcyReaderImpl::announce()
{
    try {
        apply(parseIcyBlock({reinterpret_cast<const char*>(m_block.data()), m_blockSize}));
    } catch (const std::bad_alloc&) {
        // The audio goes on; the next block may have better luck.
        MDCH_TRACE(kTraceError, "IcyReader::%s() no memory for a title\n", "read");
    }
}

void IcyReaderImpl::apply(const IcyFields& fields)
{
    IcyTitle next;
    next.position = m_position;
    next.title = fields.title.value_or(m_title);
    const bool sameTitle = next.title == m_title;
    next.url = fields.url.value_or(sameTitle ? m_url : std::string());
    if (sameTitle && next.url == m_url) {
        return;
    }
    MDCH_TRACE(kTraceCall, "IcyReader::%s() title at %lld: %s\n", "read", next.position, next.title.c_str());
    std::string title = next.title;
    std::string url = next.url;
    if (m_changes.size() == kMostChanges) {
        m_changes.erase(m_changes.begin());
    }
    m_changes.push_back(std::move(next));
    m_title.swap(title); // nothing throws from here on
    m_url.swap(url);
}

IcyReader::IcyReader(boost::shared_ptr<MdchUrlBase> stream, int interval)
    : m_impl(std::make_unique<IcyReaderImpl>(std::move(stream), interval))
{
    MDCH_TRACE(kTraceCall, "IcyReader::%s() interval=%i\n", "IcyReader", interval);
}

IcyReader::~IcyReader() = default;

int IcyReader::read(unsigned char* buffer, unsigned int size)
{
    return m_impl->read(buffer, size);
}

long long IcyReader::tell() const
{
    return m_impl->tell();
}

const std::string& IcyReader::title() const
{
    return m_impl->title();
}

const std::string& IcyReader::url() const
{
    return m_impl->url();
}

std::vector<IcyTitle> IcyReader::takeChanges()
{
    return m_impl->takeChanges();
}

} // namespace md
