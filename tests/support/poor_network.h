// A loopback interface that is as poor as a test wants it: slow, losing packets, cut.
#pragma once

#include "support/network_namespace.h"

#include <cstdint>
#include <string>

namespace support {

// A network of the test's own, whose loopback interface has packets of 1500 bytes as an Ethernet has. The kernel does
// what is asked: tc and its token bucket, nft and its packet filter. Where it cannot, problem() says why, for GTEST_SKIP.
// Servers and streams are made by the thread that made the object, after it.
class PoorNetwork
{
public:
    PoorNetwork();

    explicit operator bool() const { return m_problem.empty(); }
    const std::string& problem() const { return m_problem; }

    // All traffic together; what waits behind that many bytes is thrown away.
    void limit(std::uint64_t bytesPerSecond, std::uint64_t waiting = 400'000) const;
    void noLimit() const;

    // So many of 100 packets, at random; 100 is an outage.
    void lose(int percent) const;

    // Packets that lose() has lost, and that the limit has thrown away since it was set.
    std::uint64_t lost() const;
    std::uint64_t thrownAway() const;

private:
    NetworkNamespace m_network;
    std::string m_problem;
};

} // namespace support
