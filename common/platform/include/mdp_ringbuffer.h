/*
 * A bounded first-in, first-out buffer of bytes on memory that the caller owns.
 *
 * All bytes of the memory are usable: fill level and capacity are counted, no slot is kept free. The class
 * has no lock; the record that holds a buffer guards it with the record's own mutex.
 */
#ifndef MDP_RINGBUFFER_H
#define MDP_RINGBUFFER_H

#include <cstddef>
#include <sys/types.h>

/* The buffer; one user at a time. */
class MdpRingBuffer
{
public:
    MdpRingBuffer() = default;
    MdpRingBuffer(const MdpRingBuffer&) = delete;
    MdpRingBuffer& operator=(const MdpRingBuffer&) = delete;

    /*
     * Starts empty on size bytes of memory, which must outlive the buffer's use and stays the caller's.
     * A null memory or a size of 0 leaves a buffer without room. Returns 0, or -EINVAL for null memory
     * with a size above 0 (or the other way round).
     */
    int init(void* memory, size_t size);

    /*
     * Stores up to count bytes, as many as there is room for. Returns the number of bytes stored (0 when
     * full), or -EINVAL when init has not been called or data is null while count is above 0.
     */
    ssize_t enqueue(const void* data, size_t count);

    /*
     * Takes up to count bytes out, oldest first, into destination; a null destination discards them.
     * Returns the number of bytes taken, 0 when empty.
     */
    size_t dequeue(void* destination, size_t count);

    /* Bytes stored and not yet taken. */
    size_t usedBytes() const { return m_used; }

    /* Bytes that enqueue would take now. */
    size_t availableBytes() const { return m_size - m_used; }

    /* Forgets content and memory; the caller frees the memory. init may follow. */
    void release();

private:
    unsigned char* m_memory = nullptr;
    size_t m_size = 0;
    size_t m_first = 0; // index of the oldest byte
    size_t m_used = 0;
};

#endif
