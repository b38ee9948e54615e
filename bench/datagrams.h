/*
 * The load of datagrams: a sender of our own numbers them, so that the receiver knows what was lost.
 */
#ifndef BENCH_DATAGRAMS_H
#define BENCH_DATAGRAMS_H

#include "contestant.h"

#include <cstdint>

namespace bench {

/* As in MPEG transport streams over UDP: seven packets of 188 bytes. A number stands in front. */
constexpr std::size_t kDatagramSize = 1316;
/* In place of a number: nothing follows. */
constexpr std::uint32_t kLastDatagram = 0xFFFFFFFF;

/* One datagram; 0 when none came in time, which is within a second. */
using Receive = std::function<std::size_t(unsigned char* block, std::size_t size)>;

/* The port at the end of "udp://ADDRESS:PORT". */
std::uint16_t portOf(const std::string& url);

/* Starts the sender, receives until its last datagram, and counts. The socket is bound already. */
void receiveDatagrams(const Options& options, Report& report, const Receive& receive);

} // namespace bench

#endif
