// The n-th call of a kind fails, as the library sees it: what stands in nth_call_*.cpp takes the place of the
// functions that can fail, in the library and in libcurl and OpenSSL below it. Only threads inside the library are
// concerned, not the test and its servers.
#pragma once

#include <optional>
#include <string>

namespace faults {

enum class Kind
{
    kMemory,     // operator new; malloc and its kin as the library calls them
    kCurlMemory, // libcurl's
    kSslMemory,  // OpenSSL's
    kDescriptor, // whatever gives a descriptor, a stream on one or a folder
    kNetwork,    // connecting, options of sockets, sending and receiving, waiting for them
    kFileFacts,  // asking for a file's facts, reading folders, positioning
    kThread,     // a thread's start
    kCurl,       // functions of libcurl
    kSsl,        // functions of OpenSSL that the library calls
    kMounts      // functions of libmount that the library calls
};

const char* nameOf(Kind kind);

// From now on the n-th call of the kind fails, n from 1; with `andLater` all behind it, too.
void arm(Kind kind, long n, bool andLater = false);

// Nothing fails any more. The name of the function that failed first; none when there were fewer than n calls.
std::optional<std::string> disarm();

// What failed since arm, if anything has.
const char* failedCall();

// Whether libcurl has not given a handle since arm or disarm.
bool curlGaveNoHandle();
void noteHandle(bool isGiven);

// Whether this call fails. Asked by the functions that take the others' places.
bool fails(Kind kind, const char* function);

// This thread is inside the library while the object lives, as are the threads that it starts.
class InLibrary
{
public:
    InLibrary();
    ~InLibrary();
    InLibrary(const InLibrary&) = delete;
    InLibrary& operator=(const InLibrary&) = delete;

private:
    bool m_former;
};

bool isInLibrary();

// Descriptors that were opened inside the library and are open.
int descriptorsOfLibrary();

// Keeps that count. The descriptor, as it came.
int opened(int descriptor);
void closed(int descriptor);

// ... and outside again while this object lives, for what a replacement does for itself.
class OutsideLibrary
{
public:
    OutsideLibrary();
    ~OutsideLibrary();
    OutsideLibrary(const OutsideLibrary&) = delete;
    OutsideLibrary& operator=(const OutsideLibrary&) = delete;
};

// All threads count as inside; for a program of its own.
void markWholeProcess();

} // namespace faults
