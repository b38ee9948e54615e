// HTTP proxies of a test's own, squid and tinyproxy: for clients that log in as user() with password().
#pragma once

#include "support_servers.h"

#include <string>
#include <vector>

namespace support {

class ProxyServer : public LocalServer
{
public:
    const std::string& user() const { return m_user; }
    const std::string& password() const { return m_password; }

protected:
    using LocalServer::LocalServer;

private:
    std::string m_user = "player";
    std::string m_password = "sesame";
};

class Squid : public ProxyServer
{
public:
    Squid();

private:
    std::vector<std::string> command() override;
};

class Tinyproxy : public ProxyServer
{
public:
    Tinyproxy();

private:
    std::vector<std::string> command() override;
};

} // namespace support
