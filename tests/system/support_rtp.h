// Counts what arrived of a station's datagrams, by the numbers in them.
#pragma once

#include "support_station.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <vector>

namespace support {

class RtpCount
{
public:
    // bufferBytes: where a reader's buffer cuts datagrams.
    explicit RtpCount(std::size_t bufferBytes) : m_expected(std::min(bufferBytes, Station::kDatagramBytes)) {}

    // One datagram as it was read.
    void take(const unsigned char* bytes, std::size_t size)
    {
        m_bytes += size;
        if (!isWhole(bytes, size)) {
            ++m_damaged;
            return;
        }
        const auto number = static_cast<std::uint16_t>(bytes[2] << 8U | bytes[3]);
        // Numbers have 16 bits: the nearest one to the last is meant.
        m_last += static_cast<std::int16_t>(static_cast<std::uint16_t>(number - m_last));
        m_outOfOrder += !m_numbers.empty() && m_last < m_numbers.back() ? 1 : 0;
        m_numbers.push_back(m_last);
        if (size == Station::kDatagramBytes) {
            for (std::size_t at = Station::kHeaderBytes; at < size; at += kPacketBytes) {
                takePacket(bytes + at);
            }
        }
    }

    std::uint64_t datagrams() const { return m_numbers.size() + m_damaged; }
    std::uint64_t bytes() const { return m_bytes; }
    std::uint64_t damaged() const { return m_damaged; } // neither whole nor cut where the buffer ends
    std::uint64_t outOfOrder() const { return m_outOfOrder; }
    std::int64_t last() const { return m_last; } // of the last datagram that came

    // Breaks in the continuity counters of the MPEG-TS packets: losses show in them, as does disorder.
    std::uint64_t continuityErrors() const { return m_continuityErrors; }

    std::uint64_t different() const
    {
        std::vector<std::int64_t> numbers = m_numbers;
        std::sort(numbers.begin(), numbers.end());
        return static_cast<std::uint64_t>(
            std::distance(numbers.begin(), std::unique(numbers.begin(), numbers.end())));
    }

    // Numbers between the first and the last that never came.
    std::uint64_t missingInside() const
    {
        if (m_numbers.empty()) {
            return 0;
        }
        const auto [first, last] = std::minmax_element(m_numbers.begin(), m_numbers.end());
        return static_cast<std::uint64_t>(*last - *first + 1) - different();
    }

private:
    static constexpr std::size_t kPacketBytes = 188;
    static constexpr unsigned char kSync = 0x47;
    static constexpr unsigned int kNullPacket = 0x1fff;

    bool isWhole(const unsigned char* bytes, std::size_t size) const
    {
        constexpr unsigned char kVersion = 0x80;
        constexpr unsigned char kMpegTs = 33;
        if (size != m_expected || bytes[0] != kVersion || (bytes[1] & 0x7fU) != kMpegTs) {
            return false;
        }
        for (std::size_t at = Station::kHeaderBytes; at < size; at += kPacketBytes) {
            if (bytes[at] != kSync) {
                return false;
            }
        }
        return true;
    }

    void takePacket(const unsigned char* packet)
    {
        const unsigned int stream = (packet[1] & 0x1fU) << 8U | packet[2];
        const bool hasPayload = (packet[3] & 0x10U) != 0;
        const unsigned int counter = packet[3] & 0xfU;
        if (stream == kNullPacket || !hasPayload) {
            return;
        }
        const auto [known, isNew] = m_counters.try_emplace(stream, counter);
        m_continuityErrors += !isNew && ((known->second + 1) & 0xfU) != counter ? 1 : 0;
        known->second = counter;
    }

    std::size_t m_expected;
    std::uint64_t m_bytes = 0;
    std::uint64_t m_damaged = 0;
    std::uint64_t m_outOfOrder = 0;
    std::uint64_t m_continuityErrors = 0;
    std::int64_t m_last = 0;
    std::vector<std::int64_t> m_numbers;
    std::map<unsigned int, unsigned int> m_counters; // by stream in the MPEG-TS
};

} // namespace support
