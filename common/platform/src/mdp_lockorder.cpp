#include "mdp_lockorder.h"

#ifndef NDEBUG

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace {

struct Held
{
    const void* lock = nullptr;
    MdpLockLevel level;
};

// Deep enough for every level with some recursion; more is a fault in itself.
constexpr std::size_t kMostHeld = 32;

struct HeldLocks
{
    std::array<Held, kMostHeld> entries{};
    std::size_t count = 0;
};

thread_local HeldLocks t_held;

[[noreturn]] void fail(const char* fault, const char* first, const char* second)
{
    std::fprintf(stderr, "lock order: %s: '%s' and '%s'\n", fault, first, second);
    std::abort();
}

} // namespace

void mdpLockOrderCheck(const void* lock, const MdpLockLevel& level)
{
    if (level.order == 0) {
        return;
    }
    const auto begin = t_held.entries.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(t_held.count);
    if (std::any_of(begin, end, [lock](const Held& held) { return held.lock == lock; })) {
        return; // taken again: only a recursive mutex allows it, and its place in the order is settled
    }
    for (auto held = begin; held != end; ++held) {
        if (held->level.order > level.order) {
            fail("taken in the wrong order (held, then asked for)", held->level.name, level.name);
        }
        if (held->level.order == level.order) {
            fail("two locks of one level held together", held->level.name, level.name);
        }
    }
}

void mdpLockOrderAdd(const void* lock, const MdpLockLevel& level)
{
    if (level.order == 0) {
        return;
    }
    if (t_held.count == kMostHeld) {
        fail("too many locks held", level.name, t_held.entries.back().level.name);
    }
    t_held.entries[t_held.count++] = {lock, level};
}

void mdpLockOrderRemove(const void* lock, const MdpLockLevel& level)
{
    if (level.order == 0) {
        return;
    }
    for (std::size_t i = t_held.count; i-- > 0;) {
        if (t_held.entries[i].lock == lock) {
            std::copy(t_held.entries.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                      t_held.entries.begin() + static_cast<std::ptrdiff_t>(t_held.count),
                      t_held.entries.begin() + static_cast<std::ptrdiff_t>(i));
            --t_held.count;
            return;
        }
    }
    fail("released but not held", level.name, level.name);
}

void mdpLockOrderCheckHeldOnce(const void* lock, const MdpLockLevel& level)
{
    if (level.order == 0) {
        return;
    }
    const auto begin = t_held.entries.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(t_held.count);
    const auto depth = std::count_if(begin, end, [lock](const Held& held) { return held.lock == lock; });
    if (depth != 1) {
        fail("a wait needs its lock held exactly once", level.name, level.name);
    }
}

#endif
