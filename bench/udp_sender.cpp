// Sends numbered datagrams to a port of 127.0.0.1 at a steady rate: udp_sender PORT PACKETS RATE.
#include "datagrams.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// On an unconnected socket, so that a receiver that comes late is no error.
bool sendNumber(int socket, const sockaddr_in& to, std::uint32_t number)
{
    unsigned char datagram[bench::kDatagramSize] = {};
    std::memcpy(datagram, &number, sizeof number);
    sockaddr address{};
    std::memcpy(&address, &to, sizeof to);
    return sendto(socket, datagram, sizeof datagram, 0, &address, sizeof address) ==
           static_cast<ssize_t>(sizeof datagram);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fputs("usage: udp_sender PORT PACKETS RATE\n", stderr);
        return 2;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto packets = static_cast<std::uint32_t>(std::atol(argv[2]));
    const double rate = std::atof(argv[3]);
    const int socketNumber = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool sent = socketNumber >= 0;
    const bench::Clock::time_point start = bench::Clock::now();
    // A burst each millisecond: no machine sleeps for 20 microseconds.
    const auto burst = static_cast<std::uint32_t>(rate / 1000) + 1;
    for (std::uint32_t number = 0; number < packets && sent; ++number) {
        if (number % burst == 0) {
            std::this_thread::sleep_until(start + std::chrono::duration_cast<bench::Clock::duration>(
                                                      std::chrono::duration<double>(number / rate)));
        }
        sent = sendNumber(socketNumber, to, number);
    }
    // More than one, behind a moment in which the receiver catches up: it has to come through.
    constexpr int kFarewells = 10;
    for (int i = 0; i < kFarewells && sent; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        sent = sendNumber(socketNumber, to, bench::kLastDatagram);
    }
    if (!sent) {
        std::perror("udp_sender");
    }
    close(socketNumber);
    return sent ? 0 : 1;
}
