#include "own_allocator.h"

#include <cstdlib>
#include <new>

namespace {

struct ThreadsMemory
{
    std::size_t allocations = 0;
    bool isScarce = false;
    std::size_t allowed = 0; // while it is
    bool wasMissed = false;
};

thread_local ThreadsMemory t_memory;

bool mayAllocate()
{
    ++t_memory.allocations;
    if (!t_memory.isScarce) {
        return true;
    }
    if (t_memory.allowed == 0) {
        t_memory.wasMissed = true;
        return false;
    }
    --t_memory.allowed;
    return true;
}

} // namespace

// Not inlined: the compiler would take them for a pair that does not match.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* memory = mayAllocate() ? std::malloc(size > 0 ? size : 1) : nullptr;
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace support {

ScarceMemory::ScarceMemory(std::size_t allowed)
{
    t_memory.allowed = allowed;
    t_memory.wasMissed = false;
    t_memory.isScarce = true;
}

ScarceMemory::~ScarceMemory()
{
    t_memory.isScarce = false;
}

bool ScarceMemory::wasMissed() const
{
    return t_memory.wasMissed;
}

std::size_t allocationCount()
{
    return t_memory.allocations;
}

} // namespace support
