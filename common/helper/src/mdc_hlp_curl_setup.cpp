#include "mdc_hlp_curl_setup.h"

#include "mdp_thread.h"

#include <sys/socket.h>

namespace md {

// A socket that a child process would inherit keeps the connection open after the stream is closed.
curl_socket_t openCurlSocket(void* /*context*/, curlsocktype /*purpose*/, curl_sockaddr* address)
{
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

namespace {

// Sets several options; keeps the first result that is not CURLE_OK.
class Options
{
public:
    explicit Options(CURL* easy) : m_easy(easy) {}

    template <class Value>
    void set(CURLoption option, Value value)
    {
        const CURLcode code = curl_easy_setopt(m_easy, option, value);
        m_result = m_result == CURLE_OK ? code : m_result;
    }

    CURLcode result() const { return m_result; }

private:
    CURL* m_easy;
    CURLcode m_result = CURLE_OK;
};

// Never destroyed: the first stream of a process may be opened by a static object's end.
MdpMutex& setupMutex()
{
    static auto* instance = new MdpMutex;
    return *instance;
}

} // namespace

void initCurl()
{
    static bool isDone = false; // guarded by the mutex
    const MdpLock lock(setupMutex());
    isDone = isDone || curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
}

CURLcode setCurlBasics(CURL* easy)
{
    Options options(easy);
    options.set(CURLOPT_NOSIGNAL, 1L);
    options.set(CURLOPT_OPENSOCKETFUNCTION, openCurlSocket);
#if LIBCURL_VERSION_NUM >= 0x075700
    // A removed handle does not wait for its name to be resolved.
    options.set(CURLOPT_QUICK_EXIT, 1L);
#endif
    return options.result();
}

CURLcode allowOnly(CURL* easy, CurlProtocols protocols)
{
    Options options(easy);
    const bool http = protocols == CurlProtocols::kHttp;
#if LIBCURL_VERSION_NUM >= 0x075500
    const char* names = http ? "http,https" : "ftp,ftps";
    options.set(CURLOPT_PROTOCOLS_STR, names);
    options.set(CURLOPT_REDIR_PROTOCOLS_STR, names);
#else
    const long bits = http ? CURLPROTO_HTTP | CURLPROTO_HTTPS : CURLPROTO_FTP | CURLPROTO_FTPS;
    options.set(CURLOPT_PROTOCOLS, bits);
    options.set(CURLOPT_REDIR_PROTOCOLS, bits);
#endif
    return options.result();
}

} // namespace md
