// A network of its own for a test: what is sent there, multicast too, never leaves the machine.
#pragma once

#include "support/sockets.h"

#include <string>

namespace support {

// A new network namespace: its loopback interface (127.0.0.1) is up and takes multicast, and there is nothing
// else in it. The thread that makes the object is inside until the object goes, and so are the threads, the
// programs and the sockets that it makes meanwhile; a socket stays where it was made.
//
// Root makes it directly. Anybody else makes a user namespace around the first one, which the thread cannot
// leave again, and which the kernel refuses to a process that has several threads already. Where there is no
// network, problem() says why, for GTEST_SKIP.
class NetworkNamespace
{
public:
    NetworkNamespace();
    ~NetworkNamespace(); // not while the thread is in one that it entered later
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    explicit operator bool() const { return static_cast<bool>(m_inside); }
    const std::string& problem() const { return m_problem; }

    // Runs the system's "ip" inside, with these words; throws std::runtime_error with what it complains of.
    void ip(const std::string& words) const;

    // Runs any command inside, by the shell; what it says, also as what is thrown when it fails.
    std::string run(const std::string& command) const;

    // A name for "ip link add ... netns NAME".
    std::string name() const;

    // The calling thread is in that namespace while the object lives.
    class Visit
    {
    public:
        explicit Visit(const NetworkNamespace& visited);
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

    private:
        UniqueFd m_home;
    };

private:
    UniqueFd m_outside;
    UniqueFd m_inside;
    std::string m_problem;
};

} // namespace support
