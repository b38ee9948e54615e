// System calls that fail at command: what no file system does in a test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <thread>
#include <vector>

namespace support {

// A system call that shall fail, always or only with one value of one argument.
struct FailingCall
{
    long number;
    int error;
    int argument = -1; // counted from 0; negative: whatever the arguments are
    std::uint32_t value = 0;
};

// Runs a function on a thread whose system calls fail as told. False when this system filters no calls; the
// function has not run then.
inline bool withFailingCall(const FailingCall& call, const std::function<void()>& function)
{
    const auto load = [](std::size_t offset) {
        return sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
    };
    const auto skipUnless = [](std::uint32_t value, std::uint8_t lines) {
        return sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, lines, value};
    };
    const auto answer = [](std::uint32_t result) { return sock_filter{BPF_RET | BPF_K, 0, 0, result}; };

    std::vector<sock_filter> program{load(offsetof(seccomp_data, nr))};
    if (call.argument < 0) {
        program.push_back(skipUnless(static_cast<std::uint32_t>(call.number), 1));
    } else {
        constexpr std::size_t lowHalf = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 4;
        program.push_back(skipUnless(static_cast<std::uint32_t>(call.number), 3));
        program.push_back(
            load(offsetof(seccomp_data, args) + static_cast<std::size_t>(call.argument) * 8 + lowHalf));
        program.push_back(skipUnless(call.value, 1));
    }
    program.push_back(answer(SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(call.error)));
    program.push_back(answer(SECCOMP_RET_ALLOW));

    bool filters = false;
    std::thread([&] {
        const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
        filters = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
        if (filters) {
            function();
        }
    }).join();
    return filters;
}

} // namespace support
