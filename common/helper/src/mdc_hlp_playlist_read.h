/* Reading of a playlist's bytes, apart from what they mean. */
#ifndef MDC_HLP_PLAYLIST_READ_H
#define MDC_HLP_PLAYLIST_READ_H

#include <chrono>
#include <vector>

namespace md {

/*
 * Reads the stream behind a handle until it ends, or 50,000 bytes have come, or a read ends after patience
 * has passed: a server that gives a few bytes per time-out would otherwise hold the caller for days.
 */
std::vector<unsigned char> readPlaylist(unsigned int handle, std::chrono::steady_clock::duration patience);

} // namespace md

#endif
