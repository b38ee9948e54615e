#include "interrupt.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace mdch {

namespace {

constexpr int kSignalStatus = 128;

// Waits for one of two descriptors: true when the first became readable before the second and the time-out.
bool readableBefore(int wanted, int other, int timeout)
{
    std::array<pollfd, 2> entries = {{{wanted, POLLIN, 0}, {other, POLLIN, 0}}};
    int result = 0;
    do {
        result = poll(entries.data(), entries.size(), timeout);
    } while (result < 0 && errno == EINTR);
    return result > 0 && entries[1].revents == 0;
}

} // namespace

Interrupt::Interrupt()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    m_signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    m_endFd = eventfd(0, EFD_CLOEXEC);
    if (m_signalFd < 0 || m_endFd < 0) {
        throw std::system_error(errno, std::generic_category(), "signals");
    }
    m_thread = std::thread(&Interrupt::run, this);
}

Interrupt::~Interrupt()
{
    const std::uint64_t one = 1;
    while (write(m_endFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
    m_thread.join();
    close(m_endFd);
    close(m_signalFd);
}

void Interrupt::setAction(std::function<void()> action, int graceMilliseconds)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_action = std::move(action);
    m_graceMilliseconds = graceMilliseconds;
    if (requested() && m_action) {
        m_action();
    }
}

int Interrupt::status() const
{
    return kSignalStatus + m_signal.load();
}

int Interrupt::report() const
{
    const std::string line = "mdch: interrupted after " + std::to_string(m_bytes.load()) + " bytes.\n";
    while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
    }
    return status();
}

void Interrupt::run()
{
    if (!readableBefore(m_signalFd, m_endFd, -1)) {
        return;
    }
    signalfd_siginfo came = {};
    if (read(m_signalFd, &came, sizeof came) != static_cast<ssize_t>(sizeof came)) {
        return;
    }
    int grace = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        grace = m_graceMilliseconds;
        m_signal = static_cast<int>(came.ssi_signo);
        if (m_action) {
            m_action();
        }
    }
    pollfd entry = {m_endFd, POLLIN, 0};
    if (poll(&entry, 1, grace) == 0) {
        _exit(report());
    }
}

} // namespace mdch
