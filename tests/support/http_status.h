// The usual reasons of HTTP status codes.
#pragma once

#include <string>

namespace support {

std::string usualReason(int status);

} // namespace support
