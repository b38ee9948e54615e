#include "password.h"

#include "failure.h"
#include "interrupt.h"

#include <array>
#include <cerrno>
#include <fstream>
#include <iostream>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

namespace mdch {

namespace {

class Descriptor
{
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_fd; }

private:
    int m_fd;
};

// While it lives, what is typed does not show.
class EchoOff
{
public:
    explicit EchoOff(int terminal) : m_terminal(terminal), m_done(tcgetattr(terminal, &m_former) == 0)
    {
        termios silent = m_former;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= ECHONL;
        m_done = m_done && tcsetattr(m_terminal, TCSAFLUSH, &silent) == 0;
    }
    ~EchoOff()
    {
        if (m_done) {
            tcsetattr(m_terminal, TCSAFLUSH, &m_former);
        }
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

    bool done() const { return m_done; }

private:
    int m_terminal;
    termios m_former{};
    bool m_done;
};

bool writeText(int fd, const std::string& text)
{
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// A line, without its end. False at the end of the input, and when `stop` becomes readable.
bool readLine(int fd, int stop, std::string& line)
{
    for (;;) {
        std::array<pollfd, 2> entries = {{{fd, POLLIN, 0}, {stop, POLLIN, 0}}};
        if (poll(entries.data(), entries.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (entries[1].revents != 0) {
            return false;
        }
        char letter = 0;
        const ssize_t got = read(fd, &letter, 1);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        if (letter == '\n') {
            return true;
        }
        line += letter;
    }
}

int noPassword(const std::string& reason)
{
    Failure failure;
    failure.what = "no password";
    failure.reason = reason;
    failure.next = "Use --password-file or --password-stdin";
    failure.status = kExitUsage;
    return report(failure);
}

bool askAtTerminal(const UploadOptions& options, Interrupt& interrupt, std::string& password, int& status)
{
    const Descriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    const Descriptor stop(eventfd(0, EFD_CLOEXEC));
    if (terminal.get() < 0 || stop.get() < 0) {
        status = noPassword("there is no terminal to ask for it");
        return false;
    }
    bool got = false;
    {
        const EchoOff unseen(terminal.get());
        const std::string prompt =
            printable("Password for " + options.address.user + " at " + options.address.server + ": ");
        if (!unseen.done() || !writeText(terminal.get(), prompt)) {
            status = noPassword("the terminal does not answer");
            return false;
        }
        interrupt.setAction([&stop] {
            const std::uint64_t one = 1;
            while (write(stop.get(), &one, sizeof one) < 0 && errno == EINTR) {
            }
        });
        got = readLine(terminal.get(), stop.get(), password);
        interrupt.setAction(nullptr);
        if (!got) {
            writeText(terminal.get(), "\n");
        }
    }
    if (interrupt.requested()) {
        status = interrupt.report();
        return false;
    }
    if (!got) {
        status = noPassword("the input ended");
    }
    return got;
}

// An empty file is an empty password.
bool readFile(const std::string& path, std::string& password, int& status)
{
    std::ifstream file(path);
    const bool opened = file.is_open();
    if (opened) {
        std::getline(file, password);
    }
    if (!opened || file.bad()) {
        status = report(localFailure("cannot read " + path, errno));
        return false;
    }
    return true;
}

} // namespace

bool readPassword(const UploadOptions& options, Interrupt& interrupt, std::string& password, int& status)
{
    if (options.address.user.empty()) {
        return true;
    }
    if (!options.passwordFile.empty()) {
        return readFile(options.passwordFile, password, status);
    }
    if (options.passwordStdin) {
        std::getline(std::cin, password);
        return true;
    }
    return askAtTerminal(options, interrupt, password, status);
}

} // namespace mdch
