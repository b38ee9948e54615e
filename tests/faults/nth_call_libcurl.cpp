// Functions of libcurl, and those of OpenSSL and libmount that the library calls.
#include "nth_call.h"
#include "nth_call_real.h"

#include <cstdarg>
#include <curl/curl.h>
#include <libmount/libmount.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

using faults::fails;
using faults::Kind;

// Of the program, which the library is linked into; OpenSSL itself uses its lists all the time.
#if defined(FAULTS_IN_PROGRAM)
extern "C" const char __executable_start;
extern "C" const char etext;
#endif

namespace {

bool isCalledByLibrary([[maybe_unused]] const void* returnAddress)
{
#if defined(FAULTS_IN_PROGRAM)
    const auto* address = static_cast<const char*>(returnAddress);
    return address >= &__executable_start && address < &etext;
#else
    return false; // not told apart there
#endif
}

} // namespace

#undef curl_easy_setopt
#undef curl_easy_getinfo
#undef curl_multi_setopt

extern "C" {

CURL* curl_easy_init()
{
    CURL* easy = fails(Kind::kCurl, __func__) ? nullptr : REAL(curl_easy_init)();
    faults::noteHandle(easy != nullptr);
    return easy;
}

CURLcode curl_easy_setopt(CURL* easy, CURLoption option, ...)
{
    if (fails(Kind::kCurl, __func__)) {
        return CURLE_OUT_OF_MEMORY;
    }
    va_list arguments;
    va_start(arguments, option);
    CURLcode result = CURLE_OK;
    if (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB) {
        result = REAL(curl_easy_setopt)(easy, option, va_arg(arguments, curl_off_t));
    } else if (option < CURLOPTTYPE_OBJECTPOINT) {
        result = REAL(curl_easy_setopt)(easy, option, va_arg(arguments, long));
    } else {
        result = REAL(curl_easy_setopt)(easy, option, va_arg(arguments, void*));
    }
    va_end(arguments);
    return result;
}

CURLcode curl_easy_getinfo(CURL* easy, CURLINFO info, ...)
{
    const bool takesMemory = (info & CURLINFO_TYPEMASK) == CURLINFO_SLIST;
    if (takesMemory && fails(Kind::kCurl, __func__)) {
        return CURLE_OUT_OF_MEMORY;
    }
    va_list arguments;
    va_start(arguments, info);
    void* target = va_arg(arguments, void*);
    va_end(arguments);
    return REAL(curl_easy_getinfo)(easy, info, target);
}

CURLcode curl_easy_perform(CURL* easy)
{
    return fails(Kind::kCurl, __func__) ? CURLE_OUT_OF_MEMORY : REAL(curl_easy_perform)(easy);
}

CURLcode curl_easy_pause(CURL* easy, int mask)
{
    return fails(Kind::kCurl, __func__) ? CURLE_OUT_OF_MEMORY : REAL(curl_easy_pause)(easy, mask);
}

curl_slist* curl_slist_append(curl_slist* list, const char* text)
{
    return fails(Kind::kCurl, __func__) ? nullptr : REAL(curl_slist_append)(list, text);
}

CURLM* curl_multi_init()
{
    return fails(Kind::kCurl, __func__) ? nullptr : REAL(curl_multi_init)();
}

CURLMcode curl_multi_setopt(CURLM* multi, CURLMoption option, ...)
{
    if (fails(Kind::kCurl, __func__)) {
        return CURLM_OUT_OF_MEMORY;
    }
    va_list arguments;
    va_start(arguments, option);
    const CURLMcode result = option < static_cast<int>(CURLOPTTYPE_OBJECTPOINT)
                                 ? REAL(curl_multi_setopt)(multi, option, va_arg(arguments, long))
                                 : REAL(curl_multi_setopt)(multi, option, va_arg(arguments, void*));
    va_end(arguments);
    return result;
}

CURLMcode curl_multi_add_handle(CURLM* multi, CURL* easy)
{
    return fails(Kind::kCurl, __func__) ? CURLM_OUT_OF_MEMORY : REAL(curl_multi_add_handle)(multi, easy);
}

CURLMcode curl_multi_socket_action(CURLM* multi, curl_socket_t socket, int events, int* running)
{
    return fails(Kind::kCurl, __func__) ? CURLM_OUT_OF_MEMORY
                                        : REAL(curl_multi_socket_action)(multi, socket, events, running);
}

OPENSSL_STACK* OPENSSL_sk_new_null()
{
    return isCalledByLibrary(__builtin_return_address(0)) && fails(Kind::kSsl, __func__)
               ? nullptr
               : REAL(OPENSSL_sk_new_null)();
}

int OPENSSL_sk_push(OPENSSL_STACK* stack, const void* item)
{
    return isCalledByLibrary(__builtin_return_address(0)) && fails(Kind::kSsl, __func__)
               ? 0
               : REAL(OPENSSL_sk_push)(stack, item);
}

X509* X509_dup(const X509* certificate)
{
    return fails(Kind::kSsl, __func__) ? nullptr : REAL(X509_dup)(certificate);
}

X509* PEM_read_X509(FILE* file, X509** certificate, pem_password_cb* callback, void* context)
{
    return fails(Kind::kSsl, __func__) ? nullptr : REAL(PEM_read_X509)(file, certificate, callback, context);
}

int X509_verify_cert(X509_STORE_CTX* context)
{
    if (fails(Kind::kSsl, __func__)) {
        X509_STORE_CTX_set_error(context, X509_V_ERR_OUT_OF_MEM);
        return -1;
    }
    return REAL(X509_verify_cert)(context);
}

libmnt_table* mnt_new_table_from_file(const char* path)
{
    return fails(Kind::kMounts, __func__) ? nullptr : REAL(mnt_new_table_from_file)(path);
}

libmnt_cache* mnt_new_cache()
{
    return fails(Kind::kMounts, __func__) ? nullptr : REAL(mnt_new_cache)();
}

libmnt_iter* mnt_new_iter(int direction)
{
    return fails(Kind::kMounts, __func__) ? nullptr : REAL(mnt_new_iter)(direction);
}

} // extern "C"
