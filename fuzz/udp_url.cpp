// URLs of UDP streams: the input is the URL, once as it is and once behind the scheme.
#include "support/udp_url.h"
#include "harness.h"
#include "mdc_hlp_url_udp.h"

#include <cerrno>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <unistd.h>

namespace {

// A good URL binds a socket and may join a group: that must reach no network. So this process moves to one of
// its own, without an interface that is up. Where the system refuses that, good URLs are left out.
bool isApart()
{
    static const bool apart = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
    return apart;
}

// The lowest free descriptor: it rises with each one that is left open. -1 when none can be opened.
int lowestFree()
{
    const int fd = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    if (fd >= 0) {
        close(fd);
    }
    return fd;
}

void open(const std::string& url)
{
    const support::UdpUrl meant = support::understandUdpUrl(url.c_str());
    const bool good = meant.verdict == support::UdpUrl::Verdict::good;
    if (good && !isApart()) {
        return;
    }
    const int free = lowestFree();
    MdchUrlUdp stream;
    const int result = stream.open(url.c_str(), 0);
    fuzz::require((result == -EINVAL) == !good, "a good URL gets past its check, any other does not");
    fuzz::require(stream.error() == (good ? -result : 0), "the error of a socket call, if it came to one");
    fuzz::require(!good || stream.open(url.c_str(), 0) == -EEXIST, "no second open behind a socket");
    const int closed = stream.close();
    fuzz::require(closed <= 0 && stream.error() == -closed,
                  "close tells what went wrong, or that nothing did");
    fuzz::require(result == 0 || closed == -EBADF, "what did not open does not close");
    fuzz::require(lowestFree() == free, "no descriptor is left open");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    const std::string text = fuzz::textOf(data, size);
    open(text);
    open("udp://" + text);
    return 0;
}
