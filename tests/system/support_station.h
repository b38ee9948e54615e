// A broadcaster of its own for a test: FFmpeg in a network namespace, joined by virtual Ethernet with the one in
// which the test listens.
#pragma once

#include "support/network_namespace.h"
#include "support/temp_dir.h"
#include "support_process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace support {

// Two networks. The test is "here"; "there" is what it hears.
class TwoNetworks
{
public:
    TwoNetworks();

    explicit operator bool() const { return static_cast<bool>(m_here); }
    const std::string& problem() const { return m_here.problem(); }

    // An Ethernet between the two, of the same name on both sides: 10.NUMBER.0.1 here, 10.NUMBER.0.2 there.
    void connect(const std::string& name, int number) const;

    // Multicast takes that way, on both sides.
    void routeMulticast(const std::string& name) const;

    const NetworkNamespace& there() const { return m_there; }

    // What the kernel threw away on that way, before any socket saw it.
    std::uint64_t droppedBetween(const std::string& name) const;

    // Datagrams that were sent there.
    std::uint64_t sentThere() const;

private:
    NetworkNamespace m_there;
    NetworkNamespace m_here; // the last one made is where the thread is
};

// What the kernel threw away at a socket of this process, since it was opened: its buffer was full.
std::uint64_t droppedAt(int fd);

// MPEG-TS at 20 Mbit/s in RTP, seven packets a datagram: each datagram has its number, from 0.
class Station
{
public:
    static constexpr std::size_t kHeaderBytes = 12;
    static constexpr std::size_t kDatagramBytes = kHeaderBytes + std::size_t{7} * 188;
    static constexpr int kBitsPerSecond = 20'000'000; // of MPEG-TS

    // Makes what it will send; nothing is sent yet.
    Station();

    void start(const TwoNetworks& networks, const std::string& group, std::uint16_t port, int seconds);
    bool isOnAir() { return m_process->isRunning(); }

    // Empty when it ended well, or what it complained of.
    std::string end(std::chrono::milliseconds deadline);

private:
    TempDir m_folder{"station"};
    std::string m_film;
    std::unique_ptr<Process> m_process;
};

} // namespace support
