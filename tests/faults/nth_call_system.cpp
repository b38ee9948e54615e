// Functions of the C library that ask the system for something.
#include "nth_call.h"
#include "nth_call_real.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>

using faults::fails;
using faults::Kind;
using faults::opened;

namespace {

// Whether the call fails, and errno then.
bool failsWith(Kind kind, const char* function, int error)
{
    if (!fails(kind, function)) {
        return false;
    }
    errno = error;
    return true;
}

int openedBoth(int result, const int* ends)
{
    if (result == 0) {
        opened(ends[0]);
        opened(ends[1]);
    }
    return result;
}

FILE* openedFile(FILE* file)
{
    opened(file != nullptr ? fileno(file) : -1);
    return file;
}

struct Start
{
    void* (*entry)(void*);
    void* argument;
};

// A thread that the library starts is inside it.
void* runInLibrary(void* start)
{
    const Start copy = *std::unique_ptr<Start>(static_cast<Start*>(start));
    const faults::InLibrary inLibrary;
    return copy.entry(copy.argument);
}

} // namespace

#define FORWARD_OPEN(name, ...)                                                                              \
    if (failsWith(Kind::kDescriptor, #name, EMFILE)) {                                                       \
        return -1;                                                                                           \
    }                                                                                                        \
    va_list arguments;                                                                                       \
    va_start(arguments, flags);                                                                              \
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;                \
    va_end(arguments);                                                                                       \
    return opened(REAL(name)(__VA_ARGS__, flags, mode))

extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    return failsWith(Kind::kDescriptor, __func__, EMFILE) ? -1 : opened(REAL(socket)(domain, type, protocol));
}

int socketpair(int domain, int type, int protocol, int ends[2]) noexcept
{
    return failsWith(Kind::kDescriptor, __func__, EMFILE)
               ? -1
               : openedBoth(REAL(socketpair)(domain, type, protocol, ends), ends);
}

// pipe itself is the sanitizers'.
int pipe2(int ends[2], int flags) noexcept
{
    return failsWith(Kind::kDescriptor, __func__, EMFILE) ? -1 : openedBoth(REAL(pipe2)(ends, flags), ends);
}

int eventfd(unsigned int start, int flags) noexcept
{
    return failsWith(Kind::kDescriptor, __func__, EMFILE) ? -1 : opened(REAL(eventfd)(start, flags));
}

int close(int descriptor)
{
    faults::closed(descriptor);
    return REAL(close)(descriptor);
}

int fclose(FILE* file)
{
    faults::closed(fileno(file));
    return REAL(fclose)(file);
}

int closedir(DIR* folder)
{
    faults::closed(dirfd(folder));
    return REAL(closedir)(folder);
}

int open(const char* path, int flags, ...)
{
    FORWARD_OPEN(open, path);
}

int open64(const char* path, int flags, ...)
{
    FORWARD_OPEN(open64, path);
}

int openat(int folder, const char* path, int flags, ...)
{
    FORWARD_OPEN(openat, folder, path);
}

int openat64(int folder, const char* path, int flags, ...)
{
    FORWARD_OPEN(openat64, folder, path);
}

FILE* fopen(const char* path, const char* mode)
{
    return failsWith(Kind::kDescriptor, __func__, EMFILE) ? nullptr : openedFile(REAL(fopen)(path, mode));
}

FILE* fopen64(const char* path, const char* mode)
{
    return failsWith(Kind::kDescriptor, __func__, EMFILE) ? nullptr : openedFile(REAL(fopen64)(path, mode));
}

FILE* fdopen(int descriptor, const char* mode) noexcept
{
    return failsWith(Kind::kDescriptor, __func__, ENOMEM) ? nullptr : REAL(fdopen)(descriptor, mode);
}

FILE* fopencookie(void* cookie, const char* mode, cookie_io_functions_t functions) noexcept
{
    return failsWith(Kind::kDescriptor, __func__, ENOMEM) ? nullptr
                                                          : REAL(fopencookie)(cookie, mode, functions);
}

DIR* opendir(const char* path)
{
    DIR* folder = failsWith(Kind::kDescriptor, __func__, EMFILE) ? nullptr : REAL(opendir)(path);
    opened(folder != nullptr ? dirfd(folder) : -1);
    return folder;
}

int connect(int socket, const sockaddr* address, socklen_t size)
{
    return failsWith(Kind::kNetwork, __func__, ENETUNREACH) ? -1 : REAL(connect)(socket, address, size);
}

int bind(int socket, const sockaddr* address, socklen_t size) noexcept
{
    return failsWith(Kind::kNetwork, __func__, EADDRINUSE) ? -1 : REAL(bind)(socket, address, size);
}

int setsockopt(int socket, int level, int option, const void* value, socklen_t size) noexcept
{
    return failsWith(Kind::kNetwork, __func__, ENOBUFS)
               ? -1
               : REAL(setsockopt)(socket, level, option, value, size);
}

int poll(pollfd* waited, nfds_t count, int milliseconds)
{
    return failsWith(Kind::kNetwork, __func__, ENOMEM) ? -1 : REAL(poll)(waited, count, milliseconds);
}

ssize_t send(int socket, const void* data, size_t size, int flags)
{
    return failsWith(Kind::kNetwork, __func__, ENOBUFS) ? -1 : REAL(send)(socket, data, size, flags);
}

ssize_t recv(int socket, void* data, size_t size, int flags)
{
    return failsWith(Kind::kNetwork, __func__, ENOMEM) ? -1 : REAL(recv)(socket, data, size, flags);
}

int fstat64(int descriptor, struct stat64* facts) noexcept
{
    return failsWith(Kind::kFileFacts, __func__, EIO) ? -1 : REAL(fstat64)(descriptor, facts);
}

int stat64(const char* path, struct stat64* facts) noexcept
{
    using Function = int(const char*, struct stat64*);
    static auto* const real = faults::realFunction<Function>("stat64");
    return failsWith(Kind::kFileFacts, __func__, EIO) ? -1 : real(path, facts);
}

int statvfs64(const char* path, struct statvfs64* facts) noexcept
{
    using Function = int(const char*, struct statvfs64*);
    static auto* const real = faults::realFunction<Function>("statvfs64");
    return failsWith(Kind::kFileFacts, __func__, EIO) ? -1 : real(path, facts);
}

dirent* readdir(DIR* folder)
{
    return failsWith(Kind::kFileFacts, __func__, EIO) ? nullptr : REAL(readdir)(folder);
}

int fseeko64(FILE* file, off64_t offset, int whence)
{
    return failsWith(Kind::kFileFacts, __func__, EIO) ? -1 : REAL(fseeko64)(file, offset, whence);
}

off64_t ftello64(FILE* file)
{
    return failsWith(Kind::kFileFacts, __func__, EIO) ? -1 : REAL(ftello64)(file);
}

ssize_t read(int descriptor, void* buffer, size_t size)
{
    return failsWith(Kind::kFileFacts, __func__, EIO) ? -1 : REAL(read)(descriptor, buffer, size);
}

ssize_t readv(int descriptor, const iovec* parts, int count)
{
    return failsWith(Kind::kFileFacts, __func__, EIO) ? -1 : REAL(readv)(descriptor, parts, count);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept
{
    if (fails(Kind::kThread, __func__)) {
        return EAGAIN;
    }
    if (!faults::isInLibrary()) {
        return REAL(pthread_create)(thread, attributes, entry, argument);
    }
    const faults::OutsideLibrary outside;
    auto start = std::make_unique<Start>(Start{entry, argument});
    const int result = REAL(pthread_create)(thread, attributes, runInLibrary, start.get());
    if (result == 0) {
        static_cast<void>(start.release()); // the thread's now
    }
    return result;
}

} // extern "C"
