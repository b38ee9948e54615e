// FTP servers of its own for a test: vsftpd and ProFTPD on free loopback ports, with all their files in one
// folder. Both let one user in with a password, and anonymous users. Behind the log-in lie "in", where everything
// may be stored, and "readonly".
#pragma once

#include "support/temp_dir.h"
#include "support_process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace support {

// "vsftpd" or "proftpd". The two packages cannot be installed side by side; ./test unpacks them.
std::string serverProgram(const std::string& name);

class FtpHost
{
public:
    virtual ~FtpHost();
    FtpHost(const FtpHost&) = delete;
    FtpHost& operator=(const FtpHost&) = delete;

    std::string host() const;     // "127.0.0.1:PORT"
    std::string hostIpv6() const; // "[::1]:PORT"
    const std::string& user() const { return m_user; }
    const std::string& password() const { return m_password; }

    // Where the server keeps what was stored as "in/NAME".
    std::string stored(const std::string& name) const { return m_folder.file("root/in/" + name); }

protected:
    FtpHost(std::string user, std::string password);

    // Tries ports until the server listens; throws when it does not.
    void start();

    const TempDir& folder() const { return m_folder; }
    std::uint16_t port() const { return m_port; }
    std::uint16_t portIpv6() const { return m_portIpv6; }

    // One, or one for each of its addresses.
    using Processes = std::vector<std::unique_ptr<Process>>;

private:
    virtual Processes launch(const ProcessOptions& options) = 0;
    bool isRunning() const; // all that was launched
    bool listens() const;   // on both addresses

    TempDir m_folder{"ftp"};
    std::string m_user;
    std::string m_password;
    std::uint16_t m_port = 0;
    std::uint16_t m_portIpv6 = 0;
    Processes m_processes;
};

class Vsftpd : public FtpHost
{
public:
    enum class Security
    {
        kNone,
        kImplicitTls // with the test CA's certificate for 127.0.0.1; nothing goes in the clear
    };
    explicit Vsftpd(Security security = Security::kNone);

private:
    Processes launch(const ProcessOptions& options) override;
    std::string configuration(bool ipv6) const;

    Security m_security;
};

class Proftpd : public FtpHost
{
public:
    Proftpd();

    // "in/small" takes files up to this size.
    static constexpr std::size_t kSmall = 1U << 20U;

private:
    Processes launch(const ProcessOptions& options) override;
    std::string configuration() const;
};

} // namespace support
