#include "mdc_hlp_http_ssl.h"

#include "mdc_hlp_http_curl.h"
#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct CloseDirectory
{
    void operator()(DIR* directory) const { closedir(directory); }
};
struct CloseFile
{
    void operator()(FILE* file) const { fclose(file); }
};
struct FreeCertificate
{
    void operator()(X509* certificate) const { X509_free(certificate); }
};

using Directory = std::unique_ptr<DIR, CloseDirectory>;
using File = std::unique_ptr<FILE, CloseFile>;
using Certificate = std::unique_ptr<X509, FreeCertificate>;

// Without a callback OpenSSL would ask for the pass phrase of an encrypted file on the terminal.
int noPassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*context*/)
{
    return -1;
}

// Regular files only: a link may lead to a pipe, and opening or reading that would wait.
File openRegularFile(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        return nullptr;
    }
    struct stat facts = {};
    File file(fstat(descriptor, &facts) == 0 && S_ISREG(facts.st_mode) ? fdopen(descriptor, "r") : nullptr);
    if (file == nullptr) {
        close(descriptor);
    }
    return file;
}

Certificate firstCertificateIn(const std::string& path)
{
    const File file = openRegularFile(path);
    if (file == nullptr) {
        return nullptr;
    }
    Certificate certificate(PEM_read_X509(file.get(), nullptr, noPassPhrase, nullptr));
    if (certificate == nullptr) {
        ERR_clear_error(); // a file without a certificate is no error of the next TLS call
    }
    return certificate;
}

bool isFolderItself(const dirent& entry)
{
    return std::strcmp(entry.d_name, ".") == 0 || std::strcmp(entry.d_name, "..") == 0;
}

// Some file systems do not tell the type in the entry.
bool isFileOrLink(DIR* directory, const dirent& entry)
{
    if (entry.d_type != DT_UNKNOWN) {
        return entry.d_type == DT_REG || entry.d_type == DT_LNK;
    }
    struct stat facts = {};
    return fstatat(dirfd(directory), entry.d_name, &facts, AT_SYMLINK_NOFOLLOW) == 0 &&
           (S_ISREG(facts.st_mode) || S_ISLNK(facts.st_mode));
}

} // namespace

std::int32_t mdchHttpSsl_setCertificateNoLock(const boost::shared_ptr<md::MdchCurlDescriptor_struct>& desc,
                                              x509_st* cert)
{
    if (cert == nullptr || desc == nullptr) {
        return -EINVAL;
    }
    if (desc->certificates == nullptr) {
        desc->certificates = sk_X509_new_null();
    }
    STACK_OF(X509)* list = desc->certificates;
    for (int i = 0; i < sk_X509_num(list); ++i) {
        if (X509_cmp(sk_X509_value(list, i), cert) == 0) {
            MDCH_TRACE(md::kTraceCall, "%s(): certificate alread added\n", __func__);
            return 0;
        }
    }
    Certificate copy(X509_dup(cert));
    if (copy == nullptr || sk_X509_push(list, copy.get()) <= 0) {
        return -EINVAL;
    }
    static_cast<void>(copy.release()); // the list's now
    MDCH_TRACE(md::kTraceCall, "%s(): added certificate\n", __func__);
    return 0;
}

std::int32_t mdchHttpSsl_setCertificate(std::int32_t fd, x509_st* cert)
{
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(fd);
    if (cert == nullptr || desc == nullptr) {
        return -EINVAL;
    }
    const MdpLock lock = md::lockDescriptor(*desc);
    return mdchHttpSsl_setCertificateNoLock(desc, cert);
}

std::int32_t md::mdchHttpSsl_AddCertificates(const boost::shared_ptr<MdchCurlDescriptor_struct>& desc,
                                             const std::string& directory)
{
    if (desc == nullptr) {
        return 0;
    }
    const Directory opened(opendir(directory.c_str()));
    if (opened == nullptr) {
        MDCH_TRACE(kTraceError, "\x1b[1;31m%s: can't open directory '%s'.\x1b[0m\n", __func__,
                   directory.c_str());
        return 0;
    }
    while (const dirent* entry = readdir(opened.get())) {
        if (!isFileOrLink(opened.get(), *entry)) {
            // "." and ".." are in every folder: no failure, whatever the text looks like.
            const unsigned int level = isFolderItself(*entry) ? kTraceCall : kTraceError;
            MDCH_TRACE(level, "\x1b[1;31m%s: ignore '%s'.\x1b[0m\n", __func__, entry->d_name);
            continue;
        }
        const std::string path = directory + "/" + entry->d_name;
        const Certificate certificate = firstCertificateIn(path);
        if (certificate != nullptr) {
            MDCH_TRACE(kTraceCall, "%s(): store certs  file='%s'\n", __func__, path.c_str());
            mdchHttpSsl_setCertificateNoLock(desc, certificate.get());
        }
    }
    return 0;
}

void mdchHttpSsl_cleanupCerts(stack_st_X509* certificates)
{
    sk_X509_pop_free(certificates, X509_free);
}

int mdchHttpSsl_verifyCertificateCallback(x509_store_ctx_st* storeContext, void* fd)
{
    if (md::isRemovingFromMulti()) {
        return 0; // the connection is being closed: nobody wants it any more
    }
    const int number = md::pointerAsNumber(fd);
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(number);
    if (storeContext == nullptr || desc == nullptr) {
        return 0;
    }
    const MdpLock lock = md::lockDescriptor(*desc);
    MDCH_TRACE(md::kTraceCall, "%s(): verify certificate for fd %i\n", __func__, number);
    X509_STORE_CTX_set0_trusted_stack(storeContext, desc->certificates);
    const int result = X509_verify_cert(storeContext);
    if (result == 1) {
        X509_STORE_CTX_set_error(storeContext, X509_V_OK);
    } else {
        const int error = X509_STORE_CTX_get_error(storeContext);
        MDCH_TRACE(md::kTraceError, "%s(): verify cert failed: %s (%i)\n", __func__,
                   X509_verify_cert_error_string(error), error);
    }
    return result;
}

CURLcode mdchHttpCurl_sslctxCallback(CURL* /*easy*/, void* sslContext, void* userData)
{
    if (sslContext == nullptr) {
        return CURLE_PEER_FAILED_VERIFICATION;
    }
    MDCH_TRACE(md::kTraceCall, "%s(): got sslctx callback for fd %i\n", __func__,
               md::pointerAsNumber(userData));
    auto* context = static_cast<SSL_CTX*>(sslContext);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, mdchHttpSsl_verifyCertificateCallback, userData);
    return CURLE_OK;
}
