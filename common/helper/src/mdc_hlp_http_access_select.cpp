#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_access_impl.h"
#include "mdc_hlp_http_select.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace md {

namespace {

timespec deadlineFor(const timeval& timeout)
{
    constexpr long kNanosecondsPerSecond = 1000000000;
    constexpr long kNanosecondsPerMicrosecond = 1000;
    timespec deadline = deadlineIn(timeout.tv_sec);
    deadline.tv_nsec += static_cast<long>(timeout.tv_usec) * kNanosecondsPerMicrosecond;
    if (deadline.tv_nsec > kNanosecondsPerSecond) {
        deadline.tv_nsec -= kNanosecondsPerSecond;
        extendDeadline(deadline, 1);
    }
    return deadline;
}

// A waiter in the queues of the streams it waits for; taken out of all of them at the end.
class Waiter
{
public:
    Waiter() = default;
    ~Waiter();
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    bool init();

    /* Counts the stream as ready if it has bytes, otherwise joins its queue. Others are ignored. */
    void add(int number);

    /* Waits until a stream is ready; without a deadline not when there is none that could become so. */
    void wait(const timespec* deadline);

    /* Leaves in readfds those below nfds that were ready, or became so. Returns their number. */
    int collect(int nfds, fd_set& readfds);

private:
    void leaveQueues();
    bool anyBit() const;

    MdchHttpSelect_struct m_record;
    fd_set m_ready{};
    int m_readyCount = 0;
    int m_highest = -1;
    bool m_hasMutex = false;
    bool m_hasCondition = false;
    std::vector<MdchDescriptorPtr> m_joined;
};

bool Waiter::init()
{
    FD_ZERO(&m_record.readSet);
    FD_ZERO(&m_record.writeSet);
    FD_ZERO(&m_record.exceptSet);
    FD_ZERO(&m_ready);
    m_hasMutex = pthread_mutex_init(&m_record.mutex, nullptr) == 0;
    if (!m_hasMutex) {
        MDCH_TRACE(kTraceError, "%s(): cannot init mutex\n", "select");
        return false;
    }
    m_hasCondition = pthread_cond_init(&m_record.cond, nullptr) == 0;
    if (!m_hasCondition) {
        MDCH_TRACE(kTraceError, "%s(): cannot init cond var\n", "select");
    }
    return m_hasCondition;
}

Waiter::~Waiter()
{
    leaveQueues();
    if (m_hasCondition) {
        pthread_cond_destroy(&m_record.cond);
    }
    if (m_hasMutex) {
        pthread_mutex_destroy(&m_record.mutex);
    }
}

void Waiter::add(int number)
{
    const MdchDescriptorPtr desc = mdchHttpCurl_getContext(number);
    if (desc == nullptr) {
        return;
    }
    m_highest = std::max(m_highest, number);
    m_joined.reserve(m_joined.size() + 1); // nothing may throw between joining a queue and noting it
    const MdpLock lock = lockDescriptor(*desc);
    // One that has ended would never set its bit again.
    if (bufferedBytes(*desc) > 0 || desc->done != 0) {
        FD_SET(number, &m_ready);
        ++m_readyCount;
    } else {
        desc->selectWaiters.push_back(&m_record);
        m_joined.push_back(desc);
    }
}

bool Waiter::anyBit() const
{
    for (int number = 0; number <= m_highest; ++number) {
        if (FD_ISSET(number, &m_record.readSet)) {
            return true;
        }
    }
    return false;
}

void Waiter::wait(const timespec* deadline)
{
    if (deadline == nullptr && m_joined.empty()) {
        return;
    }
    MdpLock lock(m_record.mutex, kSelectWaiterLock);
    // A bit may have been set between joining the queues and here, and a wake-up may be spurious.
    while (m_readyCount == 0 && !anyBit()) {
        const int result = lock.wait(m_record.cond, deadline);
        if (result == ETIMEDOUT) {
            return;
        }
        if (result != 0) {
            MDCH_TRACE(kTraceError, "%s(): cannot wait on condvar: errno %i\n", "select", result);
            return;
        }
    }
}

void Waiter::leaveQueues()
{
    for (const MdchDescriptorPtr& desc : m_joined) {
        const MdpLock lock = lockDescriptor(*desc);
        auto& waiters = desc->selectWaiters;
        waiters.erase(std::remove(waiters.begin(), waiters.end(), &m_record), waiters.end());
    }
    m_joined.clear();
}

int Waiter::collect(int nfds, fd_set& readfds)
{
    leaveQueues(); // from here on nobody sets bits
    int count = 0;
    for (int number = 0; number < nfds; ++number) {
        if (!FD_ISSET(number, &readfds)) {
            continue;
        }
        if (FD_ISSET(number, &m_ready) || FD_ISSET(number, &m_record.readSet)) {
            ++count;
        } else {
            FD_CLR(number, &readfds);
        }
    }
    for (int number = std::max(nfds, 0); number < FD_SETSIZE; ++number) {
        FD_CLR(number, &readfds);
    }
    return count;
}

void clearIfGiven(fd_set* set)
{
    if (set != nullptr) {
        FD_ZERO(set);
    }
}

} // namespace

int HttpAccess::select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout)
{
    if (readfds == nullptr || nfds > FD_SETSIZE) {
        return -EINVAL;
    }
    Waiter waiter;
    if (!waiter.init()) {
        return -EINVAL;
    }
    for (int number = 0; number < nfds; ++number) {
        if (FD_ISSET(number, readfds)) {
            waiter.add(number);
        }
    }
    if (timeout != nullptr) {
        const timespec deadline = deadlineFor(*timeout);
        waiter.wait(&deadline);
    } else {
        waiter.wait(nullptr);
    }
    clearIfGiven(writefds);
    clearIfGiven(exceptfds);
    return waiter.collect(nfds, *readfds);
}

} // namespace md
