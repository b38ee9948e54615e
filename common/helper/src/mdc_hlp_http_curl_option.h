/*
 * libcurl's options for a request. One that libcurl refuses is left out. Want of memory is another matter: a request
 * that lacks its Range, its proxy or its trusted certificates must not be sent, and is noted as lacking something.
 */
#ifndef MDC_HLP_HTTP_CURL_OPTION_H
#define MDC_HLP_HTTP_CURL_OPTION_H

#include "mdc_hlp_http_curl.h"

namespace md {

/* Notes the result of a call of libcurl that prepares a part of the request. */
inline void noteResult(MdchCurlDescriptor_struct& desc, CURLcode result, std::uint32_t part = kPartOptions)
{
    if (result == CURLE_OUT_OF_MEMORY) {
        desc.lacking |= part;
    }
}

template <class Value>
void setOption(MdchCurlDescriptor_struct& desc, CURLoption option, Value value,
               std::uint32_t part = kPartOptions)
{
    noteResult(desc, curl_easy_setopt(desc.easy, option, value), part);
}

} // namespace md

#endif
