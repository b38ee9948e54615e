// Writes trace lines that do not pass: trace_lines COUNT. What one costs is the difference of two counts.
#include "mdc_hlp_trace.h"

#include <cstdlib>

int main(int argc, char** argv)
{
    const long count = argc > 1 ? std::atol(argv[1]) : 0;
    for (long line = 0; line < count; ++line) {
        MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Called.\n", MDCH_HERE);
    }
    return 0;
}
