// The function whose place another takes.
#pragma once

#include <cstdlib>
#include <dlfcn.h>
#include <string>

namespace faults {

template <class Function>
Function* realFunction(const char* name)
{
    void* found = nullptr;
#if defined(FAULTS_IN_PROGRAM)
    // A sanitizer that is part of the program has stood before the function already, under this name.
    found = dlsym(RTLD_DEFAULT, (std::string("__interceptor_") + name).c_str());
#endif
    if (found == nullptr) {
        found = dlsym(RTLD_NEXT, name);
    }
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
