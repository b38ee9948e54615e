/*
 * A stream's open file or socket, which one thread may close while another is inside an operation: each
 * operation holds what was open when it began, and whoever lets go last closes it.
 */
#ifndef MDC_HLP_URL_HANDLE_H
#define MDC_HLP_URL_HANDLE_H

#include "mdp_thread.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <memory>
#include <new>

namespace md {

/* Results of reading and writing are ints: no more than an int can tell is moved at once. */
inline std::size_t atMostInt(unsigned int size)
{
    return std::min(size, static_cast<unsigned int>(std::numeric_limits<int>::max()));
}

template <class Handle>
class SharedHandle
{
public:
    using Close = int (*)(Handle*);

    /* closer: called once with each handle, and with null by a close when nothing is open. */
    explicit SharedHandle(Close closer) : m_close(closer) {}

    /* What is open, for the time of one operation; null when nothing is. */
    std::shared_ptr<Handle> use() const
    {
        const MdpLock lock(m_mutex);
        return m_handle;
    }

    /*
     * Takes over a handle (may be null); the former one is closed by its last user. False when there is no memory
     * for that: the handle is closed then, and the former one stays.
     */
    bool replace(Handle* handle)
    {
        std::shared_ptr<Handle> next;
        try {
            if (handle != nullptr) {
                next.reset(handle, Closer{m_close, nullptr});
            }
        } catch (const std::bad_alloc&) {
            return false; // reset has closed it
        }
        const MdpLock lock(m_mutex);
        m_handle.swap(next);
        return true;
    }

    /* The result of closing; 0 when an operation under way still uses the handle and will close it. */
    int close()
    {
        std::shared_ptr<Handle> handle;
        {
            const MdpLock lock(m_mutex);
            handle.swap(m_handle);
        }
        if (handle == nullptr) {
            return m_close(nullptr);
        }
        int result = 0;
        if (handle.use_count() == 1) { // nobody can join any more
            std::get_deleter<Closer>(handle)->result = &result;
        }
        handle.reset();
        return result;
    }

private:
    struct Closer
    {
        void operator()(Handle* handle) const
        {
            const int closed = closer(handle);
            if (result != nullptr) {
                *result = closed;
            }
        }

        Close closer;
        int* result; // of a close that waits for it; null otherwise
    };

    Close m_close;
    mutable MdpMutex m_mutex;
    std::shared_ptr<Handle> m_handle; // guarded by m_mutex
};

} // namespace md

#endif
