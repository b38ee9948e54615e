#include "mdp_debug_output.h"

#include <cstring>
#include <syslog.h>

namespace {

constexpr unsigned int kSeverityMask = 0xffff;

// The severities of trace lines are 1000, 3000, 4000 and 5000; what lies between counts as the next.
int priority(unsigned int level)
{
    const unsigned int severity = level & kSeverityMask;
    if (severity <= 1000) {
        return LOG_CRIT;
    }
    if (severity <= 3000) {
        return LOG_ERR;
    }
    return severity <= 4000 ? LOG_NOTICE : LOG_DEBUG;
}

} // namespace

void mdpDebugOutput(void* /*context*/, unsigned int level, const char* text)
{
    // The log ends lines by itself.
    std::size_t length = std::strlen(text);
    while (length > 0 && text[length - 1] == '\n') {
        --length;
    }
    if (length > 0) {
        syslog(LOG_USER | priority(level), "%.*s", static_cast<int>(length), text);
    }
}
