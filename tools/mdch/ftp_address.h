// The address of a file on an FTP server, as the user writes it.
#pragma once

#include <string>

namespace mdch {

struct FtpAddress
{
    std::string protocol; // "ftp" or "ftps"
    std::string server;   // host, with the port if there is one
    std::string user;     // percent-escapes decoded; empty: anonymous
    std::string path;     // as it stands, without the slash in front; ends with the file's name
};

// "ftp://[USER@]HOST[:PORT]/[DIR/]NAME", "ftps://..." likewise. Returns what is wrong with it; empty: nothing. The
// words never repeat an address, which may hold a password.
std::string parseFtpAddress(const std::string& url, FtpAddress& address);

} // namespace mdch
