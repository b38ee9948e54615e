// Where the password of an upload comes from.
#pragma once

#include "upload_options.h"

#include <string>

namespace mdch {

class Interrupt;

// From the file, from standard input, or, with neither option, from the user at the terminal, unseen. None without a
// user name. False: everything is said and done, and the program ends with `status`.
bool readPassword(const UploadOptions& options, Interrupt& interrupt, std::string& password, int& status);

} // namespace mdch
