// What a stream's error number is to GStreamer: an error of the domain "resource", and its reason in words.
#pragma once

#include <gst/gst.h>
#include <string>

namespace gstmdch {

// What the element was about.
enum class Stage
{
    kOpen,
    kRead,
    kSeek
};

// error: an mdch_HttpError, an errno value or a negated one. httpStatus: 0 without a response.
GstResourceError resourceErrorOf(Stage stage, int error, int httpStatus);

std::string reasonOf(int error, int httpStatus);

// Posts it, with error and HTTP status as details ("mdch-error", "http-status-code").
void postFailure(GstElement* element, Stage stage, int error, int httpStatus, const std::string& url);

} // namespace gstmdch
