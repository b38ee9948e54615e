#include "prompt.h"

#include "interrupt.h"

#include <array>
#include <cerrno>
#include <cstdint>

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
            ::close(m_fd);
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
    explicit EchoOff(int terminal) : m_terminal(terminal)
    {
        if (tcgetattr(terminal, &m_former) != 0) {
            return;
        }
        termios silent = m_former;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= static_cast<tcflag_t>(ECHONL);
        m_done = tcsetattr(m_terminal, TCSAFLUSH, &silent) == 0;
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
    bool m_done = false;
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
        if (poll(entries.data(), entries.size(), -1) < 0 && errno != EINTR) {
            return false;
        }
        if (entries[1].revents != 0) {
            return false;
        }
        if (entries[0].revents == 0) {
            continue;
        }
        char letter = 0;
        const ssize_t got = read(fd, &letter, 1);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0 || letter == '\n') {
            return got > 0;
        }
        line += letter;
    }
}

Failure noAnswer(const Question& question, const std::string& reason)
{
    return {question.missing, reason, question.next, kExitUsage};
}

} // namespace

bool askUnseen(const Question& question, Interrupt& interrupt, std::string& answer, Failure& failure)
{
    const Descriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    const Descriptor stop(eventfd(0, EFD_CLOEXEC));
    if (terminal.get() < 0 || stop.get() < 0) {
        failure = noAnswer(question, "there is no terminal to ask at");
        return false;
    }
    const EchoOff unseen(terminal.get());
    if (!unseen.done() || !writeText(terminal.get(), printable(question.prompt))) {
        failure = noAnswer(question, "the terminal does not answer");
        return false;
    }
    interrupt.setAction([&stop] {
        const std::uint64_t one = 1;
        while (write(stop.get(), &one, sizeof one) < 0 && errno == EINTR) {
        }
    });
    const bool got = readLine(terminal.get(), stop.get(), answer);
    interrupt.setAction(nullptr);
    if (!got) {
        writeText(terminal.get(), "\n");
        failure = noAnswer(question, "the input ended");
    }
    return got;
}

} // namespace mdch
