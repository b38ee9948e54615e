/*
 * Trace lines of the library: level codes and how a line is written.
 *
 * Macros, because a line names the function and the line in which it stands, and because its arguments are
 * evaluated only when its level passes.
 */
#ifndef MDC_HLP_TRACE_H
#define MDC_HLP_TRACE_H

#include "mdp_debug.h"

namespace md {

constexpr unsigned int kTraceModule = 0x68U << 16U;

constexpr unsigned int kTraceFatal = kTraceModule | 1000U;  // makes a stream unusable
constexpr unsigned int kTraceError = kTraceModule | 3000U;  // failures
constexpr unsigned int kTraceNotice = kTraceModule | 4000U; // once per stream, for a field engineer
constexpr unsigned int kTraceCall = kTraceModule | 5000U;   // calls and blocks

/* The file's name without folders. */
constexpr const char* traceBaseName(const char* path)
{
    const char* name = path;
    for (const char* at = path; *at != '\0'; ++at) {
        if (*at == '/') {
            name = at + 1;
        }
    }
    return name;
}

} // namespace md

/* One trace line, printf-like. Texts stand whole at their call, prefix included, so that they can be searched. */
#define MDCH_TRACE(level, ...)                                                                               \
    do {                                                                                                     \
        if (mdpDebugCheck(level) != 0) {                                                                     \
            mdpDebugPrintf((level), __VA_ARGS__);                                                            \
        }                                                                                                    \
    } while (false)

/* The arguments of the prefix "%s:%d:%s(): ". */
#define MDCH_HERE md::traceBaseName(__FILE__), __LINE__, __func__

#endif
