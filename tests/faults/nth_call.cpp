#include "nth_call.h"

#include <array>
#include <atomic>

namespace faults {

namespace {

constexpr int kNothing = -1;
constexpr int kMostDescriptors = 8192; // those behind are not counted

std::array<std::atomic<bool>, kMostDescriptors> g_opened{}; // inside the library

std::atomic<int> g_kind{kNothing};
std::atomic<long> g_left{0}; // calls of the kind until one fails
std::atomic<bool> g_andLater{false};
std::atomic<const char*> g_failed{nullptr};
std::atomic<bool> g_wholeProcess{false};
std::atomic<bool> g_noHandle{false};
thread_local bool t_inLibrary = false;
thread_local int t_outside = 0;

} // namespace

const char* nameOf(Kind kind)
{
    switch (kind) {
    case Kind::kMemory:
        return "memory";
    case Kind::kCurlMemory:
        return "libcurl's memory";
    case Kind::kSslMemory:
        return "OpenSSL's memory";
    case Kind::kDescriptor:
        return "a descriptor";
    case Kind::kNetwork:
        return "a network call";
    case Kind::kFileFacts:
        return "a file's facts";
    case Kind::kThread:
        return "a thread";
    case Kind::kCurl:
        return "a call of libcurl";
    case Kind::kSsl:
        return "a call of OpenSSL";
    default:
        return "a call of libmount";
    }
}

void arm(Kind kind, long n, bool andLater)
{
    g_failed = nullptr;
    g_noHandle = false;
    g_left = n;
    g_andLater = andLater;
    g_kind = static_cast<int>(kind);
}

std::optional<std::string> disarm()
{
    g_kind = kNothing;
    g_noHandle = false;
    const char* failed = g_failed;
    return failed != nullptr ? std::optional<std::string>(failed) : std::nullopt;
}

const char* failedCall()
{
    return g_failed;
}

bool curlGaveNoHandle()
{
    return g_noHandle;
}

void noteHandle(bool isGiven)
{
    g_noHandle = g_noHandle || !isGiven;
}

bool fails(Kind kind, const char* function)
{
    if (g_kind.load(std::memory_order_relaxed) != static_cast<int>(kind) || !isInLibrary()) {
        return false;
    }
    const long left = g_left.fetch_sub(1) - 1;
    if (left == 0) {
        g_failed = function;
    }
    return left == 0 || (left < 0 && g_andLater);
}

InLibrary::InLibrary() : m_former(t_inLibrary)
{
    t_inLibrary = true;
}

InLibrary::~InLibrary()
{
    t_inLibrary = m_former;
}

bool isInLibrary()
{
    return t_outside == 0 && (t_inLibrary || g_wholeProcess.load(std::memory_order_relaxed));
}

int descriptorsOfLibrary()
{
    int count = 0;
    for (const std::atomic<bool>& one : g_opened) {
        count += one ? 1 : 0;
    }
    return count;
}

int opened(int descriptor)
{
    if (descriptor >= 0 && descriptor < kMostDescriptors && isInLibrary()) {
        g_opened[static_cast<std::size_t>(descriptor)] = true;
    }
    return descriptor;
}

void closed(int descriptor)
{
    if (descriptor >= 0 && descriptor < kMostDescriptors) {
        g_opened[static_cast<std::size_t>(descriptor)] = false;
    }
}

OutsideLibrary::OutsideLibrary()
{
    ++t_outside;
}

OutsideLibrary::~OutsideLibrary()
{
    --t_outside;
}

void markWholeProcess()
{
    g_wholeProcess = true;
}

} // namespace faults
