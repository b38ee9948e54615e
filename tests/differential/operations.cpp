#include "operations.h"

#include "support/engine.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

using md::HttpAccess;
using support::inspect;

namespace {

constexpr int kTimeoutSeconds = 30; // nobody waits so long unless something is broken
constexpr auto kSize = static_cast<long long>(TestedServer::kSize);

std::string number(long long value)
{
    return std::to_string(value);
}

} // namespace

// --- History ---

void History::begin(std::string operation)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_count;
    m_last.push_back(number(static_cast<long long>(m_count)) + ". " + std::move(operation));
    if (m_last.size() > kKept) {
        m_last.pop_front();
    }
}

void History::addResult(const std::string& result)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_last.back() += " -> " + result;
}

std::uint64_t History::count() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_count;
}

std::vector<std::string> History::last() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return {m_last.begin(), m_last.end()};
}

// --- Operations ---

Operations::Operations(const Kind& kind, const TestedServer& server, std::uint32_t seed, History& history)
    : m_kind(kind), m_server(server), m_history(history), m_random(seed)
{
}

void Operations::next()
{
    struct Choice
    {
        int weight;
        void (Operations::*operation)();
    };
    static const std::vector<Choice> choices = {
        {30, &Operations::read},        {5, &Operations::readWithoutWaiting},
        {6, &Operations::getOne},       {22, &Operations::seek},
        {8, &Operations::ask},          {4, &Operations::askEof},
        {8, &Operations::pause},        {8, &Operations::resume},
        {4, &Operations::pauseForLong}, {2, &Operations::reopen},
    };
    if (m_stream == nullptr) {
        reopen();
        return;
    }
    long long total = 0;
    for (const Choice& choice : choices) {
        total += choice.weight;
    }
    long long picked = upTo(total - 1);
    for (const Choice& choice : choices) {
        picked -= choice.weight;
        if (picked < 0) {
            (this->*choice.operation)();
            break;
        }
    }
    expectPosition();
}

void Operations::reopen()
{
    constexpr int kSmallestBuffer = 98304;
    constexpr int kLargestBuffer = 400'000;
    const bool again = m_stream != nullptr && upTo(1) == 0; // on the open stream
    const bool buffering = upTo(1) == 0;
    const bool smallBuffer = upTo(3) == 0;
    const int size = smallBuffer ? kSmallestBuffer
                                 : kSmallestBuffer + static_cast<int>(upTo(kLargestBuffer - kSmallestBuffer));
    m_history.begin(std::string(again ? "open again" : "open") + (buffering ? ", pause buffering" : "") +
                    ", receive buffer " + number(size));
    if (!again) {
        m_stream = std::make_unique<HttpAccess>();
    }
    m_stream->fcntl(MDCH_FCNTL_DATA_TIMEOUT, kTimeoutSeconds);
    m_stream->fcntl(MDCH_FCNTL_HEADER_TIMEOUT, kTimeoutSeconds);
    m_stream->fcntl(MDCH_FCNTL_BUFFER_SIZE, size);
    if (buffering) {
        m_stream->fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    }
    m_number = m_stream->open(m_server.url().c_str(), MDCH_MODE_READ);
    m_position = 0;
    m_ended = false;
    demand(m_stream->getResponseCode() == 200, "the server answers with 200");
    demand(m_stream->isSeekable() == (m_kind.seekableAtFirst ? 1 : 0), "it is seekable as its kind is");
}

// --- Reading ---

void Operations::read()
{
    constexpr long long kMost[] = {16, 2'000, 60'000, 700'000};
    const auto wanted = static_cast<std::size_t>(upTo(kMost[upTo(3)]));
    m_history.begin("read " + number(static_cast<long long>(wanted)) + " at " + number(m_position));
    std::vector<unsigned char> bytes(wanted);
    const int count = m_stream->read(bytes.data(), static_cast<unsigned int>(wanted));
    m_history.addResult(number(count));
    demand(count >= 0 && count <= static_cast<int>(wanted), "a count within what was asked for");
    bytes.resize(static_cast<std::size_t>(count));
    take(bytes, wanted);
}

void Operations::readWithoutWaiting()
{
    const auto wanted = static_cast<std::size_t>(upTo(100'000));
    m_history.begin("read without waiting " + number(static_cast<long long>(wanted)) + " at " +
                    number(m_position));
    std::vector<unsigned char> bytes(wanted);
    m_stream->fcntl(MDCH_FCNTL_NONBLOCKING);
    const int count = m_stream->read(bytes.data(), static_cast<unsigned int>(wanted));
    m_stream->fcntl(MDCH_FCNTL_DATA_TIMEOUT, kTimeoutSeconds);
    m_history.addResult(number(count));
    demand(count >= 0 && count <= static_cast<int>(wanted), "a count within what was asked for");
    bytes.resize(static_cast<std::size_t>(count));
    take(bytes, bytes.size());
}

void Operations::getOne()
{
    m_history.begin("getc at " + number(m_position));
    const int byte = m_stream->getc();
    m_history.addResult(number(byte));
    demand(byte >= -1 && byte <= 255, "a byte or -1");
    std::vector<unsigned char> bytes;
    if (byte >= 0) {
        bytes.push_back(static_cast<unsigned char>(byte));
    }
    take(bytes, 1);
}

void Operations::take(const std::vector<unsigned char>& bytes, std::size_t wanted)
{
    demand(bytes.size() <= left(), "no byte behind the end");
    const auto from = static_cast<std::uint64_t>(m_position);
    const std::int64_t wrong = TestedServer::media().firstDifference(from, bytes.data(), bytes.size());
    demand(wrong < 0, "the bytes that stand at " + number(m_position) + "; the first wrong one is number " +
                          number(wrong));
    m_position += static_cast<long long>(bytes.size());
    m_bytesRead += bytes.size();
    if (bytes.size() < wanted) {
        takeShort(bytes.size(), wanted);
    }
}

void Operations::takeShort(std::size_t count, std::size_t wanted)
{
    if (left() == 0) {
        m_ended = true;
        return;
    }
    const int error = m_stream->error();
    demand(m_kind.drops, "all " + number(static_cast<long long>(wanted)) + " bytes, not " +
                             number(static_cast<long long>(count)) + " (error " + number(error) + ")");
    // A seek that was refused since then has left its own error.
    demand(error == ESPIPE || (error >= MDCH_HTTP_ENETWORK && error <= MDCH_HTTP_EUNKNOWN),
           "an error that tells of the dropped connection, not " + number(error));
    demand(m_stream->eof() == 1, "the end of the transfer");
    recover();
}

// A transfer that was dropped or refused goes on with a seek elsewhere; that may be dropped, too.
void Operations::recover()
{
    constexpr int kAttempts = 100;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const long long target = m_position > 0 ? std::min(m_position - 1, kSize / 2) : kSize / 2;
        m_history.begin("seek to " + number(target) + " to go on");
        const int result = m_stream->seek(target, SEEK_SET);
        m_history.addResult(number(result));
        m_position = m_stream->tell();
        if (result == 0) {
            demand(m_position == target, "the position of the seek");
            return;
        }
    }
    demand(false, "one seek of " + number(kAttempts) + " that works");
}

// --- Moving ---

long long Operations::pickTarget()
{
    constexpr long long kTail = 12;
    switch (upTo(7)) {
    case 0: // about the end, where ranges are special
        return kSize - kTail + upTo(2 * kTail);
    case 1:
        return m_position;
    case 2: // a short way forward
        return m_position + upTo(5'000);
    case 3:
        return m_position + upTo(250'000);
    case 4: // a short way back, maybe to before the start
        return m_position - upTo(5'000);
    case 5:
        return upTo(1) == 0 ? -1 - upTo(100) : kSize + upTo(10'000'000'000);
    default:
        return upTo(kSize);
    }
}

void Operations::seek()
{
    const long long target = pickTarget();
    const int whence = static_cast<int>(upTo(2));
    const long long origin = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? m_position : kSize;
    m_history.begin("seek to " + number(target) + " from " + number(m_position) + ", whence " +
                    number(whence));
    const bool seekable = m_stream->isSeekable() == 1;
    demand(m_kind.ignoresRanges || seekable, "a seekable stream");
    const int result = m_stream->seek(target - origin, whence);
    m_history.addResult(number(result));
    // A server may refuse a range behind an end that the stream does not know yet.
    const bool mayFail = m_kind.drops || (!m_kind.lengthAtOnce && target >= kSize);
    if (mayFail && result == -ESPIPE && target >= 0) {
        const long long told = m_stream->tell();
        demand(told == target || told == m_position, "the position before the failed seek or behind it");
        m_position = told;
        recover();
        m_ended = false;
        return;
    }
    const bool possible = seekable && target >= 0;
    demand(result == (possible ? 0 : -ESPIPE), possible ? "a seek that works" : "a seek that is refused");
    if (possible) {
        m_ended = m_ended && target == m_position;
        m_position = target;
    }
}

void Operations::pause()
{
    m_history.begin("pause at " + number(m_position));
    demand(m_stream->pause() == 0, "a pause");
}

void Operations::resume()
{
    m_history.begin("resume at " + number(m_position));
    demand(m_stream->resume() == 0, "a resume");
}

// A pause of which the engine believes that it has lasted: the connection is closed, or bytes flow on into the
// overflow buffer.
void Operations::pauseForLong()
{
    constexpr time_t kLong = 400;
    const bool byItself = upTo(2) == 0; // only if the full buffer has paused the transfer
    m_history.begin(std::string(byItself ? "wait for long" : "pause for long") + " at " + number(m_position));
    if (!byItself) {
        demand(m_stream->pause() == 0, "a pause");
    }
    inspect(m_number, [](auto& desc) { return desc.lastDataTime = time(nullptr) - kLong; });
    const std::uint64_t before = mdchHttpCurl_passCount();
    const bool looked = support::waitUntil([before] {
        mdchHttpCurl_wakeupWorkerThread();
        return mdchHttpCurl_passCount() >= before + 3;
    });
    demand(looked, "a worker that runs");
}

// --- Asking ---

void Operations::ask()
{
    m_history.begin("size at " + number(m_position));
    const long long size = m_stream->size();
    m_history.addResult(number(size));
    // A stream that asks for its size restarts; where connections are dropped, that can fail.
    demand(size == kSize || m_kind.drops, "the length of the resource");
    if (!m_kind.lengthAtOnce) {
        m_ended = false;
    }
}

void Operations::askEof()
{
    m_history.begin("eof at " + number(m_position));
    const int end = m_stream->eof();
    m_history.addResult(number(end));
    demand(end == 0 || end == 1, "0 or 1");
    if (left() > 0 && !m_kind.drops) {
        demand(end == 0, "no end before the last byte");
    }
    if (m_ended) {
        demand(end == 1, "the end where a read met it");
    }
}

void Operations::expectPosition()
{
    const long long told = m_stream->tell();
    demand(told == m_position, "tell() " + number(m_position) + ", not " + number(told));
}

void Operations::demand(bool holds, const std::string& what) const
{
    if (!holds) {
        throw Difference("expected " + what);
    }
}

std::uint64_t Operations::left() const
{
    return static_cast<std::uint64_t>(std::max(0LL, kSize - m_position));
}

long long Operations::upTo(long long most)
{
    return most <= 0 ? 0 : static_cast<long long>(m_random() % (static_cast<std::uint64_t>(most) + 1));
}
