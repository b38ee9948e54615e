#include "support/issuer.h"

#include "support/certificates.h"

#include <array>
#include <stdexcept>

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

namespace support {

namespace {

[[noreturn]] void fail(const char* what)
{
    std::array<char, 256> text{};
    ERR_error_string_n(ERR_get_error(), text.data(), text.size());
    throw std::runtime_error(std::string(what) + ": " + text.data());
}

void require(bool good, const char* what)
{
    if (!good) {
        fail(what);
    }
}

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

Bio memoryBio()
{
    Bio bio(BIO_new(BIO_s_mem()), BIO_free);
    require(bio != nullptr, "BIO_new");
    return bio;
}

std::string contentOf(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(size));
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
        X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()), X509_EXTENSION_free);
    require(extension != nullptr, value.c_str());
    require(X509_add_ext(certificate, extension.get(), -1) == 1, "X509_add_ext");
}

std::string joined(const std::vector<std::string>& items)
{
    std::string result;
    for (const std::string& item : items) {
        result += (result.empty() ? "" : ",") + item;
    }
    return result;
}

// Serial numbers differ, as some verifiers remember certificates by issuer and number.
void setSerial(X509* certificate)
{
    std::uint64_t number = 0;
    require(RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number) == 1, "RAND_bytes");
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), number >> 1U);
}

} // namespace

PrivateKey makeEcKey()
{
    PrivateKey key(EVP_EC_gen("P-256"));
    require(static_cast<bool>(key), "EC key");
    return key;
}

PrivateKey makeRsaKey(unsigned int bits)
{
    PrivateKey key(EVP_RSA_gen(bits));
    require(static_cast<bool>(key), "RSA key");
    return key;
}

Certificate makeCertificate(const CertificateRequest& request, const PrivateKey& key,
                            const Certificate& issuer, const PrivateKey& issuerKey)
{
    Certificate certificate(X509_new());
    X509* x509 = certificate.get();
    require(x509 != nullptr && X509_set_version(x509, X509_VERSION_3) == 1, "X509_new");
    setSerial(x509);
    X509_time_adj_ex(X509_getm_notBefore(x509), request.validFromDays, 0, nullptr);
    X509_time_adj_ex(X509_getm_notAfter(x509), request.validToDays, 0, nullptr);
    require(X509_set_pubkey(x509, key.get()) == 1, "X509_set_pubkey");

    X509_NAME* subject = X509_get_subject_name(x509);
    const auto* name = reinterpret_cast<const unsigned char*>(request.commonName.c_str());
    require(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, name, -1, -1, 0) == 1, "subject");
    X509* signer = issuer ? issuer.get() : x509;
    require(X509_set_issuer_name(x509, X509_get_subject_name(signer)) == 1, "issuer");

    addExtension(x509, signer, NID_basic_constraints,
                 request.authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    if (request.authority) {
        addExtension(x509, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    addExtension(x509, signer, NID_subject_key_identifier, "hash");
    if (issuer) {
        addExtension(x509, signer, NID_authority_key_identifier, "keyid");
    }
    if (!request.extendedUsage.empty()) {
        addExtension(x509, signer, NID_ext_key_usage, request.extendedUsage);
    }
    if (!request.alternativeNames.empty()) {
        addExtension(x509, signer, NID_subject_alt_name, joined(request.alternativeNames));
    }
    EVP_PKEY* signingKey = issuer ? issuerKey.get() : key.get();
    require(X509_sign(x509, signingKey, EVP_sha256()) > 0, "X509_sign");
    return certificate;
}

std::string toPkcs12(const Certificate& certificate, const PrivateKey& key, const std::string& password)
{
    const std::unique_ptr<PKCS12, decltype(&PKCS12_free)> p12(
        PKCS12_create(password.c_str(), "client", key.get(), certificate.get(), nullptr, 0, 0, 0, 0, 0),
        PKCS12_free);
    require(p12 != nullptr, "PKCS12_create");
    const Bio bio = memoryBio();
    require(i2d_PKCS12_bio(bio.get(), p12.get()) == 1, "i2d_PKCS12_bio");
    return contentOf(bio.get());
}

std::string toPem(const Certificate& certificate)
{
    const Bio bio = memoryBio();
    require(PEM_write_bio_X509(bio.get(), certificate.get()) == 1, "PEM_write_bio_X509");
    return contentOf(bio.get());
}

std::string toPem(const PrivateKey& key, const std::string& password)
{
    const Bio bio = memoryBio();
    const EVP_CIPHER* cipher = password.empty() ? nullptr : EVP_aes_256_cbc();
    const auto* phrase = reinterpret_cast<const unsigned char*>(password.data());
    const int written =
        PEM_write_bio_PrivateKey(bio.get(), key.get(), cipher, password.empty() ? nullptr : phrase,
                                 static_cast<int>(password.size()), nullptr, nullptr);
    require(written == 1, "PEM_write_bio_PrivateKey");
    return contentOf(bio.get());
}

std::string subjectOf(const Certificate& certificate)
{
    const Bio bio = memoryBio();
    const X509_NAME* name = X509_get_subject_name(certificate.get());
    require(X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_ONELINE) >= 0, "X509_NAME_print_ex");
    return contentOf(bio.get());
}

} // namespace support
