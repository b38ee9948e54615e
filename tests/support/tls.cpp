#include "support/tls.h"

#include "support/tls_server.h"
#include "support/transport.h"

#include <array>
#include <stdexcept>

namespace support {

namespace {

void require(bool good, const char* what)
{
    if (!good) {
        throw std::runtime_error(std::string("TLS server: ") + what);
    }
}

// The first TLS record: five bytes that end with the length of what follows.
bool readClientHello(Transport& transport)
{
    std::array<unsigned char, 5> header{};
    std::string rest;
    for (std::size_t got = 0; got < header.size();) {
        const std::ptrdiff_t part = transport.read(header.data() + got, header.size() - got);
        if (part <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(part);
    }
    rest.resize(static_cast<std::size_t>(header[3] * 256 + header[4]));
    for (std::size_t got = 0; got < rest.size();) {
        const std::ptrdiff_t part = transport.read(rest.data() + got, rest.size() - got);
        if (part <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(part);
    }
    return true;
}

} // namespace

Tls::Tls() : identity(certificates().leaf) {}

Tls::Tls(const Identity& serverIdentity) : identity(serverIdentity) {}

Tls& Tls::requireClientSignedBy(const Certificate& ca)
{
    clientCa = ca;
    return *this;
}

Tls& Tls::versions(int lowest, int highest)
{
    lowestVersion = lowest;
    highestVersion = highest;
    return *this;
}

Tls& Tls::sessionCache(bool on)
{
    sessions = on;
    return *this;
}

Tls& Tls::handshake(Handshake kind)
{
    behaviour = kind;
    return *this;
}

TlsServer::TlsServer(Tls options)
    : options_(std::move(options)), context_(SSL_CTX_new(TLS_server_method()), SSL_CTX_free)
{
    SSL_CTX* context = context_.get();
    require(context != nullptr, "no context");
    if (options_.highestVersion != 0 && options_.highestVersion < TLS1_2_VERSION) {
        SSL_CTX_set_security_level(context, 0); // the old versions' signatures are below the usual level
    }
    require(SSL_CTX_set_min_proto_version(context, options_.lowestVersion) == 1, "lowest version");
    require(SSL_CTX_set_max_proto_version(context, options_.highestVersion) == 1, "highest version");
    require(SSL_CTX_use_certificate(context, options_.identity.certificate.get()) == 1, "certificate");
    require(SSL_CTX_use_PrivateKey(context, options_.identity.key.get()) == 1, "key");
    for (const Certificate& link : options_.identity.chain) {
        require(SSL_CTX_add1_chain_cert(context, link.get()) == 1, "chain");
    }
    // Never complete the chain from elsewhere: a server that keeps its intermediate back is a case to test.
    SSL_CTX_set_mode(context, SSL_MODE_NO_AUTO_CHAIN);
    if (options_.clientCa) {
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        require(X509_STORE_add_cert(SSL_CTX_get_cert_store(context), options_.clientCa.get()) == 1,
                "client CA");
        require(SSL_CTX_add_client_CA(context, options_.clientCa.get()) == 1, "client CA name");
    }
    const std::string sessionContext = "scripted server";
    SSL_CTX_set_session_id_context(context, reinterpret_cast<const unsigned char*>(sessionContext.data()),
                                   static_cast<unsigned int>(sessionContext.size()));
    if (!options_.sessions) {
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context, 0);
    }
}

bool TlsServer::establish(Transport& transport, ConnectionInfo& info) const
{
    if (options_.behaviour != Tls::Handshake::Normal) {
        misbehave(transport);
        info.handshakeError = "failed on purpose";
        return false;
    }
    if (!transport.startTls(context_.get())) {
        info.handshakeError = transport.handshakeError();
        return false;
    }
    SSL* ssl = transport.tls();
    info.resumed = SSL_session_reused(ssl) == 1;
    info.version = SSL_get_version(ssl);
    info.cipher = SSL_get_cipher_name(ssl);
    const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
    info.serverName = name != nullptr ? name : "";
    const Certificate peer(SSL_get1_peer_certificate(ssl));
    info.clientSubject = peer ? subjectOf(peer) : "";
    return true;
}

void TlsServer::misbehave(Transport& transport) const
{
    if (!readClientHello(transport)) {
        return;
    }
    if (options_.behaviour == Tls::Handshake::Garbage) {
        transport.write("This is no TLS record, whatever a client makes of it.\r\n");
    } else if (options_.behaviour == Tls::Handshake::Stall) {
        transport.pause(-1, std::nullopt);
    }
}

} // namespace support
