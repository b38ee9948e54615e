#include "mdch_src.h"

#include <gst/gst.h>

namespace {

gboolean init(GstPlugin* plugin)
{
    return gstmdch::registerElement(plugin) ? TRUE : FALSE;
}

} // namespace

#define PACKAGE "mdchelper"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, mdch, "Streams of the mdchelper library", init,
                  PACKAGE_VERSION, GST_LICENSE_UNKNOWN, PACKAGE, "mdchelper.invalid")
