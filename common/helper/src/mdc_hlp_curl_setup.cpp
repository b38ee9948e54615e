#include "mdc_hlp_curl_setup.h"

#include <sys/socket.h>

namespace md {

// A socket that a child process would inherit keeps the connection open after the stream is closed.
curl_socket_t openCurlSocket(void* /*context*/, curlsocktype /*purpose*/, curl_sockaddr* address)
{
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

void initCurl()
{
    static const CURLcode once = curl_global_init(CURL_GLOBAL_DEFAULT);
    static_cast<void>(once);
}

void setCurlBasics(CURL* easy)
{
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, openCurlSocket);
#if LIBCURL_VERSION_NUM >= 0x075700
    // A removed handle does not wait for its name to be resolved.
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
#endif
}

void allowOnly(CURL* easy, CurlProtocols protocols)
{
    const bool http = protocols == CurlProtocols::kHttp;
#if LIBCURL_VERSION_NUM >= 0x075500
    const char* names = http ? "http,https" : "ftp,ftps";
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, names);
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, names);
#else
    const long bits = http ? CURLPROTO_HTTP | CURLPROTO_HTTPS : CURLPROTO_FTP | CURLPROTO_FTPS;
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS, bits);
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS, bits);
#endif
}

} // namespace md
