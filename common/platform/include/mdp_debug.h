/*
 * Debug output of the platform: leveled trace lines that go to one sink.
 *
 * A level carries a module number in its high 16 bits and a severity in its low 16 bits; smaller is more
 * severe. A line passes when its severity is at most the one set with mdpDebugSetSeverity. Any thread may
 * call any function here. The sink and its context are guarded by one mutex inside mdp_debug.cpp.
 */
#ifndef MDP_DEBUG_H
#define MDP_DEBUG_H

#include "mdp_export.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Receives one formatted piece of trace text, with its line end if the text has one.
 *
 * context: as given to mdpDebugSetSink. text: valid during the call only, never null.
 * Calls are serialised: a sink needs no lock of its own. A sink may trace, but must not call the streams
 * of this library, whose locks the tracing thread may hold.
 */
typedef void (*mdpDebugSink)(void* context, unsigned int level, const char* text);

/* Sets the least severe severity that passes. 0 silences everything; the start value is 1000. */
MDP_API void mdpDebugSetSeverity(unsigned int severity);

/*
 * Sets where trace lines go; null restores the platform's own place, standard error on Linux. When the call returns,
 * the former sink is not running on another thread and is never called again, so its context may be freed.
 */
MDP_API void mdpDebugSetSink(mdpDebugSink sink, void* context);

/* Whether a line of this level passes: 1 or 0. One relaxed atomic load and a comparison. */
MDP_API int mdpDebugCheck(unsigned int level);

/* Formats like printf and hands the text to the sink, if the level passes. Length is not limited. */
MDP_API void mdpDebugPrintf(unsigned int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/* Writes size bytes as lines of 16 in hexadecimal and ASCII, if the level passes. Null data writes nothing. */
MDP_API void mdpDebugHexDump(unsigned int level, const void* data, size_t size);

#ifdef __cplusplus
}
#endif

#endif
