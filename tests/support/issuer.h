// Making keys and certificates with OpenSSL.
#pragma once

#include "support/x509.h"

#include <string>
#include <vector>

namespace support {

struct CertificateRequest
{
    std::string commonName;
    std::vector<std::string> alternativeNames; // "DNS:localhost", "IP:127.0.0.1"
    bool authority = false;                    // may sign others
    std::string extendedUsage;                 // "serverAuth", "clientAuth", "" for none
    int validFromDays = -1;                    // from today
    int validToDays = 3650;
};

PrivateKey makeEcKey();
PrivateKey makeRsaKey(unsigned int bits);

// Signed by the issuer, or by itself when `issuer` is empty (then `issuerKey` is not used).
Certificate makeCertificate(const CertificateRequest& request, const PrivateKey& key,
                            const Certificate& issuer = Certificate(),
                            const PrivateKey& issuerKey = PrivateKey());

// PKCS#12 bytes of the pair.
std::string toPkcs12(const Certificate& certificate, const PrivateKey& key, const std::string& password);

} // namespace support
