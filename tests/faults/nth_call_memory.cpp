// Memory: of the library, of libcurl and of OpenSSL.
#include "nth_call.h"
#include "nth_call_real.h"

#include <cstdlib>
#include <cstring>
#include <curl/curl.h>
#include <new>
#include <openssl/crypto.h>

using faults::fails;
using faults::Kind;

// The allocator of the C library, past the wrappers below, which stand before the library's own calls only.
#if defined(FAULTS_IN_PROGRAM)
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
char* __real_strdup(const char* text);

void* __wrap_malloc(std::size_t size)
{
    return fails(Kind::kMemory, "malloc") ? nullptr : __real_malloc(size);
}
void* __wrap_calloc(std::size_t count, std::size_t size)
{
    return fails(Kind::kMemory, "calloc") ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* memory, std::size_t size)
{
    return fails(Kind::kMemory, "realloc") ? nullptr : __real_realloc(memory, size);
}
char* __wrap_strdup(const char* text)
{
    return fails(Kind::kMemory, "strdup") ? nullptr : __real_strdup(text);
}
}
#else
#define __real_malloc  std::malloc
#define __real_calloc  std::calloc
#define __real_realloc std::realloc
#define __real_strdup  strdup
#endif

// Not inlined: the compiler would take them for a pair that does not match.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* memory = fails(Kind::kMemory, "operator new") ? nullptr : __real_malloc(size > 0 ? size : 1);
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

namespace {

// libcurl (7.88) notes which transfers use a socket. When it finds no memory for that, it takes the table apart, and
// divides by its size of zero the next time. Nobody above it can help; so the table and its entries always get theirs.
bool isFatalInside(std::size_t size)
{
    constexpr std::size_t kTable = 13 * 4 * sizeof(void*);
    constexpr std::size_t kEntry = 7 * sizeof(void*);
    return size == kTable || size == kEntry;
}

void* curlMalloc(std::size_t size)
{
    return !isFatalInside(size) && fails(Kind::kCurlMemory, "malloc of libcurl") ? nullptr
                                                                                 : __real_malloc(size);
}
void* curlCalloc(std::size_t count, std::size_t size)
{
    return fails(Kind::kCurlMemory, "calloc of libcurl") ? nullptr : __real_calloc(count, size);
}
void* curlRealloc(void* memory, std::size_t size)
{
    return fails(Kind::kCurlMemory, "realloc of libcurl") ? nullptr : __real_realloc(memory, size);
}
char* curlStrdup(const char* text)
{
    return fails(Kind::kCurlMemory, "strdup of libcurl") ? nullptr : __real_strdup(text);
}
void curlFree(void* memory)
{
    std::free(memory);
}

#if defined(FAULTS_IN_PROGRAM)
void* sslMalloc(std::size_t size, const char* /*file*/, int /*line*/)
{
    return fails(Kind::kSslMemory, "malloc of OpenSSL") ? nullptr : __real_malloc(size);
}
void* sslRealloc(void* memory, std::size_t size, const char* /*file*/, int /*line*/)
{
    return fails(Kind::kSslMemory, "realloc of OpenSSL") ? nullptr : __real_realloc(memory, size);
}
void sslFree(void* memory, const char* /*file*/, int /*line*/)
{
    std::free(memory);
}

// Before OpenSSL takes any memory, or it refuses.
struct TakeSslMemory
{
    TakeSslMemory()
    {
        if (CRYPTO_set_mem_functions(sslMalloc, sslRealloc, sslFree) != 1) {
            std::abort();
        }
    }
} const g_takeSslMemory;
#endif

} // namespace

extern "C" CURLcode curl_global_init(long flags)
{
    if (fails(Kind::kCurl, "curl_global_init")) {
        return CURLE_OUT_OF_MEMORY;
    }
    return curl_global_init_mem(flags, curlMalloc, curlFree, curlRealloc, curlStrdup, curlCalloc);
}
