// An operator new that counts, and that fails when a test wants it to. Only for tests that CMakeLists.txt gives it.
#pragma once

#include <cstddef>

namespace support {

// From here to its end, allocations of the calling thread fail behind so many.
class ScarceMemory
{
public:
    explicit ScarceMemory(std::size_t allowed = 0);
    ~ScarceMemory();
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;

    // Whether one has failed.
    bool wasMissed() const;
};

// By operator new, of the calling thread, since its start.
std::size_t allocationCount();

} // namespace support
