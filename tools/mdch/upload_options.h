// What is sent, where to, and as whom.
#pragma once

#include "ftp_address.h"

#include <string>

namespace mdch {

struct UploadOptions
{
    std::string file;
    std::string url;
    FtpAddress address; // the URL in its parts
    std::string passwordFile;
    bool passwordStdin = false;
};

} // namespace mdch
