#include "mdc_hlp_http_curl_option.h"
#include "mdc_hlp_http_ssl.h"
#include "mdc_hlp_trace.h"

#include <cstring>
#include <strings.h>

namespace {

using md::MdchCurlDescriptor_struct;

// RC4 stays in the list: OpenSSL skips what it does not have.
constexpr const char* kCipherList =
    "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-RSA-AES128-GCM-SHA256:ECDHE-RSA-AES256-SHA384:"
    "ECDHE-RSA-AES128-SHA256:ECDHE-RSA-AES256-SHA:ECDHE-RSA-AES128-SHA:ECDHE-RSA-RC4-SHA:"
    "DHE-RSA-AES256-GCM-SHA384:DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-SHA256:"
    "DHE-RSA-AES128-SHA256:DHE-RSA-AES256-SHA:DHE-RSA-AES128-SHA:AES256-GCM-SHA384:"
    "AES128-GCM-SHA256:AES256-SHA256:AES128-SHA256:AES256-SHA:AES128-SHA";

// Verification against the transfer's own list. A pooled connection or a resumed session was verified against
// another list, or none, so neither may be used; nor may others use this one, hence it is not kept.
void verifyAgainstOwnList(MdchCurlDescriptor_struct& desc, long verifyHost)
{
    md::setOption(desc, CURLOPT_SSL_VERIFYHOST, verifyHost);
    md::setOption(desc, CURLOPT_SSL_CTX_FUNCTION, mdchHttpCurl_sslctxCallback);
    md::setOption(desc, CURLOPT_SSL_CTX_DATA, md::numberAsPointer(desc.fd));
    md::setOption(desc, CURLOPT_CAINFO, static_cast<char*>(nullptr));
    md::setOption(desc, CURLOPT_FRESH_CONNECT, 1L);
    md::setOption(desc, CURLOPT_FORBID_REUSE, 1L);
    md::setOption(desc, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    md::setOption(desc, CURLOPT_SSL_VERIFYPEER, 1L);
}

void verifyNothing(MdchCurlDescriptor_struct& desc, const char* function)
{
    MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): not verifying host side\n", md::traceBaseName(__FILE__),
               __LINE__, function);
    md::setOption(desc, CURLOPT_SSL_VERIFYHOST, 0L);
    md::setOption(desc, CURLOPT_SSL_VERIFYPEER, 0L);
}

void applyVerification(const md::MdchDescriptorPtr& ptr, const char* function)
{
    MdchCurlDescriptor_struct& desc = *ptr;
    const bool ownCertificates = desc.certificates != nullptr;
    if (ownCertificates && !desc.caPath.empty()) {
        MDCH_TRACE(md::kTraceNotice, "%s(): do not use X509 and ca_path simultaneously for fd %i\n", function,
                   desc.fd);
    }
    if (!desc.verifyHost) {
        verifyNothing(desc, function);
    } else if (ownCertificates) {
        MDCH_TRACE(md::kTraceCall, "%s(): request secured connection via X509 for fd %i\n", function,
                   desc.fd);
        verifyAgainstOwnList(desc, 1L);
    } else if (desc.caPath.empty()) {
        MDCH_TRACE(md::kTraceCall, "%s(): Neither X509 nor ca_path set for https on fd %i\n", function,
                   desc.fd);
        md::setOption(desc, CURLOPT_SSL_VERIFYPEER, 1L);
    } else {
        MDCH_TRACE(md::kTraceCall, "%s(): request secured connection via ca_path for fd %i\n", function,
                   desc.fd);
        md::mdchHttpSsl_AddCertificates(ptr, desc.caPath);
        desc.certificatesFromPath = true;
        verifyAgainstOwnList(desc, 2L);
    }
}

void applyClientCertificate(MdchCurlDescriptor_struct& desc, const char* function)
{
    if (!desc.clientCertificate.empty()) {
        MDCH_TRACE(md::kTraceCall, "%s(): set client certificate for fd %i\n", function, desc.fd);
        md::setOption(desc, CURLOPT_SSLCERT, desc.clientCertificate.c_str());
        if (strcasestr(desc.clientCertificate.c_str(), ".p12") != nullptr) {
            MDCH_TRACE(md::kTraceCall, "%s(): certificate type is P12 for fd %i\n", function, desc.fd);
            md::setOption(desc, CURLOPT_SSLCERTTYPE, "P12");
        }
    }
    if (!desc.keyPassword.empty()) {
        MDCH_TRACE(md::kTraceCall, "%s(): setting ssl key passswd\n", function);
    }
    // Also when empty: without it OpenSSL would ask for a pass phrase on the terminal.
    md::setOption(desc, CURLOPT_KEYPASSWD, desc.keyPassword.c_str());
}

bool isHttps(const std::string& url)
{
    constexpr const char* kScheme = "https://";
    return strncasecmp(url.c_str(), kScheme, std::strlen(kScheme)) == 0;
}

} // namespace

void mdchHttpCurl_applyTls(const boost::shared_ptr<MdchCurlDescriptor_struct>& desc, const char* function)
{
    if (!isHttps(desc->url)) {
        return;
    }
    applyVerification(desc, function);
    md::setOption(*desc, CURLOPT_SSL_CIPHER_LIST, kCipherList);
    applyClientCertificate(*desc, function);
    md::setOption(*desc, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1));
}
