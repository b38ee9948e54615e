// "openssl s_server" as a web server that speaks TLS in every way that it is told to: one connection after the
// other, no lengths and no ranges.
#pragma once

#include "support/certificates.h"
#include "support_servers.h"

#include <string>
#include <vector>

namespace support {

class OpensslServer : public LocalServer
{
public:
    // more: further options of s_server.
    explicit OpensslServer(const Identity& identity, std::vector<std::string> more = {});

    void addFile(const std::string& name, const std::string& content) const;
    std::string secureUrl(const std::string& path) const;

private:
    std::vector<std::string> command() override;

    std::string m_certificate;
    std::string m_key;
    std::vector<std::string> m_more;
};

} // namespace support
