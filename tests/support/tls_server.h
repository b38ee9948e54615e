// The server side of TLS handshakes.
#pragma once

#include "support/tls.h"

#include <memory>

#include <openssl/ssl.h>

namespace support {

class Transport;

class TlsServer
{
public:
    explicit TlsServer(Tls options);

    // Makes the handshake, or fails it as scripted, and notes what there is to know of it.
    bool establish(Transport& transport, ConnectionInfo& info) const;

private:
    void misbehave(Transport& transport) const;

    Tls options_;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
};

} // namespace support
