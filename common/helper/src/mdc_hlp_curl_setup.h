/* What all transfers of the library have in common, HTTP streams and uploads. */
#ifndef MDC_HLP_CURL_SETUP_H
#define MDC_HLP_CURL_SETUP_H

#include <curl/curl.h>

namespace md {

/*
 * Sets libcurl up for the process, and does nothing once that is done; a failure is mended by the next call. Any
 * thread, before its first use of libcurl.
 */
void initCurl();

/*
 * No signals (SIGPIPE is the caller's care), sockets that no child process inherits, and an end that waits for
 * no resolver. The first result that is not CURLE_OK, if any.
 */
CURLcode setCurlBasics(CURL* easy);

/* libcurl's open-socket callback that setCurlBasics sets; the context is not used. */
curl_socket_t openCurlSocket(void* context, curlsocktype purpose, curl_sockaddr* address);

/* Transfers, and redirects, go over these protocols only. The result is as that of setCurlBasics. */
enum class CurlProtocols
{
    kHttp, // and https
    kFtp   // and ftps
};
CURLcode allowOnly(CURL* easy, CurlProtocols protocols);

} // namespace md

#endif
