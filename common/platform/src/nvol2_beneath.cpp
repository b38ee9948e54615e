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
#include <utility>
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
        putInFront(path);
        while (!m_steps.empty()) {
            const std::string step = std::move(m_steps.front());
            m_steps.pop_front();
            const int result = m_steps.empty() ? openLast(step) : enter(step);
            if (result < 0) {
                return result;
            }
        }
        return m_result.release();
    }

private:
    int folder() const { return m_folders.empty() ? m_root : m_folders.back().get(); }

    // Takes a path's steps before the others. Only behind the very last step a slash asks for a folder, and then
    // whatever links that step still leads through.
    void putInFront(const std::string& path)
    {
        if (m_steps.empty() && path.back() == '/') {
            m_mustBeFolder = true;
        }
        Steps front;
        for (std::size_t from = 0; from < path.size();) {
            const std::size_t slash = std::min(path.find('/', from), path.size());
            if (slash > from) {
                front.push_back(path.substr(from, slash - from));
            }
            from = slash + 1;
        }
        m_steps.insert(m_steps.begin(), front.begin(), front.end());
    }

    // Steps to ".." and "." ask for this right as those to a name do, for which openat sees to it.
    int checkSearch() const
    {
        const MdpDescriptor here(openat(folder(), ".", O_PATH | O_CLOEXEC));
        return here.isOpen() ? 0 : -errno;
    }

    int leave()
    {
        const int result = checkSearch();
        if (result < 0) {
            return result;
        }
        if (m_folders.empty()) {
            return -EACCES;
        }
        m_folders.pop_back();
        return 0;
    }

    // The link is read through its descriptor, so that it is the one that was looked at.
    int follow(const MdpDescriptor& link)
    {
        if (++m_links > kMostLinks) {
            return -ELOOP;
        }
        std::vector<char> text(PATH_MAX);
        const ssize_t length = readlinkat(link.get(), "", text.data(), text.size());
        if (length <= 0) {
            return length < 0 ? -errno : -ENOENT;
        }
        if (text.front() == '/') { // leads outside
            return -EACCES;
        }
        putInFront(std::string(text.data(), static_cast<std::size_t>(length)));
        return 0;
    }

    // A step with others behind it: a folder, or a link.
    int enter(const std::string& step)
    {
        if (step == ".") {
            return checkSearch();
        }
        if (step == "..") {
            return leave();
        }
        MdpDescriptor next;
        mode_t type = 0;
        const int result = lookAt(step, next, type);
        if (result < 0) {
            return result;
        }
        if (type == S_IFLNK) {
            return follow(next);
        }
        if (type != S_IFDIR) {
            return -ENOTDIR;
        }
        m_folders.push_back(std::move(next));
        return 0;
    }

    // The thing itself, be it a link, without opening what it stands for.
    int lookAt(const std::string& step, MdpDescriptor& thing, mode_t& type) const
    {
        thing = MdpDescriptor(openat(folder(), step.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat64 facts = {};
        if (!thing.isOpen() || fstat64(thing.get(), &facts) != 0) {
            return -errno;
        }
        type = facts.st_mode & S_IFMT;
        return 0;
    }

    int openLast(const std::string& step)
    {
        if (step == "." || step == "..") {
            const int left = step == ".." ? leave() : 0;
            return left < 0 ? left : openHere(".", 0);
        }
        if (m_mustBeFolder && (m_flags & O_CREAT) != 0) {
            const int result = checkSearch();
            return result < 0 ? result : -EISDIR;
        }
        if ((m_flags & O_PATH) != 0) {
            return pointAt(step);
        }
        const int result = openHere(step, m_mustBeFolder ? O_DIRECTORY : 0);
        // What O_NOFOLLOW makes of a link: ELOOP, and ENOTDIR where only a folder will do.
        return followsLink() && (result == -ELOOP || result == -ENOTDIR) ? followLast(step, result) : result;
    }

    bool followsLink() const { return (m_flags & O_NOFOLLOW) == 0 || m_mustBeFolder; }

    // Brings new steps if the last one is a link, else keeps the result.
    int followLast(const std::string& step, int result)
    {
        MdpDescriptor thing;
        mode_t type = 0;
        const int looked = lookAt(step, thing, type);
        if (looked < 0) {
            return looked;
        }
        if (type == S_IFLNK) {
            return follow(thing);
        }
        if (result == -ELOOP && ++m_links <= kMostLinks) { // was a link: somebody changed it
            m_steps.push_front(step);
            return 0;
        }
        return result;
    }

    // For O_PATH, which with O_NOFOLLOW would give the link itself.
    int pointAt(const std::string& step)
    {
        MdpDescriptor thing;
        mode_t type = 0;
        const int result = lookAt(step, thing, type);
        if (result < 0) {
            return result;
        }
        if (type == S_IFLNK && followsLink()) {
            return follow(thing);
        }
        if (type != S_IFDIR && (m_mustBeFolder || (m_flags & O_DIRECTORY) != 0)) {
            return -ENOTDIR;
        }
        m_result = std::move(thing);
        return 0;
    }

    int openHere(const std::string& name, int moreFlags)
    {
        const int flags = m_flags | O_NOFOLLOW | O_CLOEXEC | moreFlags;
        m_result = MdpDescriptor(openat64(folder(), name.c_str(), flags, m_mode));
        return m_result.isOpen() ? 0 : -errno;
    }

    using Steps = std::deque<std::string>;

    int m_root;
    int m_flags;
    mode_t m_mode;
    Steps m_steps; // still to be taken
    bool m_mustBeFolder = false;
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
