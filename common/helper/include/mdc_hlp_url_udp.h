/*
 * Streams over UDP datagrams, as multicast carries them: "udp://239.0.0.1:1234".
 *
 * The form is "udp://", an optional text up to "@" that is ignored, an IPv4 address in four numbers, ":", a
 * port, and an optional rest behind one of "/?&#" that is ignored. The socket is bound to the address, so that
 * it takes what is sent there and nothing else; a multicast group (224.0.0.0/4) is joined on the interface
 * that the routes say, and only what comes in through that interface counts. One caller at a time, but for
 * close: it may come while another thread reads.
 *
 * A stream must be closed before it is released: the destructor leaves the socket open, in its group.
 */
#ifndef MDC_HLP_URL_UDP_H
#define MDC_HLP_URL_UDP_H

#include "mdc_hlp_url_base.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <string>

namespace md {
template <class Handle>
class SharedHandle;
}

/* A socket that takes datagrams, perhaps in a multicast group. */
class MDCH_API MdchUrlUdp : public MdchUrlBase
{
public:
    MdchUrlUdp();

    /* Frees the object, and leaves an open socket open. */
    ~MdchUrlUdp() override;

    /*
     * Binds and joins. mode is ignored. Returns 0, -EINVAL (malformed or null url), -EEXIST (an object is opened
     * once: every later call, also after a failure behind the URL's check, and after close), or the negated errno
     * value of the socket call that failed, which error() gives, too.
     */
    int open(const char* url, int mode) override;

    /*
     * Leaves the group and closes. Returns 0 or a negated errno value: on purpose also for a unicast address,
     * which was in no group; the socket is closed all the same. -EBADF when it is not open.
     */
    int close() override;

    /*
     * One datagram, cut to size. Waits up to half a second; 0 when none came, which never means an end: read
     * again. Datagrams have at most 65,507 bytes.
     */
    int read(unsigned char* buffer, unsigned int size) override;

    /* Bytes sent, or 0. The socket has no destination of its own, so there is nowhere to send to. */
    int write(unsigned char* buffer, unsigned int size) override;

    /* Without positions: all -1. */
    long long tell() override;
    int seek(long long offset, int whence) override;
    int seekTime(unsigned int time) override;
    int getc() override;
    long long size() override;
    int pause() override;
    int resume() override;

    /* Never: 0. */
    int eof() override;
    int isSeekable() override;
    unsigned int capability() override;

    /* errno of the last socket call that failed in open or close; 0 without one, and after clearerr. */
    int error() override;
    void clearerr() override;

private:
    struct Socket;

    int parseUrl();
    int fail(int code);
    int bindAndJoin(const Socket& socket);
    int leaveGroup();
    static int closeSocket(Socket* socket);

    std::atomic<std::int32_t> m_error{0};
    std::int32_t m_socketNumber = -1;                   // kept after close: an object is opened once
    std::unique_ptr<md::SharedHandle<Socket>> m_socket; // never null
    std::string m_url;
    ip_mreq m_membership{};
    std::int32_t m_port = 0;
};

#endif
