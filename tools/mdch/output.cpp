#include "output.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace mdch {

namespace {

bool isSameFile(const std::string& source, const std::string& target)
{
    struct stat from = {};
    struct stat to = {};
    return stat(source.c_str(), &from) == 0 && stat(target.c_str(), &to) == 0 && S_ISREG(to.st_mode) &&
           from.st_dev == to.st_dev && from.st_ino == to.st_ino;
}

} // namespace

Output::Output(std::string path, bool keep) : m_path(std::move(path)), m_keep(keep) {}

Output::~Output()
{
    if (m_fd >= 0 && !m_path.empty()) {
        ::close(m_fd);
    }
}

std::string Output::what() const
{
    return m_path.empty() ? "cannot write to standard output" : "cannot write to " + m_path;
}

bool Output::open(const std::string& source, Failure& failure)
{
    if (m_path.empty()) {
        m_fd = STDOUT_FILENO;
        return true;
    }
    if (isSameFile(source, m_path)) {
        failure = localFailure(what(), EEXIST);
        failure.reason = "it is the file that is read";
        failure.next = "Name another file";
        return false;
    }
    constexpr mode_t kPermissions = 0666;
    m_fd =
        ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (m_keep ? O_APPEND : O_TRUNC), kPermissions);
    if (m_fd < 0) {
        failure = localFailure(what(), errno);
        return false;
    }
    return true;
}

bool Output::write(const unsigned char* data, std::size_t count, Failure& failure)
{
    while (count > 0) {
        const ssize_t written = ::write(m_fd, data, count);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            failure = localFailure(what(), errno);
            return false;
        }
        data += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}

// Some file systems tell about lost bytes only here.
bool Output::close(Failure& failure)
{
    if (m_path.empty()) {
        return true;
    }
    if (::close(std::exchange(m_fd, -1)) != 0) {
        failure = localFailure(what(), errno);
        return false;
    }
    return true;
}

} // namespace mdch
