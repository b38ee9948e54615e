#include "support/failing_call.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <thread>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

namespace support {

namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the low half of an argument stands first");

sock_filter load(std::size_t offset)
{
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

// The program that the kernel asks about each call of the thread: allowed unless all conditions hold.
std::vector<sock_filter> filterFor(const SystemCall& call, int errorNumber)
{
    struct Condition
    {
        std::size_t offset;
        std::uint32_t value;
    };
    std::vector<Condition> conditions{{offsetof(seccomp_data, nr), static_cast<std::uint32_t>(call.number)}};
    for (const SystemCall::Argument& argument : call.arguments) {
        conditions.push_back(
            {offsetof(seccomp_data, args) + argument.index * sizeof(std::uint64_t), argument.value});
    }
    std::vector<sock_filter> program;
    std::size_t left = conditions.size();
    for (const Condition& condition : conditions) {
        --left;
        // Behind the remaining pairs and the refusal stands the permission.
        const auto toPermission = static_cast<std::uint8_t>(2 * left + 1);
        program.push_back(load(condition.offset));
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, condition.value, 0, toPermission));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(errorNumber)));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    return program;
}

} // namespace

std::string whileFailing(const SystemCall& call, int errorNumber, const std::function<void()>& function)
{
    std::vector<sock_filter> program = filterFor(call, errorNumber);
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    std::string problem;
    std::thread thread([&] {
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
            problem = std::string("no seccomp filter: ") + std::strerror(errno);
            return;
        }
        function();
    });
    thread.join();
    return problem;
}

} // namespace support
