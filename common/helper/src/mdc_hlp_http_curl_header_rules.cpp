#include "mdc_hlp_http_curl.h"
#include "mdc_hlp_text_find.h"
#include "mdc_hlp_trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

using md::MdchCurlDescriptor_struct;

constexpr unsigned long kDlnaStallingFlag = 0x00200000; // primary flags word, bit 21

const char* findIgnoringCase(const std::string& line, const char* name)
{
    // A NUL in a line ends what is searched, so no name is found in what a server hid behind it.
    return md::findIgnoringCase(line.c_str(), name);
}

void setCapability(MdchCurlDescriptor_struct& desc, std::uint32_t bit, bool on)
{
    desc.capabilities = on ? desc.capabilities | bit : desc.capabilities & ~bit;
}

// A decimal number that fits, as strtoll reads it, and where it ends.
bool parseNumber(const char* text, std::int64_t& number)
{
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (end == text || errno == ERANGE) {
        return false;
    }
    number = value;
    return true;
}

// The first byte of "bytes FIRST-LAST/TOTAL" (RFC 9110, 14.4); -1 for "bytes */TOTAL" and anything else.
std::int64_t firstByteOf(const char* contentRange)
{
    const char* unit = md::findIgnoringCase(contentRange, "bytes");
    if (unit == nullptr) {
        return -1;
    }
    const char* at = unit + std::strlen("bytes");
    at += std::strspn(at, " \t=:");
    std::int64_t first = -1;
    return *at >= '0' && *at <= '9' && parseNumber(at, first) ? first : -1;
}

void parseContentRange(MdchCurlDescriptor_struct& desc, const char* range, const char* function)
{
    MDCH_TRACE(md::kTraceCall, "%s(): allow seek on fd %i. (Content-Range)\n", function, desc.fd);
    setCapability(desc, MDCH_CAPABILITY_BYTE_SEEK, true);
    desc.contentRangeStart = firstByteOf(range);
    const char* slash = std::strchr(range, '/');
    if (slash == nullptr) {
        return;
    }
    std::int64_t total = 0;
    if (!parseNumber(slash + 1, total)) {
        MDCH_TRACE(md::kTraceError, "%s(): instance length invalid '%s' on fd %i. \n", function, slash + 1,
                   desc.fd);
        return;
    }
    MDCH_TRACE(md::kTraceCall, "%s(): instance length %lli on fd %i. \n", function,
               static_cast<long long>(total), desc.fd);
    desc.instanceLength = total;
}

void parseAcceptRanges(MdchCurlDescriptor_struct& desc, const std::string& line, const char* function)
{
    const bool allowed = findIgnoringCase(line, "none") == nullptr;
    if (allowed) {
        MDCH_TRACE(md::kTraceCall, "%s(): allow seek on fd %i. (Accept-Ranges)\n", function, desc.fd);
    } else {
        MDCH_TRACE(md::kTraceCall, "%s(): disallow seek on fd %i. (Accept-Ranges: none)\n", function,
                   desc.fd);
    }
    setCapability(desc, MDCH_CAPABILITY_BYTE_SEEK, allowed);
}

// DLNA guidelines, 4th field of protocolInfo: OP is two flags, time seek and byte seek.
void parseDlnaOperations(MdchCurlDescriptor_struct& desc, const std::string& line, const char* function)
{
    constexpr const char* kName = "DLNA.ORG_OP=";
    const char* found = findIgnoringCase(line, kName);
    if (found != nullptr) {
        const char* flags = found + std::strlen(kName);
        if (flags[0] == '1') {
            MDCH_TRACE(md::kTraceCall, "%s(): allow seek on fd %i. (dlna time seek)\n", function, desc.fd);
            setCapability(desc, MDCH_CAPABILITY_TIME_SEEK, true);
        }
        if (flags[0] != '\0' && flags[1] == '1') {
            MDCH_TRACE(md::kTraceCall, "%s(): allow seek on fd %i. (dlna byte seek)\n", function, desc.fd);
            setCapability(desc, MDCH_CAPABILITY_BYTE_SEEK, true);
        }
    }
    if ((desc.capabilities & (MDCH_CAPABILITY_BYTE_SEEK | MDCH_CAPABILITY_TIME_SEEK)) == 0) {
        MDCH_TRACE(md::kTraceCall, "%s(): disallow seek on fd %i. (missing DLNA.ORG_OP) %s\n", function,
                   desc.fd, line.c_str());
    }
}

void parseDlnaFlags(MdchCurlDescriptor_struct& desc, const std::string& line, const char* function)
{
    constexpr const char* kName = "DLNA.ORG_FLAGS=";
    constexpr std::size_t kPrimaryDigits = 8;
    const char* found = findIgnoringCase(line, kName);
    if (found == nullptr) {
        return;
    }
    const char* value = found + std::strlen(kName);
    const std::string primary(value, strnlen(value, kPrimaryDigits));
    const unsigned long flags = std::strtoul(primary.c_str(), nullptr, 16);
    MDCH_TRACE(md::kTraceCall, "%s(): dlna flags on fd %i. 0x%08x %s\n", function, desc.fd,
               static_cast<unsigned int>(flags), primary.c_str());
    if ((flags & kDlnaStallingFlag) != 0) {
        MDCH_TRACE(md::kTraceCall, "%s(): dlna connection stalling flag on fd %i. \n", function, desc.fd);
        setCapability(desc, MDCH_CAPABILITY_STALLING, true);
    } else {
        MDCH_TRACE(md::kTraceCall, "%s(): dlna no connection stalling flag on fd %i. \n", function, desc.fd);
    }
}

void parseContentFeatures(MdchCurlDescriptor_struct& desc, const std::string& line, const char* function)
{
    desc.capabilities = 0;
    if (std::strchr(line.c_str(), '*') != nullptr) {
        MDCH_TRACE(md::kTraceCall, "%s(): allow all on fd %i. (dlna *)\n", function, desc.fd);
        desc.capabilities = MDCH_CAPABILITY_BYTE_SEEK | MDCH_CAPABILITY_STALLING;
    }
    parseDlnaOperations(desc, line, function);
    parseDlnaFlags(desc, line, function);
}

void parseTimeSeekRange(MdchCurlDescriptor_struct& desc, const char* bytes, const char* function)
{
    // No number, a sign or one that no position can hold: the position stays as it is.
    std::int64_t position = 0;
    if (*bytes < '0' || *bytes > '9' || !parseNumber(bytes, position)) {
        return;
    }
    MDCH_TRACE(md::kTraceCall, "%s(): dlna TimeSeekRange.dlna.org on fd %i.  newPos=%lli\n", function,
               desc.fd, static_cast<long long>(position));
    // A response to a Range begins where Content-Range says, whatever else the server adds.
    if (desc.requestedStart <= 0) {
        desc.writePos = position;
        desc.startPos = position;
    }
}

} // namespace

void mdchHttpParseHeaderLine(MdchCurlDescriptor_struct& desc, const std::string& line)
{
    if (const char* range = findIgnoringCase(line, "Content-Range")) {
        parseContentRange(desc, range, __func__);
    } else if (findIgnoringCase(line, "Accept-Ranges") != nullptr) {
        parseAcceptRanges(desc, line, __func__);
    } else if (findIgnoringCase(line, "contentFeatures.dlna.org") != nullptr) {
        parseContentFeatures(desc, line, __func__);
    } else if (findIgnoringCase(line, "TimeSeekRange.dlna.org") != nullptr) {
        constexpr const char* kBytes = "bytes=";
        if (const char* bytes = findIgnoringCase(line, kBytes)) {
            parseTimeSeekRange(desc, bytes + std::strlen(kBytes), __func__);
        }
    }
}
