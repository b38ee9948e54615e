// The ring buffer of bytes: every byte of its memory counts, and nothing leaves out of order.
#include "mdp_ringbuffer.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <deque>
#include <gtest/gtest.h>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace {

// Memory of exactly the asked size between two guard areas, which must stay as they are.
class GuardedMemory
{
public:
    explicit GuardedMemory(std::size_t size) : m_bytes(size + 2 * kGuard, kMark), m_size(size) {}

    unsigned char* data() { return m_size > 0 ? m_bytes.data() + kGuard : nullptr; }
    std::size_t size() const { return m_size; }

    bool guardsHold() const
    {
        const auto intact = [](unsigned char byte) { return byte == kMark; };
        const auto middle = static_cast<std::ptrdiff_t>(kGuard + m_size);
        return std::all_of(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(kGuard), intact) &&
               std::all_of(m_bytes.begin() + middle, m_bytes.end(), intact);
    }

private:
    static constexpr std::size_t kGuard = 64;
    static constexpr unsigned char kMark = 0xa7;

    std::vector<unsigned char> m_bytes;
    std::size_t m_size;
};

// Takes up to count bytes out and returns them.
std::string take(MdpRingBuffer& ring, std::size_t count)
{
    std::string bytes(count, '\0');
    bytes.resize(ring.dequeue(bytes.data(), count));
    return bytes;
}

// A ring buffer and the plain container that it must behave like.
class Twins
{
public:
    explicit Twins(std::size_t size) : m_memory(size) { EXPECT_EQ(start(), 0); }

    int start() { return m_ring.init(m_memory.data(), m_memory.size()); }

    void enqueue(std::size_t count)
    {
        std::vector<unsigned char> block(count);
        for (unsigned char& byte : block) {
            byte = m_next++;
        }
        const std::size_t room = m_memory.size() - m_model.size();
        const std::size_t expected = std::min(count, room);
        ASSERT_EQ(m_ring.enqueue(block.data(), count), static_cast<ssize_t>(expected));
        m_model.insert(m_model.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(expected));
    }

    void dequeue(std::size_t count)
    {
        std::vector<unsigned char> block(count + 1, 0xee);
        const std::size_t expected = std::min(count, m_model.size());
        ASSERT_EQ(m_ring.dequeue(block.data(), count), expected);
        const auto end = m_model.begin() + static_cast<std::ptrdiff_t>(expected);
        ASSERT_TRUE(std::equal(m_model.begin(), end, block.begin()));
        ASSERT_EQ(block[expected], 0xee) << "a byte behind those that were taken was written";
        m_model.erase(m_model.begin(), end);
    }

    void discard(std::size_t count)
    {
        const std::size_t expected = std::min(count, m_model.size());
        ASSERT_EQ(m_ring.dequeue(nullptr, count), expected);
        m_model.erase(m_model.begin(), m_model.begin() + static_cast<std::ptrdiff_t>(expected));
    }

    void releaseAndReuse()
    {
        m_ring.release();
        m_model.clear();
        ASSERT_EQ(m_ring.usedBytes(), 0U);
        ASSERT_EQ(m_ring.availableBytes(), 0U);
        ASSERT_EQ(start(), 0);
    }

    void compare() const
    {
        ASSERT_EQ(m_ring.usedBytes(), m_model.size());
        ASSERT_EQ(m_ring.availableBytes(), m_memory.size() - m_model.size());
    }

    bool guardsHold() const { return m_memory.guardsHold(); }

private:
    GuardedMemory m_memory;
    MdpRingBuffer m_ring;
    std::deque<unsigned char> m_model;
    unsigned char m_next = 0;
};

void compareWithDeque(std::size_t size, int operations)
{
    const unsigned int seed = std::random_device{}();
    std::cout << "size " << size << ", seed " << seed << '\n';
    SCOPED_TRACE("size " + std::to_string(size) + ", seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> counts(0, size + 3);
    std::uniform_int_distribution<int> choices(0, 999);
    Twins twins(size);
    for (int i = 0; i < operations && !testing::Test::HasFatalFailure(); ++i) {
        const int choice = choices(random);
        if (choice < 500) {
            twins.enqueue(counts(random));
        } else if (choice < 900) {
            twins.dequeue(counts(random));
        } else if (choice < 998) {
            twins.discard(counts(random));
        } else {
            twins.releaseAndReuse();
        }
        twins.compare();
    }
    EXPECT_TRUE(twins.guardsHold());
}

} // namespace

TEST(RingBuffer, behavesLikeADequeUnderRandomOperationsOnSmallMemory)
{
    for (const std::size_t size : {1U, 2U, 3U, 7U, 16U, 61U}) {
        compareWithDeque(size, 200000);
    }
}

TEST(RingBuffer, behavesLikeADequeUnderRandomOperationsOnLargeMemory)
{
    compareWithDeque(1000, 20000);
    compareWithDeque(4096, 5000);
}

TEST(RingBuffer, withoutMemoryStoresNothingWhateverIsAsked)
{
    compareWithDeque(0, 200000);
}

TEST(RingBuffer, everyByteOfTheMemoryIsUsable)
{
    for (const std::size_t size : {1U, 2U, 1024U, 196608U}) {
        GuardedMemory memory(size);
        MdpRingBuffer ring;
        ASSERT_EQ(ring.init(memory.data(), size), 0);
        EXPECT_EQ(ring.availableBytes(), size);
        const std::string block(size, 'x');
        EXPECT_EQ(ring.enqueue(block.data(), size), static_cast<ssize_t>(size));
        EXPECT_EQ(ring.usedBytes(), size);
        EXPECT_EQ(ring.availableBytes(), 0U);
        EXPECT_EQ(take(ring, size + 1), block);
        EXPECT_TRUE(memory.guardsHold());
    }
}

TEST(RingBuffer, everyByteIsUsableAtEveryPositionOfTheOldestByte)
{
    constexpr std::size_t kSize = 9;
    for (std::size_t first = 0; first < kSize; ++first) {
        GuardedMemory memory(kSize);
        MdpRingBuffer ring;
        ASSERT_EQ(ring.init(memory.data(), kSize), 0);
        // One byte stays inside, so that the buffer does not start over at its beginning.
        ASSERT_EQ(ring.enqueue("012345678", first + 1), static_cast<ssize_t>(first + 1));
        ASSERT_EQ(ring.dequeue(nullptr, first), first);
        EXPECT_EQ(ring.enqueue("abcdefgh", 8), 8) << "oldest byte at " << first;
        EXPECT_EQ(ring.availableBytes(), 0U);
        EXPECT_EQ(take(ring, kSize), std::string("012345678").substr(first, 1) + "abcdefgh");
        EXPECT_TRUE(memory.guardsHold());
    }
}

TEST(RingBuffer, storesWhatFitsOfABlockThatIsTooLarge)
{
    GuardedMemory memory(4);
    MdpRingBuffer ring;
    ASSERT_EQ(ring.init(memory.data(), 4), 0);
    EXPECT_EQ(ring.enqueue("ab", 2), 2);
    EXPECT_EQ(ring.enqueue("cdef", 4), 2);
    EXPECT_EQ(ring.enqueue("g", 1), 0);
    EXPECT_EQ(take(ring, 10), "abcd");
    EXPECT_EQ(take(ring, 10), "");
}

TEST(RingBuffer, nullDestinationDiscards)
{
    GuardedMemory memory(6);
    MdpRingBuffer ring;
    ASSERT_EQ(ring.init(memory.data(), 6), 0);
    ASSERT_EQ(ring.enqueue("abcdef", 6), 6);
    EXPECT_EQ(ring.dequeue(nullptr, 4), 4U);
    EXPECT_EQ(ring.usedBytes(), 2U);
    EXPECT_EQ(take(ring, 6), "ef");
    EXPECT_EQ(ring.dequeue(nullptr, 1), 0U);
}

TEST(RingBuffer, beforeInitEnqueueIsInvalidAndTheRestIsEmpty)
{
    MdpRingBuffer ring;
    unsigned char byte = 0;
    EXPECT_EQ(ring.enqueue("a", 1), -EINVAL);
    EXPECT_EQ(ring.enqueue("a", 0), -EINVAL);
    EXPECT_EQ(ring.dequeue(&byte, 1), 0U);
    EXPECT_EQ(ring.usedBytes(), 0U);
    EXPECT_EQ(ring.availableBytes(), 0U);
}

TEST(RingBuffer, nullDataIsInvalidUnlessNothingIsStored)
{
    GuardedMemory memory(4);
    MdpRingBuffer ring;
    ASSERT_EQ(ring.init(memory.data(), 4), 0);
    EXPECT_EQ(ring.enqueue(nullptr, 1), -EINVAL);
    EXPECT_EQ(ring.enqueue(nullptr, 0), 0);
    EXPECT_EQ(ring.usedBytes(), 0U);
}

TEST(RingBuffer, initRefusesMemoryWithoutSizeAndSizeWithoutMemory)
{
    unsigned char memory[4] = {};
    MdpRingBuffer ring;
    EXPECT_EQ(ring.init(nullptr, 4), -EINVAL);
    EXPECT_EQ(ring.availableBytes(), 0U);
    EXPECT_EQ(ring.init(memory, 0), -EINVAL);
    EXPECT_EQ(ring.availableBytes(), 0U);
    EXPECT_EQ(ring.init(nullptr, 0), 0);
    EXPECT_EQ(ring.availableBytes(), 0U);
}

TEST(RingBuffer, initForgetsTheFormerContent)
{
    GuardedMemory first(4);
    GuardedMemory second(3);
    MdpRingBuffer ring;
    ASSERT_EQ(ring.init(first.data(), 4), 0);
    ASSERT_EQ(ring.enqueue("abc", 3), 3);
    ASSERT_EQ(ring.init(second.data(), 3), 0);
    EXPECT_EQ(ring.usedBytes(), 0U);
    EXPECT_EQ(ring.availableBytes(), 3U);
    EXPECT_EQ(ring.enqueue("xyz", 3), 3);
    EXPECT_EQ(take(ring, 3), "xyz");
}

TEST(RingBuffer, releaseForgetsContentAndMemory)
{
    MdpRingBuffer ring;
    {
        std::vector<unsigned char> memory(8);
        ASSERT_EQ(ring.init(memory.data(), memory.size()), 0);
        ASSERT_EQ(ring.enqueue("abc", 3), 3);
        ring.release();
    }
    EXPECT_EQ(ring.usedBytes(), 0U);
    EXPECT_EQ(ring.availableBytes(), 0U);
    EXPECT_EQ(ring.enqueue("a", 1), -EINVAL);
    EXPECT_EQ(ring.dequeue(nullptr, 1), 0U);
    ring.release();
    EXPECT_EQ(ring.usedBytes(), 0U);
}
