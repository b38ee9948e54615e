#include "mdc_hlp_url_udp.h"

#include "mdc_hlp_trace.h"
#include "mdc_hlp_url_handle.h"

#include <algorithm>
#include <arpa/inet.h>
#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char* kScheme = "udp://";
constexpr int kReceiveBuffer = 192512; // bytes
constexpr int kReadMilliseconds = 500;

bool isMulticast(const in_addr& address)
{
    return IN_MULTICAST(ntohl(address.s_addr));
}

template <class Value>
int setOption(int socket, int level, int option, const Value& value)
{
    return setsockopt(socket, level, option, &value, sizeof value);
}

// Without it, a socket takes what comes for its group through any interface on which anybody has joined.
void takeOwnInterfaceOnly(int socket)
{
#ifdef IP_MULTICAST_ALL
    setOption(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0); // the stream works without it
#else
    static_cast<void>(socket);
#endif
}

bool isNothingThere(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK;
}

// False: none came in time. A signal of the caller's does not shorten the wait.
bool waitForDatagram(int number)
{
    pollfd waited{number, POLLIN, 0};
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(kReadMilliseconds);
    int left = kReadMilliseconds;
    int result = poll(&waited, 1, left);
    while (result < 0 && errno == EINTR && left > 0) {
        left = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count());
        result = poll(&waited, 1, std::max(left, 0));
    }
    return result > 0;
}

} // namespace

struct MdchUrlUdp::Socket
{
    int number;
};

int MdchUrlUdp::closeSocket(Socket* socket)
{
    const std::unique_ptr<Socket> owned(socket);
    return socket != nullptr && socket->number >= 0 ? ::close(socket->number) : 0;
}

MdchUrlUdp::MdchUrlUdp() : m_socket(std::make_unique<md::SharedHandle<Socket>>(closeSocket)) {}

MdchUrlUdp::~MdchUrlUdp()
{
    const std::shared_ptr<Socket> socket = m_socket->use();
    if (socket != nullptr) {
        socket->number = -1;
    }
}

int MdchUrlUdp::parseUrl()
{
    if (m_url.compare(0, std::strlen(kScheme), kScheme) != 0) {
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): wrong protocol.\n", MDCH_HERE);
        return -EINVAL;
    }
    std::string rest = m_url.substr(std::strlen(kScheme));
    const std::size_t at = rest.find('@');
    if (at != std::string::npos) {
        rest.erase(0, at + 1);
    }
    const std::size_t colon = rest.find(':');
    if (colon == std::string::npos) {
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): port missing.\n", MDCH_HERE);
        return -EINVAL;
    }
    const std::string address = rest.substr(0, colon);
    m_membership = {};
    if (inet_pton(AF_INET, address.c_str(), &m_membership.imr_multiaddr) != 1) {
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): no IPv4 address %s.\n", MDCH_HERE, address.c_str());
        return -EINVAL;
    }
    const std::string behind = rest.substr(colon + 1);
    const std::string port = behind.substr(0, behind.find_first_of("/?&#"));
    try {
        m_port = boost::lexical_cast<int>(port);
    } catch (const boost::bad_lexical_cast&) {
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): port incorrect %s.\n", MDCH_HERE, port.c_str());
        return -EINVAL;
    }
    MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): ipv4 %s port %d.\n", MDCH_HERE, address.c_str(), m_port);
    return 0;
}

int MdchUrlUdp::fail(int code)
{
    m_error = code;
    return -code;
}

int MdchUrlUdp::open(const char* url, int /*mode*/)
try {
    if (m_socketNumber >= 0) {
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): Already opened.\n", MDCH_HERE);
        return -EEXIST;
    }
    m_url = url != nullptr ? url : "";
    const int parsed = parseUrl();
    if (parsed != 0) {
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): parseUrl failed.\n", MDCH_HERE);
        return parsed;
    }
    auto socket = std::make_unique<Socket>();
    socket->number = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket->number < 0) {
        const int code = errno;
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): Error creating socket %d.\n", MDCH_HERE, code);
        return fail(code);
    }
    m_socketNumber = socket->number;
    const int result = bindAndJoin(*socket);
    if (result != 0) {
        closeSocket(socket.release());
        return result;
    }
    if (!m_socket->replace(socket.release())) {
        return fail(ENOMEM);
    }
    MDCH_TRACE(md::kTraceNotice, "MdchUrlUdp::%s() %s open OK. ret=%i.\n", "open", m_url.c_str(), 0);
    return 0;
} catch (const std::bad_alloc&) {
    return fail(ENOMEM);
}

int MdchUrlUdp::bindAndJoin(const Socket& socket)
{
    constexpr const char* kOpen = "open"; // the operation that the traces name
    const char* file = md::traceBaseName(__FILE__);
    if (setOption(socket.number, SOL_SOCKET, SO_REUSEADDR, 1) != 0) {
        const int code = errno;
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): Error setting SO_REUSEADDR %d.\n", file, __LINE__, kOpen,
                   code);
        return fail(code);
    }
    if (setOption(socket.number, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer) != 0) {
        const int code = errno;
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): Error %d setting SO_RCVBUF to %d.\n", file, __LINE__, kOpen,
                   code, kReceiveBuffer);
        return fail(code);
    }
    if (isMulticast(m_membership.imr_multiaddr)) {
        takeOwnInterfaceOnly(socket.number); // before the first datagram can arrive
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = m_membership.imr_multiaddr;
    address.sin_port = htons(static_cast<std::uint16_t>(m_port)); // only the low 16 bits count
    if (bind(socket.number, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int code = errno;
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): bind to socket failed.\n", file, __LINE__, kOpen);
        shutdown(socket.number, SHUT_RDWR);
        return fail(code);
    }
    if (!isMulticast(m_membership.imr_multiaddr)) {
        return 0;
    }
    MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): Join multicast group.", file, __LINE__, kOpen);
    if (setOption(socket.number, IPPROTO_IP, IP_ADD_MEMBERSHIP, m_membership) != 0) {
        const int code = errno;
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): adding to multicast group failed.\n", file, __LINE__, kOpen);
        shutdown(socket.number, SHUT_RDWR);
        return fail(code);
    }
    return 0;
}

// 0, or the errno value of the failure.
int MdchUrlUdp::leaveGroup()
{
    const std::shared_ptr<Socket> socket = m_socket->use();
    // A number that was given up may belong to somebody else by now: it is not used again.
    const int number = socket != nullptr ? socket->number : -1;
    int code = 0;
    if (setOption(number, IPPROTO_IP, IP_DROP_MEMBERSHIP, m_membership) != 0) {
        code = errno;
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): Dropping multicast group error.\n",
                   md::traceBaseName(__FILE__), __LINE__, "close");
    } else {
        MDCH_TRACE(md::kTraceNotice, "MdchUrlUdp::%s() %s drop multicast ok, shutdown now.\n", "close",
                   m_url.c_str());
    }
    shutdown(number, SHUT_RDWR); // wakes a read that waits
    return code;
}

int MdchUrlUdp::close()
{
    const int code = leaveGroup();
    const int closed = m_socket->close();
    return code != 0 ? fail(code) : closed;
}

int MdchUrlUdp::read(unsigned char* buffer, unsigned int size)
{
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): read .\n", MDCH_HERE);
    const std::shared_ptr<Socket> socket = m_socket->use();
    const int number = socket != nullptr ? socket->number : -1;
    const bool isClosed = socket == nullptr && m_socketNumber >= 0;
    // Not blocking: a datagram that another reader was faster to take is none, not a wait without end. And before the
    // wait: datagrams come in bursts, and what is queued costs one system call.
    const auto receive = [&] { return recv(number, buffer, size, MSG_DONTWAIT); };
    const bool neverOpened = number < 0 && !isClosed;
    ssize_t count = neverOpened ? -1 : receive();
    if (neverOpened || (count < 0 && isNothingThere(errno))) {
        if (!waitForDatagram(number)) {
            return 0;
        }
        count = receive();
    }
    if (count < 0) {
        if (!isNothingThere(errno)) {
            MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): read error.\n", MDCH_HERE);
        }
        return 0;
    }
    return static_cast<int>(count);
}

int MdchUrlUdp::write(unsigned char* buffer, unsigned int size)
{
    const std::shared_ptr<Socket> socket = m_socket->use();
    const ssize_t count = send(socket != nullptr ? socket->number : -1, buffer, size, 0);
    if (count < 0) {
        MDCH_TRACE(md::kTraceFatal, "%s:%d:%s(): write error.\n", MDCH_HERE);
        return 0;
    }
    return static_cast<int>(count);
}

long long MdchUrlUdp::tell()
{
    return -1;
}

int MdchUrlUdp::seek(long long /*offset*/, int /*whence*/)
{
    return -1;
}

int MdchUrlUdp::seekTime(unsigned int /*time*/)
{
    return -1;
}

int MdchUrlUdp::getc()
{
    return -1;
}

int MdchUrlUdp::eof()
{
    return 0;
}

int MdchUrlUdp::error()
{
    return m_error;
}

void MdchUrlUdp::clearerr()
{
    m_error = 0;
}

int MdchUrlUdp::isSeekable()
{
    return 0;
}

unsigned int MdchUrlUdp::capability()
{
    return 0;
}

long long MdchUrlUdp::size()
{
    return -1;
}

int MdchUrlUdp::pause()
{
    return -1;
}

int MdchUrlUdp::resume()
{
    return -1;
}
