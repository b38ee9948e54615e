#include "mdp_ringbuffer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

int MdpRingBuffer::init(void* memory, size_t size)
{
    release();
    if ((memory == nullptr) != (size == 0)) {
        return -EINVAL;
    }
    static unsigned char nothing = 0; // tells a buffer without room from one that was never set up
    m_memory = size > 0 ? static_cast<unsigned char*>(memory) : &nothing;
    m_size = size;
    return 0;
}

ssize_t MdpRingBuffer::enqueue(const void* data, size_t count)
{
    if (m_memory == nullptr || (data == nullptr && count > 0)) {
        return -EINVAL;
    }
    constexpr auto kMost = static_cast<size_t>(std::numeric_limits<ssize_t>::max());
    const size_t stored = std::min({count, availableBytes(), kMost});
    if (stored == 0) {
        return 0;
    }
    // m_first and m_used are both at most m_size, so their difference tells the write index without overflow.
    const size_t tail = m_first < m_size - m_used ? m_first + m_used : m_first - (m_size - m_used);
    const size_t untilEnd = std::min(stored, m_size - tail);
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::memcpy(m_memory + tail, bytes, untilEnd);
    std::memcpy(m_memory, bytes + untilEnd, stored - untilEnd);
    m_used += stored;
    return static_cast<ssize_t>(stored);
}

size_t MdpRingBuffer::dequeue(void* destination, size_t count)
{
    const size_t taken = std::min(count, m_used);
    if (taken == 0) {
        return 0;
    }
    const size_t untilEnd = std::min(taken, m_size - m_first);
    if (destination != nullptr) {
        auto* bytes = static_cast<unsigned char*>(destination);
        std::memcpy(bytes, m_memory + m_first, untilEnd);
        std::memcpy(bytes + untilEnd, m_memory, taken - untilEnd);
    }
    m_used -= taken;
    // An empty buffer starts over at its beginning: the next block then needs one copy, not two.
    m_first = m_used == 0 ? 0 : (m_first + untilEnd == m_size ? taken - untilEnd : m_first + taken);
    return taken;
}

void MdpRingBuffer::release()
{
    m_memory = nullptr;
    m_size = 0;
    m_first = 0;
    m_used = 0;
}
