#include "failure.h"

#include "mdc_hlp_url_types.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

namespace mdch {

namespace {

struct Wording
{
    int code;
    const char* reason; // "%" stands for the HTTP status
    const char* next;
    int status;
};

// Codes of an HTTP stream: mdch_HttpError and errno values. The last one stands for all that are missing.
constexpr std::array<Wording, 11> kHttpWordings = {{
    {ENOENT, "the server answered %", "Check the address and whether it needs a log-in or a certificate",
     kExitNotFound},
    {EINVAL, "the server failed with %", "Try again later", kExitServer},
    {MDCH_HTTP_ECERT, "the server's certificate was not accepted",
     "Check the host name and this machine's clock, or name a folder of trusted certificates with --ca-path",
     kExitCertificate},
    {MDCH_HTTP_ESSL, "no TLS connection could be made",
     "Check that this port speaks https, and the client certificate if there is one", kExitTls},
    {MDCH_HTTP_ENETWORK, "the network or the server cannot be reached, or the connection broke",
     "Check the host name, the port, the proxy and the network", kExitNetwork},
    {MDCH_HTTP_ETRANSFER, "the transfer broke off before its end", "Try again", kExitBrokenOff},
    {MDCH_HTTP_EPROTOCOL, "the answer or the address it leads to is not HTTP", "Check the address",
     kExitOther},
    {MDCH_HTTP_EMOVED, "the content has moved (%)", "Use the new address", kExitOther},
    {EFAULT, "no answer in time", "Try again, or allow more time with --timeout", kExitNetwork},
    {EAGAIN, "no data in time", "Try again, or allow more time with --timeout", kExitNetwork},
    {MDCH_HTTP_EUNKNOWN, "the transfer failed", "Try again with -vv to see why", kExitOther},
}};

// libcurl's results that say more than the code they are given as; the status stays that of the code.
constexpr std::array<Wording, 9> kHttpResults = {{
    {3, "the address is not valid", "Check the host name and the port", 0},
    {5, "the host name of the proxy is not known", "Check it, and the network", 0},
    {6, "the host name is not known", "Check it, and the network", 0},
    {7, "nobody answers there", "Check the host name, the port, the proxy and the network", 0},
    {28, "no answer in time", "Check the host name, the port, the proxy and the network", 0},
    {47, "it redirects too often", "Check the address, or allow more with --max-redirects", 0},
    {52, "the server closed the connection without an answer", "Check the port, and try again", 0},
    {55, "the connection broke", "Check the proxy and the network, and try again", 0},
    {56, "the connection broke", "Check the proxy and the network, and try again", 0},
}};

// An upload's codes of libcurl.
constexpr std::array<Wording, 15> kUploadCodes = {{
    {3, "the URL is not valid", "Write blanks and control characters as %20 and the like", kExitUsage},
    {6, "the host name is not known", "Check it, and the network", kExitNetwork},
    {7, "nobody answers there", "Check the host name, the port and the network", kExitNetwork},
    {8, "the server does not answer as an FTP server does", "Check the host name and the port", kExitOther},
    {9, "the server refused the folder", "Check the path and the user's permissions there", kExitNotFound},
    {18, "not all of the file was sent or taken", "Check that the file does not change, and try again",
     kExitBrokenOff},
    {25, "the server refused the file", "Check the path and the user's permissions there", kExitNotFound},
    {28, "no answer in time", "Check that the port is the right one, and try again", kExitNetwork},
    {35, "no TLS connection could be made", "Check that this port speaks ftps", kExitTls},
    {55, "the connection broke", "Try again", kExitNetwork},
    {56, "the connection broke", "Try again", kExitNetwork},
    {60, "the server's certificate was not accepted",
     "Check the host name, and that the system trusts the server's authority", kExitCertificate},
    {64, "the server does not encrypt the file", "Ask its administrator", kExitTls},
    {67, "the server refused the log-in", "Check the user name and the password", kExitNotFound},
    {70, "the server has no room left", "Make room there, or ask its administrator", kExitServer},
}};

// ... and its results, for all other codes. The last one stands for all that are missing.
constexpr std::array<Wording, 5> kUploadResults = {{
    {-1, "the file, or the user's name or password, cannot be used", "Try again with -vv to see why",
     kExitFile},
    {-2, "the network or the server cannot be reached, or the connection broke",
     "Check the host name, the port and the network", kExitNetwork},
    {-3, "not all of the file was sent or taken", "Try again", kExitBrokenOff},
    {-4, "the server refused the file", "Try again with -vv to see why", kExitNotFound},
    {-6, "the upload failed", "Try again with -vv to see why", kExitOther},
}};

// For the help text and for nothing else: the statuses are given by the tables and functions here.
constexpr std::array<std::pair<int, const char*>, 12> kStatusWordings = {{
    {kExitOk, "all went well"},
    {kExitUsage, "wrong usage"},
    {kExitNotFound, "the server does not have it, or refuses it or the log-in (4xx)"},
    {kExitServer, "the server failed (5xx)"},
    {kExitCertificate, "the server's certificate was not accepted"},
    {kExitTls, "no TLS connection"},
    {kExitNetwork, "network failure, or no answer or no data in time"},
    {kExitBrokenOff, "the transfer broke off: some bytes are missing"},
    {kExitOther, "any other failure of the transfer"},
    {kExitFile, "a local file cannot be read or written"},
    {kExitInterrupted, "interrupted (Ctrl-C)"},
    {kExitTerminated, "ended by SIGTERM"},
}};

// Null when the table has none.
template <std::size_t size>
const Wording* findWording(const std::array<Wording, size>& table, int code)
{
    const auto found = std::find_if(table.begin(), table.end(),
                                    [code](const Wording& wording) { return wording.code == code; });
    return found != table.end() ? &*found : nullptr;
}

template <std::size_t size>
const Wording& wordingOf(const std::array<Wording, size>& table, int code)
{
    const Wording* found = findWording(table, code);
    return found != nullptr ? *found : table.back();
}

Failure failureFrom(std::string what, const Wording& wording)
{
    return {std::move(what), wording.reason, wording.next, wording.status};
}

const char* adviceFor(int code)
{
    switch (code) {
    case ENOENT:
    case ENOTDIR:
        return "Check the path";
    case EACCES:
    case EPERM:
        return "Check the file's permissions";
    case EISDIR:
        return "Name a file";
    case ENOSPC:
    case EDQUOT:
        return "Make room and try again";
    case EPIPE:
        return "The program that was to take the bytes has gone";
    default:
        return "Check the file and the disk";
    }
}

} // namespace

Failure httpFailure(std::string what, int code, int httpStatus, const Cause& cause)
{
    Failure failure = failureFrom(std::move(what), wordingOf(kHttpWordings, std::abs(code)));
    if (code != 0 && std::abs(code) == cause.code) {
        const Wording* closer = findWording(kHttpResults, cause.result);
        if (closer != nullptr) {
            failure.reason = closer->reason;
            failure.next = closer->next;
        } else if (cause.code == MDCH_HTTP_ECERT && !cause.certificate.empty()) {
            failure.reason += ": " + cause.certificate;
        }
    }
    const std::size_t place = failure.reason.find('%');
    if (place != std::string::npos) {
        failure.reason.replace(place, 1, httpStatus > 0 ? std::to_string(httpStatus) : "an error");
    }
    return failure;
}

Failure uploadFailure(std::string what, int result, int code)
{
    const Wording* found = findWording(kUploadCodes, code);
    return failureFrom(std::move(what), found != nullptr ? *found : wordingOf(kUploadResults, result));
}

Failure localFailure(std::string what, int code)
{
    Failure failure;
    failure.what = std::move(what);
    failure.reason = code != 0 ? std::strerror(code) : "unreadable";
    failure.next = adviceFor(code);
    failure.status = kExitFile;
    return failure;
}

Failure unservedFailure(std::string what, int code)
{
    Failure failure = localFailure(std::move(what), code);
    failure.next =
        "Addresses begin with http://, https://, udp://, nvl2:// or file://; anything else is a path";
    return failure;
}

Failure datagramFailure(std::string what, int code)
{
    if (code == EINVAL) {
        return {std::move(what), "it is not udp://ADDRESS:PORT with an address in four numbers",
                "For example udp://239.1.2.3:5000", kExitUsage};
    }
    return {std::move(what), std::strerror(code),
            "Check the address, the port and that the network has a route for multicast", kExitNetwork};
}

Failure noVolumeFailure(std::string what)
{
    return {std::move(what), "there is no such media volume", "See with mdch volumes which there are",
            kExitFile};
}

Failure silenceFailure(std::string what, int seconds)
{
    return {std::move(what), "nothing came for " + std::to_string(seconds) + " s",
            "Check the address, the port and the sender, or allow more time with --timeout", kExitNetwork};
}

Failure truncatedFailure(std::string what)
{
    return httpFailure(std::move(what), MDCH_HTTP_ETRANSFER, 0, {});
}

std::string bytesOf(std::int64_t count, std::int64_t total)
{
    std::string text = std::to_string(count);
    if (total >= 0) {
        text += " of " + std::to_string(total);
    }
    return text + " bytes";
}

std::string printable(const std::string& text)
{
    constexpr unsigned char kFirstPrintable = 0x20;
    constexpr unsigned char kDelete = 0x7f;
    std::string result = text;
    for (char& letter : result) {
        const auto code = static_cast<unsigned char>(letter);
        if ((code < kFirstPrintable && letter != '\t') || code == kDelete) {
            letter = '?';
        }
    }
    return result;
}

int report(const Failure& failure)
{
    // One piece, so that nothing gets in between.
    std::cerr << printable("mdch: " + failure.what + ": " + failure.reason + ". " + failure.next + ".") +
                     "\n";
    return failure.status;
}

std::string exitStatusHelp()
{
    std::string text = "Exit status:\n";
    for (const auto& [status, meaning] : kStatusWordings) {
        const std::string number = std::to_string(status);
        constexpr std::size_t kColumn = 5;
        text += std::string(kColumn - number.size(), ' ') + number + "  " + meaning + "\n";
    }
    return text;
}

} // namespace mdch
