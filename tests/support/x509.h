// Shared owners of OpenSSL objects.
#pragma once

#include <memory>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace support {

// A certificate; copies share the object.
class Certificate
{
public:
    Certificate() = default;
    explicit Certificate(X509* owned) : x509_(owned, X509_free) {}

    X509* get() const { return x509_.get(); } // stays owned here
    explicit operator bool() const { return x509_ != nullptr; }

private:
    std::shared_ptr<X509> x509_;
};

// A private key; copies share the object.
class PrivateKey
{
public:
    PrivateKey() = default;
    explicit PrivateKey(EVP_PKEY* owned) : key_(owned, EVP_PKEY_free) {}

    EVP_PKEY* get() const { return key_.get(); } // stays owned here
    explicit operator bool() const { return key_ != nullptr; }

private:
    std::shared_ptr<EVP_PKEY> key_;
};

} // namespace support
