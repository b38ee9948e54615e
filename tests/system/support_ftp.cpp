#include "support_ftp.h"

#include "support/certificates.h"
#include "support/sockets.h"

#include <algorithm>
#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace support {

namespace {

bool isRoot()
{
    return geteuid() == 0;
}

// The user whose files the servers write: when they are root's, one that has a home, as vsftpd wants it.
const passwd& fileOwner()
{
    const passwd* owner = isRoot() ? getpwnam("daemon") : getpwuid(geteuid());
    if (owner == nullptr) {
        throw std::runtime_error("the servers' user is unknown");
    }
    return *owner;
}

std::string groupOf(const passwd& user)
{
    const group* found = getgrgid(user.pw_gid);
    if (found == nullptr) {
        throw std::runtime_error("the servers' group is unknown");
    }
    return found->gr_name;
}

void makeServed(const TempDir& folder, const std::string& name, mode_t mode, bool isOwned)
{
    const std::string path = folder.makeDir(name);
    const passwd& owner = fileOwner();
    if ((isOwned && isRoot() && chown(path.c_str(), owner.pw_uid, owner.pw_gid) != 0) ||
        chmod(path.c_str(), mode) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

} // namespace

std::string serverProgram(const std::string& name)
{
    const std::string unpacked = SERVER_FOLDER "/usr/sbin/" + name;
    return access(unpacked.c_str(), X_OK) == 0 ? unpacked : name;
}

FtpHost::FtpHost(std::string user, std::string password)
    : m_user(std::move(user)), m_password(std::move(password))
{
    constexpr mode_t kReadOnly = 0555;
    constexpr mode_t kOwners = 0755;
    chmod(m_folder.path().c_str(), kOwners);
    makeServed(m_folder, "empty", kReadOnly, false);
    makeServed(m_folder, "root", kOwners, false);
    makeServed(m_folder, "root/in", kOwners, true);
    makeServed(m_folder, "root/in/small", kOwners, true);
    makeServed(m_folder, "root/readonly", kReadOnly, false);
    chmod(m_folder.file("root").c_str(), kReadOnly); // vsftpd refuses a root that can be written to
}

FtpHost::~FtpHost()
{
    constexpr mode_t kOwners = 0755;
    m_processes.clear();
    chmod(m_folder.file("root").c_str(), kOwners); // so that it can be removed
}

void FtpHost::start()
{
    // Another program may take a port between its choice and the start: then others are tried.
    constexpr int kAttempts = 10;
    constexpr std::chrono::seconds kStartDeadline{30};
    ProcessOptions options;
    options.standardOutput = m_folder.file("output.log");
    options.standardError = m_folder.file("error.log");
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        {
            const LoopbackPort first;
            const LoopbackPort second;
            m_port = first.port();
            m_portIpv6 = second.port();
        }
        m_processes.clear();
        m_processes = launch(options);
        waitUntil([this] { return !isRunning() || listens(); }, kStartDeadline);
        if (isRunning() && listens()) {
            return;
        }
    }
    throw std::runtime_error("the FTP server does not start: " + readFile(options.standardOutput) +
                             readFile(options.standardError) + readFile(m_folder.file("server.log")));
}

bool FtpHost::isRunning() const
{
    return std::all_of(m_processes.begin(), m_processes.end(),
                       [](const auto& process) { return process->isRunning(); });
}

bool FtpHost::listens() const
{
    const auto any = [this](const auto& does) {
        return std::any_of(m_processes.begin(), m_processes.end(), does);
    };
    return any([this](const auto& process) { return process->listens(m_port); }) &&
           any([this](const auto& process) { return process->listensIpv6(m_portIpv6); });
}

std::string FtpHost::host() const
{
    return "127.0.0.1:" + std::to_string(m_port);
}

std::string FtpHost::hostIpv6() const
{
    return "[::1]:" + std::to_string(m_portIpv6);
}

// Its only users with a password that are not the machine's own are anonymous ones whose "e-mail address" stands in
// a list.
Vsftpd::Vsftpd(Security security) : FtpHost("ftp", "open sesame"), m_security(security)
{
    start();
}

FtpHost::Processes Vsftpd::launch(const ProcessOptions& options)
{
    folder().write("passwords", "open sesame\nsomebody@example.test\nftp@example.com\n");
    const std::string program = serverProgram("vsftpd");
    Processes processes; // one listens on one address
    for (const bool ipv6 : {true, false}) {
        const std::string file = folder().write(ipv6 ? "ipv6.conf" : "ipv4.conf", configuration(ipv6));
        processes.push_back(std::make_unique<Process>(std::vector<std::string>{program, file}, options));
    }
    return processes;
}

std::string Vsftpd::configuration(bool ipv6) const
{
    const std::string owner = fileOwner().pw_name;
    std::string text =
        ipv6 ? "listen=NO\nlisten_ipv6=YES\nlisten_address6=::1\nlisten_port=" + std::to_string(portIpv6()) +
                   "\n"
             : "listen=YES\nlisten_address=127.0.0.1\nlisten_port=" + std::to_string(port()) + "\n";
    text += "background=NO\n"
            "anonymous_enable=YES\n"
            "local_enable=NO\n"
            "anon_root=" +
            folder().file("root") + "\nsecure_chroot_dir=" + folder().file("empty") +
            "\nftp_username=" + owner + "\nnopriv_user=" + owner +
            "\nrun_as_launching_user=" + (isRoot() ? "NO" : "YES") +
            "\n"
            "write_enable=YES\n"
            "anon_upload_enable=YES\n"
            "anon_mkdir_write_enable=YES\n"
            "anon_other_write_enable=YES\n"
            "anon_umask=022\n"
            "secure_email_list_enable=YES\n"
            "email_password_file=" +
            folder().file("passwords") +
            "\n"
            "xferlog_enable=NO\n"
            // What containers do not allow.
            "seccomp_sandbox=NO\n"
            "isolate=NO\n"
            "isolate_network=NO\n";
    if (m_security == Security::kImplicitTls) {
        const Identity& identity = certificates().leaf;
        text += "ssl_enable=YES\n"
                "implicit_ssl=YES\n"
                "allow_anon_ssl=YES\n"
                "force_anon_data_ssl=YES\n"
                "force_anon_logins_ssl=YES\n"
                "require_ssl_reuse=YES\n"
                "ssl_ciphers=HIGH\n"
                "rsa_cert_file=" +
                identity.pem + "\nrsa_private_key_file=" + identity.keyPem + "\n";
    }
    return text;
}

Proftpd::Proftpd() : FtpHost("tester", "open sesame")
{
    start();
}

FtpHost::Processes Proftpd::launch(const ProcessOptions& options)
{
    const passwd& owner = fileOwner();
    const std::string ids = std::to_string(owner.pw_uid) + ":" + std::to_string(owner.pw_gid);
    const std::string rest = ":" + ids + "::" + folder().file("root") + ":/bin/false\n";
    // "open sesame", as crypt() has it.
    const std::string hash = "$6$saltsalt$e/5XKibXPLqVcfjpD.ouauaJrAOL5V0uo80Lt7n7EbRdRiCx3HbQ90yjOHr."
                             "G0T.mx79PEMRy8nmtr0qSYhQp1";
    constexpr mode_t kPrivate = 0600;
    chmod(folder().write("passwd", user() + ":" + hash + rest + "anonymous:x" + rest).c_str(), kPrivate);
    chmod(folder().write("group", "owner:x:" + std::to_string(owner.pw_gid) + ":\n").c_str(), kPrivate);
    Processes processes;
    processes.push_back(std::make_unique<Process>(
        std::vector<std::string>{serverProgram("proftpd"), "--nodaemon", "--quiet", "--config",
                                 folder().write("proftpd.conf", configuration())},
        options));
    return processes;
}

std::string Proftpd::configuration() const
{
    const std::string root = folder().file("root");
    // Only root's server can confine its users.
    const std::string confined = "DefaultRoot " + root + "\n<Anonymous " + root +
                                 ">\nUser anonymous\nGroup owner\nRequireValidShell off\n<Limit "
                                 "LOGIN>\nAllowAll\n</Limit>\n</Anonymous>\n";
    const auto serve = [&](const std::string& address, std::uint16_t number) {
        return "<VirtualHost " + address + ">\nPort " + std::to_string(number) +
               "\nAuthOrder mod_auth_file.c\nAuthUserFile " + folder().file("passwd") + "\nAuthGroupFile " +
               folder().file("group") + "\nRequireValidShell off\nAllowOverwrite on\nUmask 022\n<Directory " +
               root + "/in/small>\nMaxStoreFileSize " + std::to_string(kSmall) + " B\n</Directory>\n" +
               (isRoot() ? confined : "") + "</VirtualHost>\n";
    };
    return "ServerName test\nServerType standalone\nPort 0\nUseIPv6 on\nUseReverseDNS off\n"
           "User " +
           std::string(fileOwner().pw_name) + "\nGroup " + groupOf(fileOwner()) + "\nScoreboardFile " +
           folder().file("scoreboard") + "\nPidFile " + folder().file("pid") + "\nSystemLog " +
           folder().file("server.log") +
           "\nTransferLog none\nWtmpLog off\nDelayEngine off\nControlsEngine off\nSocketBindTight "
           "on\nModulePath " SERVER_FOLDER "/usr/lib/proftpd\n" +
           serve("127.0.0.1", port()) + serve("::1", portIpv6());
}

} // namespace support
