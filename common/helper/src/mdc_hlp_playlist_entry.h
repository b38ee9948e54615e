/* The number of an EXTINF line. */
#ifndef MDC_HLP_PLAYLIST_ENTRY_H
#define MDC_HLP_PLAYLIST_ENTRY_H

namespace md {

/*
 * Reads what sscanf(line, "#EXTINF:%d,", &seconds) reads, and returns what it returns: 1 with a number, 0
 * for a line that does not match, EOF (-1) for one that ends too early. A number that no int can hold is
 * undefined there; here it becomes the nearest int.
 */
int scanSeconds(const char* line, int& seconds);

} // namespace md

#endif
