/*
 * Bytes that have been read and not yet been asked for, in the blocks in which they came.
 */
#ifndef MDCH_AVIO_FIFO_H
#define MDCH_AVIO_FIFO_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <deque>
#include <utility>
#include <vector>

namespace avio {

class Fifo
{
public:
    void push(std::vector<unsigned char> block)
    {
        const std::size_t size = block.size();
        m_blocks.push_back(std::move(block));
        m_bytes += size;
    }

    /* Takes up to size bytes out of the first block; null discards them. 0 when empty. */
    std::size_t take(unsigned char* destination, std::size_t size)
    {
        if (m_blocks.empty()) {
            return 0;
        }
        const std::vector<unsigned char>& first = m_blocks.front();
        const std::size_t count = std::min(size, first.size() - m_taken);
        if (destination != nullptr) {
            std::memcpy(destination, first.data() + m_taken, count);
        }
        m_taken += count;
        m_bytes -= count;
        if (m_taken == first.size()) {
            m_blocks.pop_front();
            m_taken = 0;
        }
        return count;
    }

    void clear()
    {
        m_blocks.clear();
        m_taken = 0;
        m_bytes = 0;
    }

    std::size_t bytes() const { return m_bytes; }

private:
    std::deque<std::vector<unsigned char>> m_blocks; // none is empty
    std::size_t m_taken = 0;                         // of the first
    std::size_t m_bytes = 0;
};

} // namespace avio

#endif
