/*
 * Trusted server certificates of one HTTPS transfer. A transfer that has a list of its own is verified
 * against exactly this list, not against the system's trust store.
 *
 * The list belongs to the transfer's descriptor and is guarded by the descriptor's mutex. OpenSSL's types
 * are declared forward: callers that hold certificates include OpenSSL themselves.
 */
#ifndef MDC_HLP_HTTP_SSL_H
#define MDC_HLP_HTTP_SSL_H

#include "mdc_hlp_export.h"

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

struct x509_st;
struct stack_st_X509;
struct x509_store_ctx_st;

namespace md {

struct MdchCurlDescriptor_struct;

/*
 * Adds the first certificate of every PEM file of a directory to the transfer's list. Entries that are no
 * regular file and no symbolic link are reported and skipped; files without a certificate are passed over.
 * The caller keeps other threads off the descriptor. Always returns 0; an empty pointer does nothing.
 */
MDCH_API std::int32_t mdchHttpSsl_AddCertificates(const boost::shared_ptr<MdchCurlDescriptor_struct>& desc,
                                                  const std::string& directory);

} // namespace md

/*
 * As mdchHttpSsl_setCertificate, on a descriptor whose mutex the caller holds.
 */
MDCH_API std::int32_t
mdchHttpSsl_setCertificateNoLock(const boost::shared_ptr<md::MdchCurlDescriptor_struct>& desc, x509_st* cert);

extern "C" {

/*
 * Adds a copy of cert to the trusted certificates of HTTP stream number fd; the caller keeps cert. One that
 * is in the list already is not added again. Returns 0, or -EINVAL for a null certificate or an unknown
 * number. Any thread.
 */
MDCH_API std::int32_t mdchHttpSsl_setCertificate(std::int32_t fd, x509_st* cert);

/* Frees a list and its certificates; null does nothing. */
MDCH_API void mdchHttpSsl_cleanupCerts(stack_st_X509* certificates);

/*
 * OpenSSL's verification callback of a transfer: checks the server's chain against the list of stream number
 * fd (passed as a pointer value). Returns X509_verify_cert's result; 0 without a context or a descriptor.
 */
MDCH_API int mdchHttpSsl_verifyCertificateCallback(x509_store_ctx_st* storeContext, void* fd);
}

#endif
