// A web server of its own for a test: nginx on free ports of 127.0.0.1, with all its files in one folder.
#pragma once

#include "support/temp_dir.h"
#include "support_process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace support {

class Nginx
{
public:
    Nginx();
    ~Nginx();

    // Puts a file where the server finds it.
    void addFile(const std::string& name, const std::string& content) const;

    std::string plain(const std::string& path) const;         // http
    std::string secure(const std::string& path) const;        // https; certificate of the test CA
    std::string secureTls12(const std::string& path) const;   // https; TLS 1.2 and an RSA key
    std::string selfSigned(const std::string& path) const;    // https; a certificate nobody vouches for
    std::string wrongHost(const std::string& path) const;     // https; a certificate for another host
    std::string clientOnly(const std::string& path) const;    // https; asks for a client certificate
    std::string secureToPlain(const std::string& path) const; // https on the port of plain http

private:
    enum Port : std::size_t
    {
        kPlain,
        kSecure,
        kSelfSigned,
        kWrongHost,
        kClientOnly,
        kOlder12,
        kPortCount
    };

    bool start();
    std::string configuration() const;
    std::string url(const char* scheme, Port port, const std::string& path) const;

    TempDir m_folder{"nginx"};
    std::vector<std::uint16_t> m_ports;
    std::unique_ptr<Process> m_process;
};

} // namespace support
