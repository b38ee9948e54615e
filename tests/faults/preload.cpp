// Loaded before a program: from its first mdch_OpenUrl on, the call that FAULTS_CALL names ("KIND N", the kind as a
// number) fails. FAULTS_REPORT, a file, gets its name at the end.
#include "mdc_hlp_url_base.h"
#include "nth_call.h"
#include "nth_call_real.h"

#include <cstdio>
#include <cstdlib>

namespace {

void report()
{
    const auto failed = faults::disarm();
    const char* path = std::getenv("FAULTS_REPORT");
    FILE* file = failed && path != nullptr ? std::fopen(path, "w") : nullptr;
    if (file != nullptr) {
        std::fputs(failed->c_str(), file);
        std::fclose(file);
    }
}

// What stands before is the reading of the command line, whose parser ends the process when memory runs out.
void armOnce()
{
    static bool isArmed = false;
    const char* call = std::getenv("FAULTS_CALL");
    int kind = 0;
    long n = 0;
    if (!isArmed && call != nullptr && std::sscanf(call, "%d %ld", &kind, &n) == 2) {
        isArmed = true;
        std::atexit(report);
        faults::markWholeProcess();
        faults::arm(static_cast<faults::Kind>(kind), n);
    }
}

} // namespace

int mdch_OpenUrl(const char* url, int mode, mdch_UrlExtended_struct* ext,
                 boost::shared_ptr<MdchUrlBase>& stream)
{
    using Function = int(const char*, int, mdch_UrlExtended_struct*, boost::shared_ptr<MdchUrlBase>&);
    static auto* const real = faults::realFunction<Function>(
        "_Z12mdch_OpenUrlPKciP23mdch_UrlExtended_structRN5boost10shared_ptrI11MdchUrlBaseEE");
    armOnce();
    return real(url, mode, ext, stream);
}
