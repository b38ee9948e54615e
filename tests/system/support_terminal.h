// A terminal as a user has it, for a program that asks or shows something there.
#pragma once

#include "support/sockets.h"
#include "support/wait.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/ioctl.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace support {

class Terminal
{
public:
    Terminal()
    {
        int user = -1;
        int program = -1;
        if (openpty(&user, &program, nullptr, nullptr, nullptr) != 0) {
            throw std::system_error(errno, std::generic_category(), "openpty");
        }
        m_user = UniqueFd(user);
        m_program = UniqueFd(program);
        fcntl(user, F_SETFD, FD_CLOEXEC);
        fcntl(program, F_SETFD, FD_CLOEXEC); // it gets copies
    }

    /* The program's side, for ProcessOptions. */
    int fd() const { return m_program.get(); }

    /* The same as a file. */
    std::string path() const
    {
        std::array<char, 64> name{};
        return ttyname_r(fd(), name.data(), name.size()) == 0 ? name.data() : "";
    }

    /* How wide it is. */
    void setColumns(unsigned short columns) const
    {
        winsize size{};
        size.ws_col = columns;
        size.ws_row = 24;
        ioctl(fd(), TIOCSWINSZ, &size);
    }

    void type(const std::string& keys) const
    {
        [[maybe_unused]] const ssize_t written = write(m_user.get(), keys.data(), keys.size());
    }

    /* All that has been shown so far. */
    const std::string& shown()
    {
        std::array<char, 4096> part{};
        pollfd entry{m_user.get(), POLLIN, 0};
        while (poll(&entry, 1, 0) > 0) {
            const ssize_t got = read(m_user.get(), part.data(), part.size());
            if (got <= 0) {
                break;
            }
            m_shown.append(part.data(), static_cast<std::size_t>(got));
        }
        return m_shown;
    }

    bool waitFor(const std::string& text)
    {
        return waitUntil([&] { return shown().find(text) != std::string::npos; });
    }

    bool echoes() const
    {
        termios settings{};
        return tcgetattr(m_program.get(), &settings) == 0 && (settings.c_lflag & ECHO) != 0;
    }

private:
    UniqueFd m_user;
    UniqueFd m_program;
    std::string m_shown;
};

} // namespace support
