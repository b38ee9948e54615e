#include "support/network_namespace.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace support {

namespace {

constexpr const char* kThisThread = "/proc/thread-self/ns/net";

UniqueFd current()
{
    UniqueFd fd(open(kThisThread, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        throw std::system_error(errno, std::generic_category(), kThisThread);
    }
    return fd;
}

void write(const char* file, const std::string& text)
{
    std::ofstream stream(file);
    stream << text << std::flush;
    if (!stream) {
        throw std::runtime_error(std::string("cannot write ") + file);
    }
}

// Inside, the user is root, which "ip" asks for.
void mapUser(uid_t user, gid_t group)
{
    write("/proc/self/setgroups", "deny");
    write("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    write("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

// Empty, or what the system says against it.
std::string unshareNetwork()
{
    if (unshare(CLONE_NEWNET) == 0) {
        return {};
    }
    if (errno != EPERM) {
        return std::string("no network namespace: ") + std::strerror(errno);
    }
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return std::string("no network namespace: not root, and a user namespace is refused: ") +
               std::strerror(errno) + (errno == EINVAL ? " (the process has more than one thread)" : "");
    }
    mapUser(user, group);
    return {};
}

} // namespace

NetworkNamespace::NetworkNamespace() : m_outside(current()), m_problem(unshareNetwork())
{
    if (m_problem.empty()) {
        m_inside = current();
        ip("link set lo up");
        ip("route add 224.0.0.0/4 dev lo");
    }
}

NetworkNamespace::~NetworkNamespace()
{
    if (m_inside) {
        setns(m_outside.get(), CLONE_NEWNET); // refused behind a user namespace
    }
}

void NetworkNamespace::ip(const std::string& words) const
{
    run("ip " + words);
}

std::string NetworkNamespace::run(const std::string& command) const
{
    const Visit inside(*this);
    // Where such commands are is on root's PATH only.
    const std::string line = "PATH=\"$PATH:/usr/sbin:/sbin\"; exec 2>&1; " + command;
    std::FILE* pipe = popen(line.c_str(), "re");
    if (pipe == nullptr) {
        throw std::system_error(errno, std::generic_category(), "popen");
    }
    std::string said;
    std::array<char, 1024> part{};
    for (std::size_t count = 1; count > 0; said.append(part.data(), count)) {
        count = std::fread(part.data(), 1, part.size(), pipe);
    }
    if (pclose(pipe) != 0) {
        throw std::runtime_error(command + ": " + said);
    }
    return said;
}

std::string NetworkNamespace::name() const
{
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_inside.get());
}

NetworkNamespace::Visit::Visit(const NetworkNamespace& visited) : m_home(current())
{
    if (setns(visited.m_inside.get(), CLONE_NEWNET) != 0) {
        throw std::system_error(errno, std::generic_category(), "setns");
    }
}

NetworkNamespace::Visit::~Visit()
{
    setns(m_home.get(), CLONE_NEWNET);
}

} // namespace support
