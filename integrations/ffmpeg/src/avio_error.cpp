#include "avio_error.h"

#include <cerrno>

extern "C" {
#include <libavutil/error.h>
}

namespace avio {

namespace {

int averrorOfStatus(int status)
{
    switch (status) {
    case 400:
        return AVERROR_HTTP_BAD_REQUEST;
    case 401:
        return AVERROR_HTTP_UNAUTHORIZED;
    case 403:
        return AVERROR_HTTP_FORBIDDEN;
    case 404:
        return AVERROR_HTTP_NOT_FOUND;
    default:
        return AVERROR_HTTP_OTHER_4XX;
    }
}

} // namespace

int averrorOf(int error, int httpStatus)
{
    constexpr int kClientError = 2;
    constexpr int kFileError = 1;
    constexpr int kNoData = EAGAIN;
    constexpr int kNoHeader = EFAULT;
    constexpr int kServerError = 22;
    if (error < 0) {
        return AVERROR(-error);
    }
    switch (error) {
    case kFileError:
        return AVERROR(EIO);
    case kClientError:
        return averrorOfStatus(httpStatus);
    case kNoData:
    case kNoHeader:
        return AVERROR(ETIMEDOUT);
    case kServerError:
        return AVERROR_HTTP_SERVER_ERROR;
    case MDCH_HTTP_ECERT:
        return AVERROR(EACCES);
    case MDCH_HTTP_ESSL:
        return AVERROR(EPROTO);
    case MDCH_HTTP_ENETWORK:
        return httpStatus < 0 ? AVERROR(EHOSTUNREACH) : AVERROR(ECONNRESET);
    case MDCH_HTTP_ETRANSFER:
    case MDCH_HTTP_EMOVED:
        return AVERROR(EIO);
    case MDCH_HTTP_EPROTOCOL:
        return AVERROR_PROTOCOL_NOT_FOUND;
    case MDCH_HTTP_EUNKNOWN:
        return AVERROR_EXTERNAL;
    default:
        return AVERROR(error);
    }
}

bool isWorthAnotherTry(int averror)
{
    return averror == AVERROR(EIO) || averror == AVERROR(ECONNRESET) || averror == AVERROR(EHOSTUNREACH) ||
           averror == AVERROR(ETIMEDOUT) || averror == AVERROR_HTTP_SERVER_ERROR;
}

} // namespace avio
