#include "failure.h"

#include "mdc_hlp_url_types.h"

#include <cerrno>
#include <cstdlib>

namespace gstmdch {

namespace {

constexpr int kUnauthorized = 401;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kProxyLogin = 407;
constexpr int kGone = 410;
constexpr int kFirstError = 400;

GstResourceError openErrorOf(int error, int httpStatus)
{
    switch (httpStatus) {
    case kNotFound:
    case kGone:
        return GST_RESOURCE_ERROR_NOT_FOUND;
    case kUnauthorized:
    case kForbidden:
    case kProxyLogin:
        return GST_RESOURCE_ERROR_NOT_AUTHORIZED;
    default:
        break;
    }
    switch (error) {
    case -ENOENT:
    case -ENODEV: // a media volume that is not there
        return GST_RESOURCE_ERROR_NOT_FOUND;
    case -EACCES:
    case -EPERM:
        return GST_RESOURCE_ERROR_NOT_AUTHORIZED;
    default:
        return GST_RESOURCE_ERROR_OPEN_READ;
    }
}

// As the kind of the element's failure, with words that a user understands.
const char* headlineOf(GstResourceError code)
{
    switch (code) {
    case GST_RESOURCE_ERROR_NOT_FOUND:
        return "Not found";
    case GST_RESOURCE_ERROR_NOT_AUTHORIZED:
        return "Not authorised";
    case GST_RESOURCE_ERROR_READ:
        return "The stream broke off";
    case GST_RESOURCE_ERROR_SEEK:
        return "The stream could not be moved";
    default:
        return "Could not be opened";
    }
}

} // namespace

GstResourceError resourceErrorOf(Stage stage, int error, int httpStatus)
{
    switch (stage) {
    case Stage::kRead:
        return GST_RESOURCE_ERROR_READ;
    case Stage::kSeek:
        return GST_RESOURCE_ERROR_SEEK;
    default:
        return openErrorOf(error, httpStatus);
    }
}

std::string reasonOf(int error, int httpStatus)
{
    switch (error) {
    case MDCH_HTTP_ECERT:
        return "the server's certificate is not trusted";
    case MDCH_HTTP_ESSL:
        return "no TLS connection to the server";
    case MDCH_HTTP_ENETWORK:
        return "no such host, no connection, or it was lost";
    case MDCH_HTTP_ETRANSFER:
        return "the transfer ended early";
    case MDCH_HTTP_EPROTOCOL:
        return "redirected to what is not HTTP";
    case MDCH_HTTP_EMOVED:
        return "moved, and redirects are not followed";
    case MDCH_HTTP_EUNKNOWN:
        return "the server did not answer as HTTP wants it";
    case EAGAIN:
        return "no data in time";
    case EFAULT:
        return "no response in time";
    case ESPIPE:
        return "the stream cannot be moved there, or the server did not answer in time";
    default:
        break;
    }
    if (httpStatus >= kFirstError) {
        return "HTTP status " + std::to_string(httpStatus);
    }
    return g_strerror(std::abs(error));
}

void postFailure(GstElement* element, Stage stage, int error, int httpStatus, const std::string& url)
{
    const GstResourceError code = resourceErrorOf(stage, error, httpStatus);
    const std::string reason = reasonOf(error, httpStatus);
    const std::string text = std::string(headlineOf(code)) + ": " + reason + ".";
    const std::string debug = url + ": " + reason + " (error " + std::to_string(error) + ")";
    GstStructure* details = gst_structure_new("details", "mdch-error", G_TYPE_INT, error, nullptr);
    if (httpStatus > 0) {
        gst_structure_set(details, "http-status-code", G_TYPE_UINT, static_cast<guint>(httpStatus), nullptr);
    }
    gst_element_message_full_with_details(element, GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, code,
                                          g_strdup(text.c_str()), g_strdup(debug.c_str()), __FILE__, __func__,
                                          __LINE__, details);
}

} // namespace gstmdch
