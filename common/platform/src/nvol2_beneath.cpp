#include "nvol2_beneath.h"

#include "mdp_descriptor.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <vector>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

namespace {

// What the kernel allows in one path; links beyond it are taken for a circle.
constexpr int kMostLinks = 40;

#if defined(SYS_openat2) && defined(RESOLVE_BENEATH)

// A folder that moves while a ".." step is resolved makes the kernel ask for another try.
constexpr int kTries = 32;

// -ENOSYS: the kernel cannot tell.
int openByKernel(int root, const char* path, int flags, mode_t mode)
{
    open_how how{};
    how.flags = static_cast<unsigned int>(flags);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    for (int count = 0; count < kTries; ++count) {
        const long result = syscall(SYS_openat2, root, path, &how, sizeof how);
        if (result >= 0) {
            return static_cast<int>(result);
        }
        if (errno == EXDEV) {
            return -EACCES;
        }
        if (errno != EAGAIN && errno != EINTR) {
            // Filters of system calls answer those that they do not know with EPERM.
            return errno == EPERM ? -ENOSYS : -errno;
        }
    }
    return -ENOSYS;
}

#else

int openByKernel(int, const char*, int, mode_t)
{
    return -ENOSYS;
}

#endif

// The steps that are still to be taken.
using Steps = std::deque<std::string>;

// Puts a path's steps in front of the others. A slash at its end asks for a folder and counts as a "." step.
void prepend(Steps& steps, const std::string& path)
{
    Steps front;
    for (std::size_t from = 0; from <= path.size();) {
        const std::size_t slash = std::min(path.find('/', from), path.size());
        const bool isLast = slash == path.size();
        if (slash > from) {
            front.push_back(path.substr(from, slash - from));
        } else if (isLast && !front.empty()) {
            front.emplace_back(".");
        }
        from = slash + 1;
    }
    steps.insert(steps.begin(), front.begin(), front.end());
}

// Where the link leads; a negated errno value without one. Links to absolute paths lead outside.
int readLink(int folder, const char* name, std::string& target)
{
    std::vector<char> text(PATH_MAX);
    const ssize_t length = readlinkat(folder, name, text.data(), text.size());
    if (length < 0) {
        return -errno;
    }
    target.assign(text.data(), static_cast<std::size_t>(length));
    return !target.empty() && target.front() == '/' ? -EACCES : 0;
}

class Walk
{
public:
    Walk(int root, int flags, mode_t mode) : m_root(root), m_flags(flags), m_mode(mode) {}

    int run(const char* path)
    {
        if (path[0] == '/') {
            return -EACCES;
        }
        if (path[0] == '\0') {
            return -ENOENT;
        }
        prepend(m_steps, path);
        while (!m_steps.empty()) {
            const std::string step = m_steps.front();
            m_steps.pop_front();
            const int result = m_steps.empty() ? openLast(step) : enter(step);
            if (result < 0) {
                return result;
            }
            if (m_result.isOpen()) {
                return m_result.release();
            }
        }
        return -ENOENT; // not reached: the last step opens or fails
    }

private:
    int folder() const { return m_folders.empty() ? m_root : m_folders.back().get(); }

    int leave()
    {
        if (m_folders.empty()) {
            return -EACCES;
        }
        m_folders.pop_back();
        return 0;
    }

    int follow(const char* name)
    {
        if (++m_links > kMostLinks) {
            return -ELOOP;
        }
        std::string target;
        const int result = readLink(folder(), name, target);
        if (result == 0) {
            prepend(m_steps, target);
        }
        return result;
    }

    // A step with others behind it: a folder, or a link.
    int enter(const std::string& step)
    {
        if (step == ".") {
            return 0;
        }
        if (step == "..") {
            return leave();
        }
        MdpDescriptor next(openat(folder(), step.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!next.isOpen()) {
            return -errno;
        }
        struct stat64 facts = {};
        if (fstat64(next.get(), &facts) != 0) {
            return -errno;
        }
        if (S_ISLNK(facts.st_mode)) {
            return follow(step.c_str());
        }
        if (!S_ISDIR(facts.st_mode)) {
            return -ENOTDIR;
        }
        m_folders.push_back(std::move(next));
        return 0;
    }

    // 0 when m_result is open, or when a link has brought new steps.
    int openLast(const std::string& step)
    {
        const char* name = step.c_str();
        if (step == "..") {
            const int result = leave();
            if (result < 0) {
                return result;
            }
            name = ".";
        }
        m_result = MdpDescriptor(openat64(folder(), name, m_flags | O_NOFOLLOW | O_CLOEXEC, m_mode));
        if (m_result.isOpen()) {
            return 0;
        }
        if (errno != ELOOP) { // what O_NOFOLLOW makes of a link
            return -errno;
        }
        const int followed = follow(name);
        if (followed == -EINVAL) { // no link any more: somebody changed it
            m_steps.push_front(step);
            return 0;
        }
        return followed;
    }

    int m_root;
    int m_flags;
    mode_t m_mode;
    Steps m_steps;
    std::vector<MdpDescriptor> m_folders; // from the root to where the walk is; the root itself is not in it
    MdpDescriptor m_result;
    int m_links = 0;
};

} // namespace

int nvol2OpenBeneath(int root, const char* path, int flags, mode_t mode)
{
    const int result = openByKernel(root, path, flags | O_CLOEXEC, mode);
    return result == -ENOSYS ? nvol2WalkBeneath(root, path, flags, mode) : result;
}

int nvol2WalkBeneath(int root, const char* path, int flags, mode_t mode)
{
    if (std::strlen(path) >= PATH_MAX) {
        return -ENAMETOOLONG;
    }
    return Walk(root, flags, mode).run(path);
}
