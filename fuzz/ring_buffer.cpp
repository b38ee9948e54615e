// The ring buffer against a plain container. The input is a little program:
//
//   SIZE { e COUNT | d COUNT | s COUNT | n COUNT | r SIZE }
//
// that enqueues, dequeues, skips (dequeues to nowhere), enqueues a null pointer, or releases and sets up anew.
// A count that does not stand there is 0; other bytes are ignored.
#include "harness.h"
#include "mdp_ringbuffer.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>

namespace {

constexpr std::size_t kLargest = 4096;

class Program
{
public:
    Program(const std::uint8_t* data, std::size_t size) : m_at(data), m_end(data + size) {}

    bool atEnd() const { return m_at == m_end; }
    std::uint8_t command() { return *m_at++; }

    /* Decimal; what does not fit is the largest number. */
    std::size_t number()
    {
        constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();
        std::size_t value = 0;
        for (; m_at != m_end && *m_at >= '0' && *m_at <= '9'; ++m_at) {
            const auto digit = static_cast<std::size_t>(*m_at - '0');
            value = value > (kMost - digit) / 10 ? kMost : value * 10 + digit;
        }
        return value;
    }

private:
    const std::uint8_t* m_at;
    const std::uint8_t* m_end;
};

// A block of exactly that size on the heap, so that a sanitizer sees a byte too many.
class Block
{
public:
    explicit Block(std::size_t size) : m_bytes(size > 0 ? new std::uint8_t[size] : nullptr) {}
    std::uint8_t* data() { return m_bytes.get(); }

private:
    std::unique_ptr<std::uint8_t[]> m_bytes;
};

class Pair
{
public:
    void setUp(std::size_t size)
    {
        m_ring.release();
        fuzz::require(m_ring.usedBytes() == 0 && m_ring.availableBytes() == 0, "released: empty, no room");
        std::uint8_t byte = 0;
        fuzz::require(m_ring.enqueue(&byte, 1) == -EINVAL, "released: nothing enters");
        fuzz::require(m_ring.dequeue(&byte, 1) == 0, "released: nothing leaves");
        m_model.clear();
        m_size = std::min(size, kLargest);
        m_memory = Block(m_size);
        fuzz::require(m_ring.init(m_memory.data(), m_size) == 0, "set up");
    }

    void enqueue(std::size_t count)
    {
        const std::size_t expected = std::min(count, m_size - m_model.size());
        // Bytes that do not fit are never looked at.
        Block block(expected);
        std::generate(block.data(), block.data() + expected, [this] { return m_next++; });
        std::uint8_t none = 0;
        const void* source = expected > 0 ? block.data() : &none;
        fuzz::require(m_ring.enqueue(source, count) == static_cast<ssize_t>(expected),
                      "as much enters as there is room for");
        m_model.insert(m_model.end(), block.data(), block.data() + expected);
    }

    void dequeue(std::size_t count)
    {
        const std::size_t expected = std::min(count, m_model.size());
        Block block(expected);
        std::uint8_t none = 0;
        void* destination = expected > 0 ? block.data() : &none;
        fuzz::require(m_ring.dequeue(destination, count) == expected, "as much leaves as there is");
        const auto end = m_model.begin() + static_cast<std::ptrdiff_t>(expected);
        fuzz::require(std::equal(m_model.begin(), end, block.data()), "bytes leave in their order");
        m_model.erase(m_model.begin(), end);
    }

    void skip(std::size_t count)
    {
        const std::size_t expected = std::min(count, m_model.size());
        fuzz::require(m_ring.dequeue(nullptr, count) == expected, "as much is skipped as there is");
        m_model.erase(m_model.begin(), m_model.begin() + static_cast<std::ptrdiff_t>(expected));
    }

    void enqueueNothing(std::size_t count)
    {
        fuzz::require(m_ring.enqueue(nullptr, count) == (count > 0 ? -EINVAL : 0),
                      "a null pointer holds no bytes");
    }

    void compare() const
    {
        fuzz::require(m_ring.usedBytes() == m_model.size(), "used bytes");
        fuzz::require(m_ring.availableBytes() == m_size - m_model.size(), "available bytes");
    }

private:
    MdpRingBuffer m_ring;
    Block m_memory{0};
    std::size_t m_size = 0;
    std::deque<std::uint8_t> m_model;
    std::uint8_t m_next = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Program program(data, size);
    Pair pair;
    pair.setUp(program.number());
    while (!program.atEnd()) {
        switch (program.command()) {
        case 'e':
            pair.enqueue(program.number());
            break;
        case 'd':
            pair.dequeue(program.number());
            break;
        case 's':
            pair.skip(program.number());
            break;
        case 'n':
            pair.enqueueNothing(program.number());
            break;
        case 'r':
            pair.setUp(program.number());
            break;
        default:
            break;
        }
        pair.compare();
    }
    pair.dequeue(kLargest);
    pair.compare();
    return 0;
}
