/* Owner of a file descriptor. */
#ifndef MDP_DESCRIPTOR_H
#define MDP_DESCRIPTOR_H

#include <unistd.h>
#include <utility>

class MdpDescriptor
{
public:
    explicit MdpDescriptor(int number = -1) : m_number(number) {}
    MdpDescriptor(MdpDescriptor&& other) noexcept : m_number(other.release()) {}
    MdpDescriptor& operator=(MdpDescriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    MdpDescriptor(const MdpDescriptor&) = delete;
    MdpDescriptor& operator=(const MdpDescriptor&) = delete;
    ~MdpDescriptor()
    {
        if (m_number >= 0) {
            ::close(m_number);
        }
    }

    int get() const { return m_number; }
    bool isOpen() const { return m_number >= 0; }
    int release() { return std::exchange(m_number, -1); }

private:
    int m_number;
};

#endif
