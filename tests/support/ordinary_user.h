// Permissions in tests that may run as root, to whom every file is open.
#pragma once

#include <functional>
#include <sys/fsuid.h>
#include <thread>
#include <unistd.h>

namespace support {

// Runs a function on a thread that has an ordinary user's rights on files: this process's own, or those of user
// nobody when it is root's.
inline void asOrdinaryUser(const std::function<void()>& function)
{
    constexpr unsigned int nobody = 65534;
    std::thread([&function] {
        if (geteuid() == 0) {
            setfsgid(nobody); // first: the other takes the right to it
            setfsuid(nobody);
        }
        function();
    }).join();
}

} // namespace support
