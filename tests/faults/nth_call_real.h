// The function whose place another takes.
#pragma once

#include <cstdlib>
#include <dlfcn.h>

namespace faults {

template <class Function>
Function* realFunction(const char* name)
{
    void* found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function*>(found);
}

} // namespace faults

// The real one of the function of that name, looked up once.
#define REAL(name)                                                                                           \
    ([]() -> decltype(&::name) {                                                                             \
        static auto* const real = faults::realFunction<decltype(::name)>(#name);                             \
        return real;                                                                                         \
    }())
