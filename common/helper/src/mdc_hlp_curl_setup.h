/* What all transfers of the library have in common, HTTP streams and uploads. */
#ifndef MDC_HLP_CURL_SETUP_H
#define MDC_HLP_CURL_SETUP_H

#include <curl/curl.h>

namespace md {

/* Sets libcurl up for the process, once. Any thread, before its first use of libcurl. */
void initCurl();

/*
 * No signals (SIGPIPE is the caller's care), sockets that no child process inherits, and an end that waits for
 * no resolver.
 */
void setCurlBasics(CURL* easy);

/* libcurl's open-socket callback that setCurlBasics sets; the context is not used. */
curl_socket_t openCurlSocket(void* context, curlsocktype purpose, curl_sockaddr* address);

/* Transfers, and redirects, go over these protocols only. */
enum class CurlProtocols
{
    kHttp, // and https
    kFtp   // and ftps
};
void allowOnly(CURL* easy, CurlProtocols protocols);

} // namespace md

#endif
