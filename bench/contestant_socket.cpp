// A socket and a loop: what the bytes cost without anybody's help. TLS is OpenSSL's alone.
#include "datagrams.h"
#include "http_socket.h"
#include "loads.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using bench::HttpSocket;
using bench::Options;
using bench::Report;

class SocketStream : public bench::Stream
{
public:
    explicit SocketStream(const Options& options) : m_socket(options), m_scratch(options.block) {}

    void open(const std::string& /*url*/) override { m_socket.get(""); }
    std::size_t read(unsigned char* block, std::size_t size) override
    {
        std::size_t all = 0;
        while (all < size && m_socket.left() > 0) {
            all += m_socket.receive(block + all, size - all);
        }
        return all;
    }
    void seek(long long offset, std::size_t room) override
    {
        m_socket.get(std::to_string(offset) + "-" +
                     std::to_string(offset + static_cast<long long>(room) - 1));
    }
    void skip(std::size_t count) override
    {
        while (count > 0 && m_socket.left() > 0) {
            count -= m_socket.receive(m_scratch.data(), std::min(count, m_scratch.size()));
        }
    }
    // The connection stays for the next, if nothing is left on it.
    void close() override {}

private:
    HttpSocket m_socket;
    std::vector<unsigned char> m_scratch;
};

std::unique_ptr<bench::Stream> makeStream(const Options& options)
{
    return std::make_unique<SocketStream>(options);
}

// All in one poll.
void readStreams(const Options& options, Report& report)
{
    bench::warmUp(makeStream, options, report);
    std::vector<std::unique_ptr<HttpSocket>> sockets;
    std::vector<pollfd> waited;
    for (int i = 0; i < options.streams; ++i) {
        sockets.push_back(std::make_unique<HttpSocket>(options));
        sockets.back()->get("");
        waited.push_back({sockets.back()->number(), POLLIN, 0});
    }
    report.set("threads", static_cast<double>(bench::statusFigure("Threads")));
    std::vector<unsigned char> block(options.block);
    for (std::size_t open = sockets.size(); open > 0;) {
        if (poll(waited.data(), waited.size(), 60000) <= 0) {
            throw std::runtime_error("no stream has anything");
        }
        for (std::size_t i = 0; i < sockets.size(); ++i) {
            if (waited[i].revents == 0) {
                continue;
            }
            report.addBytes(sockets[i]->receive(block.data(), block.size()));
            if (sockets[i]->left() == 0) {
                waited[i].fd = -1;
                --open;
            }
        }
    }
}

void receiveDatagrams(const Options& options, Report& report)
{
    const int number = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_port = htons(bench::portOf(options.url));
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr address{};
    std::memcpy(&address, &here, sizeof here);
    const timeval patience{0, 500000};
    const int buffer = 192512; // as much as the library asks for, so that as much is lost
    if (number < 0 || bind(number, &address, sizeof address) != 0 ||
        setsockopt(number, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0 ||
        setsockopt(number, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer) != 0) {
        throw std::runtime_error(std::string("datagrams: ") + std::strerror(errno));
    }
    bench::receiveDatagrams(options, report, [number](unsigned char* block, std::size_t size) {
        return static_cast<std::size_t>(std::max<ssize_t>(recv(number, block, size, 0), 0));
    });
    close(number);
}

} // namespace

int main(int argc, char** argv)
{
    bench::Loads loads = bench::pullLoads(makeStream);
    loads["streams"] = readStreams;
    loads["datagrams"] = receiveDatagrams;
    return bench::runContestant("socket", loads, argc, argv);
}
