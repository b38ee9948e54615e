#include "mdc_hlp_http_access.h"

#include "mdc_hlp_http_access_impl.h"
#include "mdc_hlp_http_curl_news.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace md {

namespace {

// How long a reader waits for all that it misses before it takes what is there.
constexpr long kPatienceMs = 100;

// A paused transfer goes on once the receive buffer holds less than this.
constexpr std::size_t kResumeBelow = 0x18000;

void setBody(MdchCurlDescriptor_struct& desc, const void* body, unsigned int length)
{
    if (body == nullptr || length == 0) {
        return;
    }
    auto* copy = static_cast<char*>(std::malloc(length));
    if (copy == nullptr) {
        return; // the transfer starts without a body
    }
    std::memcpy(copy, body, length);
    desc.postData = copy;
    desc.postDataSize = static_cast<std::int32_t>(length);
}

// A read in progress: what has been stored, and what is missing.
struct Reading
{
    unsigned char* buffer;
    std::size_t length;
    std::uint64_t place; // the stream's moveSerial at the start
    std::size_t stored = 0;

    std::size_t missing() const { return length - stored; }

    // Another thread moved the stream while this one had given its lock up: what comes now stands elsewhere.
    bool isOvertaken(const MdchCurlDescriptor_struct& desc) const { return desc.moveSerial != place; }

    // True when there was something. The position goes along with the bytes: other threads may look at it
    // between two pieces.
    bool take(MdchCurlDescriptor_struct& desc)
    {
        const std::size_t count = desc.ringBuffer.dequeue(buffer + stored, missing());
        stored += count;
        desc.startPos += static_cast<std::int64_t>(count);
        return count > 0;
    }
};

void traceNothingRead(const MdchCurlDescriptor_struct& desc)
{
    if (desc.done != 0) {
        MDCH_TRACE(kTraceCall, "%s(): reading from closed fd %i\n", "read", desc.fd);
    } else {
        MDCH_TRACE(kTraceCall, "%s(): not yet connected on fd %i. return 0\n", "read", desc.fd);
    }
}

enum class Fed
{
    kNothing,
    kRefilled, // with bytes that came during a pause
    kResumed   // the transfer goes on
};

// Gives a drained buffer more: first what came during the pause, then a resume.
Fed feed(const MdchDescriptorPtr& desc, MdpLock& lock, bool& triedResume)
{
    if (desc->ringBuffer.usedBytes() >= kResumeBelow) {
        return Fed::kNothing;
    }
    if (desc->backBuffer.usedBytes() > 0) {
        return mdchHttpCurl_refillFromBackBuffer(*desc) > 0 ? Fed::kRefilled : Fed::kNothing;
    }
    if (desc->paused == 0 || triedResume) {
        return Fed::kNothing; // a resume that brought nothing is not tried again and again
    }
    MDCH_TRACE(kTraceCall, "%s(): unpause fd %i\n", "read", desc->fd);
    lock.unlock(); // the engine's lock comes first in the order
    mdchHttpCurl_resume(desc);
    lock.lock();
    triedResume = desc->paused != 0;
    return Fed::kResumed;
}

bool isBefore(const timespec& one, const timespec& other)
{
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

enum class Waited
{
    kTold,
    kNotSoon, // not told within the time that the reader waits for all that it misses
    kTimedOut
};

// What comes steadily wakes the reader when all that it misses is there. What comes slowly it takes piece by piece,
// as others may want to see how far it is: then it waits for any byte.
Waited waitForData(MdchCurlDescriptor_struct& desc, MdpLock& lock, const timespec& deadline,
                   std::size_t missing, bool isForAll)
{
    const timespec soon = deadlineInMilliseconds(kPatienceMs);
    const bool endsSoon = isForAll && isBefore(soon, deadline);
    wantBytes(desc, endsSoon ? missing : 1);
    if (lock.wait(desc.cond, endsSoon ? &soon : &deadline) != ETIMEDOUT) {
        return Waited::kTold;
    }
    return endsSoon ? Waited::kNotSoon : Waited::kTimedOut;
}

// Fills what is missing, waiting up to the data time-out.
void fill(const MdchDescriptorPtr& desc, MdpLock& lock, Reading& reading)
{
    const timespec deadline = deadlineIn(desc->dataTimeout);
    bool triedResume = false;
    auto waited = Waited::kTold;
    for (;;) {
        if (reading.take(*desc)) {
            triedResume = false; // the transfer may have filled the buffer and paused again meanwhile
            waited = Waited::kTold;
        }
        const Fed fed = feed(desc, lock, triedResume);
        if (reading.isOvertaken(*desc)) {
            return;
        }
        if (fed != Fed::kNothing && reading.missing() > 0) {
            continue;
        }
        if (fed == Fed::kResumed) {
            return;
        }
        if (desc->dataTimeout == 0 || reading.missing() == 0 || desc->done != 0) {
            break;
        }
        if (waited == Waited::kTold) {
            MDCH_TRACE(kTraceCall, "%s(): wait for data on fd %i (bufSize = %i; missing = %i\n", "read",
                       desc->fd, static_cast<int>(desc->ringBuffer.usedBytes()),
                       static_cast<int>(reading.missing()));
        }
        waited = waitForData(*desc, lock, deadline, reading.missing(), waited == Waited::kTold);
        if (waited == Waited::kTimedOut) {
            MDCH_TRACE(kTraceError, "%s(): wait for data TIMEDOUT on fd %i\n", "read", desc->fd);
            return;
        }
        if (reading.isOvertaken(*desc)) {
            return;
        }
    }
    MDCH_TRACE(kTraceCall, "%s(): read %i of %i bytes on fd %i\n", "read", static_cast<int>(reading.stored),
               static_cast<int>(reading.length), desc->fd);
}

// The end of every read: a short one tells why. Returns the bytes stored.
int finishRead(MdchCurlDescriptor_struct& desc, const Reading& reading)
{
    if (reading.isOvertaken(desc)) {
        return static_cast<int>(reading.stored); // short, but nothing is wrong
    }
    if (reading.stored == 0 && desc.connected == 0) {
        traceNothingRead(desc);
        return 0;
    }
    if (desc.done == 0 && reading.missing() > 0 && desc.dataTimeout != 0) {
        MDCH_TRACE(kTraceError, "%s(): cannot fill up the requested buffer on fd %i (%u<%i), timeout: %d\n",
                   "read", desc.fd, static_cast<unsigned int>(reading.stored),
                   static_cast<int>(reading.length), desc.dataTimeout);
        desc.error = EAGAIN;
    }
    return static_cast<int>(reading.stored);
}

} // namespace

HttpAccess::HttpAccess() : HttpAccess(std::string(), false) {}

HttpAccess::HttpAccess(std::string agent, bool headRequest) : m_userAgent(std::move(agent))
{
    createDescriptor(headRequest);
}

HttpAccess::~HttpAccess()
{
    if (m_impl.load() != nullptr && !m_closed) {
        HttpAccess::close();
    }
}

bool HttpAccess::lookUp(boost::shared_ptr<MdchCurlDescriptor_struct>& desc) const
{
    std::int32_t number = -1;
    std::uint32_t run = 0;
    {
        const MdpLock lock(m_mutex);
        if (m_closed) {
            return false;
        }
        number = m_fd;
        run = m_engineRun;
    }
    desc = mdchHttpCurl_getContext(number);
    if (desc != nullptr && desc->engineRun != run) {
        desc.reset(); // the number went to a stream of a later engine
    }
    return true;
}

int HttpAccess::start(const char* url, const void* body, unsigned int length, long long startPos)
{
    constexpr unsigned int kMostBody = std::numeric_limits<std::int32_t>::max();
    if (url == nullptr || *url == '\0' || startPos < 0 || length > kMostBody) {
        return -EINVAL;
    }
    std::int32_t number = -1;
    {
        const MdpLock lock(m_mutex);
        if (m_closed) {
            createDescriptor(false);
        }
        number = m_fd;
    }
    MDCH_TRACE(kTraceNotice, "%s(): try to open url %s\n", "open", url);
    MdchDescriptorPtr desc;
    if (!lookUp(desc) || desc == nullptr) {
        return number;
    }
    {
        MdpLock lock = lockDescriptor(*desc);
        mdchHttpCurl_dropFormerRequest(*desc, lock);
        if (desc->state == kStateFinalise) {
            return number; // closed by another thread meanwhile
        }
        if (desc->done != 0) {
            return -EAGAIN; // there is no worker thread
        }
        try {
            desc->url = url;
        } catch (const std::bad_alloc&) {
            desc->url.clear(); // nobody waits for an answer
            return -ENOMEM;
        }
        setBody(*desc, body, length);
        mdchHttpCurl_initDescriptor(desc, startPos);
    }
    mdchHttpCurl_wakeupWorkerFor(*desc);
    return number;
}

int HttpAccess::open(const char* url, int /*mode*/)
{
    return start(url, nullptr, 0, 0);
}

int HttpAccess::open(const char* url, const void* body, unsigned int length, int startPos)
{
    return start(url, body, length, startPos);
}

int HttpAccess::read(unsigned char* buffer, unsigned int size)
{
    return onTransfer<int>(-EINVAL, 0, [&](const MdchDescriptorPtr& desc, MdpLock& lock) -> int {
        if (waitForHeader(*desc, lock) < 0) {
            return 0;
        }
        // Results are ints: no more than an int can tell is read at once.
        Reading reading{buffer, std::min<std::size_t>(size, std::numeric_limits<int>::max()),
                        desc->moveSerial};
        // What came before a resume that failed is there to be read, connected or not.
        const bool mayRead = desc->acceptAfterDone || bufferedBytes(*desc) > 0;
        if (desc->connected == 0 && (buffer == nullptr || size == 0 || !mayRead)) {
            traceNothingRead(*desc);
            return 0;
        }
        if (size == 0 && buffer != nullptr) {
            return 0;
        }
        if (buffer != nullptr) {
            fill(desc, lock, reading);
        }
        return finishRead(*desc, reading);
    });
}

int HttpAccess::write(unsigned char* /*buffer*/, unsigned int /*size*/)
{
    return 0;
}

int HttpAccess::getc()
{
    unsigned char byte = 0;
    const int count = read(&byte, 1);
    if (count < 0) {
        return count;
    }
    return count == 1 ? byte : -1;
}

int HttpAccess::close()
{
    MdchDescriptorPtr desc;
    if (!lookUp(desc)) {
        return -EINVAL;
    }
    {
        const MdpLock lock(m_mutex);
        m_closed = true;
    }
    if (desc == nullptr) {
        return -EINVAL;
    }
    {
        const MdpLock lock = lockDescriptor(*desc);
        mdchHttpCurl_endForReaders(*desc, "close");
    }
    mdchHttpCurl_wakeupWorkerFor(*desc);
    return 0;
}

int HttpAccess::eof()
{
    return onTransfer<int>(-EINVAL, 0, [](const MdchDescriptorPtr& desc, MdpLock& lock) -> int {
        waitForHeader(*desc, lock);
        if (desc->done != 0 && bufferedBytes(*desc) == 0) {
            MDCH_TRACE(kTraceCall, "%s(): end of file: done UsedBytes=0\n", "eof");
            return 1;
        }
        return 0;
    });
}

int HttpAccess::error()
{
    return onTransfer<int>(-EINVAL, 0, [](const MdchDescriptorPtr& desc, MdpLock& lock) -> int {
        waitForHeader(*desc, lock);
        return desc->error;
    });
}

void HttpAccess::clearerr()
{
    onTransfer<bool>(false, false, [](const MdchDescriptorPtr& desc, MdpLock& /*lock*/) {
        desc->error = 0;
        return true;
    });
}

} // namespace md
