// How a scripted server speaks TLS.
#pragma once

#include "support/certificates.h"

#include <cstddef>
#include <string>

#include <openssl/ssl.h> // TLS1_2_VERSION and its kin

namespace support {

struct Tls
{
    enum class Handshake
    {
        Normal,
        CloseAfterHello, // closes the connection when the ClientHello has come
        Garbage,         // answers the ClientHello with bytes that are no TLS
        Stall            // takes the ClientHello and says nothing more
    };

    Tls(); // the leaf for 127.0.0.1 and localhost, signed by the CA
    explicit Tls(const Identity& serverIdentity);

    Tls& requireClientSignedBy(const Certificate& ca); // the handshake fails without such a certificate
    Tls& versions(int lowest, int highest);            // TLS1_2_VERSION ...; 0: no limit
    Tls& sessionCache(bool on);                        // off: nothing can be resumed
    Tls& handshake(Handshake behaviour);

    Identity identity;
    Certificate clientCa; // empty: none required
    int lowestVersion = 0;
    int highestVersion = 0;
    bool sessions = true;
    Handshake behaviour = Handshake::Normal;
};

// What is known of one connection to a server.
struct ConnectionInfo
{
    std::size_t index = 0;
    std::size_t requests = 0;   // read so far
    bool open = true;           // the server has not closed it
    bool established = false;   // TLS: the handshake went through; plain: always
    std::string handshakeError; // OpenSSL's words when it did not

    // TLS only:
    bool resumed = false;
    std::string version; // "TLSv1.3"
    std::string cipher;
    std::string serverName;    // SNI
    std::string clientSubject; // "CN = ..." of the client's certificate, "" without one
};

} // namespace support
