// URIs as GStreamer has them, and addresses as the library takes them.
#pragma once

#include <string>

namespace gstmdch {

// Of the URI handler, null at the end.
extern const char* const kProtocols[];

bool isProtocol(const std::string& location, const char* protocol);

// Whether it is a path, or a URI of a protocol that the library knows.
bool isSupported(const std::string& location);

// The path of a file URI, whose escapes the library would not decode; all else is taken as it stands.
std::string libraryAddress(const std::string& location);

// The URI of a location; a path becomes a file URI.
std::string uriOf(const std::string& location);

} // namespace gstmdch
