// The element mdchsrc: a GstPushSrc over the library's streams, with the interface for URIs.
#pragma once

#include <gst/gst.h>

namespace gstmdch {

// Rank none: nothing changes on a machine until somebody asks for it.
bool registerElement(GstPlugin* plugin);

} // namespace gstmdch
