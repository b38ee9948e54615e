/*
 * What the tests of UDP streams share.
 */
#ifndef SUPPORT_UDP_STREAM_H
#define SUPPORT_UDP_STREAM_H

#include "mdc_hlp_url_udp.h"

#include "support/descriptors.h"
#include "support/trace_capture.h"
#include "support/udp_socket.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace support {

/* A stream whose socket the test can look at; it is closed at the end. */
class UdpStream : public MdchUrlUdp
{
public:
    UdpStream() = default;
    ~UdpStream() override
    {
        if (m_fd >= 0) {
            close();
        }
    }
    UdpStream(const UdpStream&) = delete;
    UdpStream& operator=(const UdpStream&) = delete;

    /* Opens, and notes the descriptor that came with it. No other thread opens anything meanwhile. */
    int start(const std::string& url)
    {
        const auto before = openDescriptors();
        const int result = open(url.c_str(), 0);
        m_fd = descriptorOpenedSince(before);
        return result;
    }

    int fd() const { return m_fd; } // -1: none
    std::string boundTo() const { return support::boundTo(m_fd); }
    std::uint16_t port() const
    {
        const std::string text = boundTo();
        return static_cast<std::uint16_t>(std::stoi(text.substr(text.find(':') + 1)));
    }

    /* A socket option that is an int. */
    int option(int level, int name) const
    {
        int value = -1;
        socklen_t size = sizeof value;
        return getsockopt(m_fd, level, name, &value, &size) == 0 ? value : -1;
    }

private:
    int m_fd = -1;
};

/* One read; empty when nothing came. */
inline std::string readOnce(MdchUrlBase& stream, std::size_t size = 65536)
{
    std::string bytes(size, '\0');
    const int count =
        stream.read(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<unsigned int>(size));
    EXPECT_GE(count, 0);
    EXPECT_LE(count, static_cast<int>(size));
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

/* The next datagram that has bytes; empty when none comes before the deadline. */
inline std::string readNext(MdchUrlBase& stream, std::size_t size = 65536)
{
    std::string bytes;
    waitUntil([&] {
        bytes = readOnce(stream, size);
        return !bytes.empty();
    });
    return bytes;
}

/* Each line as "severity text", line numbers as #. */
inline std::vector<std::string> levelsAndTexts(const TraceCapture& traces)
{
    std::vector<std::string> result;
    for (const TraceCapture::Line& line : traces.lines()) {
        EXPECT_EQ(line.level >> 16U, 0x68U) << line.text;
        result.push_back(std::to_string(line.level & 0xffffU) + " " +
                         TraceCapture::withoutLineNumber(line.text));
    }
    return result;
}

} // namespace support

#endif
