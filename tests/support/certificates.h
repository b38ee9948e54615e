// Certificates for tests, made once per process, as OpenSSL objects and as files. Keys are EC P-256 (quick to
// make) unless said otherwise.
#pragma once

#include "support/temp_dir.h"
#include "support/x509.h"

#include <mutex>
#include <string>
#include <vector>

namespace support {

// A certificate with its key and what a server sends along.
struct Identity
{
    Certificate certificate;
    PrivateKey key;
    std::vector<Certificate> chain; // intermediates, without the root
    std::string pem;                // file: the certificate, then the chain
    std::string keyPem;             // file: the key, not encrypted
};

// A certification authority and its file.
struct Authority
{
    Certificate certificate;
    PrivateKey key;
    std::string pem; // file with the certificate alone
};

// The client's certificate in every form in which a program can be given it.
struct ClientFiles
{
    std::string pem;          // certificate and key, not encrypted, in one file
    std::string encryptedPem; // certificate and key encrypted with `password`, in one file
    std::string p12;          // PKCS#12 with `password`
    std::string plainP12;     // PKCS#12 with an empty password
    std::string password;
};

class Certificates
{
public:
    Authority ca;           // the root that the others descend from
    Authority intermediate; // signed by `ca`
    Authority unrelatedCa;  // signed none of what stands here

    // For 127.0.0.1 and localhost:
    Identity leaf;             // signed by `ca`
    Identity intermediateLeaf; // signed by `intermediate`, which the server sends along
    Identity lonelyLeaf;       // as before, but the server keeps the intermediate to itself
    Identity selfSigned;
    Identity expiredLeaf; // signed by `ca`, ended long ago
    // For another.example.test, signed by `ca`:
    Identity wrongHostLeaf;

    Identity client; // CN "test client", signed by `ca`
    ClientFiles clientFiles;
    Identity unrelatedClient; // signed by `unrelatedCa`

    std::string directory;          // where all the files are
    std::string caDirectory;        // folder that holds the CA's certificate alone
    std::string unrelatedDirectory; // folder that holds the unrelated CA's certificate alone

    // As `leaf`, with an RSA 2048 key: for cipher lists that know RSA authentication only, which leave no common
    // cipher below TLS 1.3 with the others. Made at the first call, because such a key takes its time.
    const Identity& rsaLeaf() const;

private:
    friend const Certificates& certificates();
    Certificates();

    TempDir files_;
    mutable std::once_flag rsaOnce_;
    mutable Identity rsaLeaf_;
};

// The process's set; made at the first call (some hundredths of a second), the files go at exit.
const Certificates& certificates();

// Helpers for tests that need one more.
std::string toPem(const Certificate& certificate);
std::string toPem(const PrivateKey& key, const std::string& password = "");
std::string subjectOf(const Certificate& certificate); // "CN = ..."

} // namespace support
