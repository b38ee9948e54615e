// One client's conversation with the scripted FTP server.
#pragma once

#include "support/ftp_script.h"
#include "support/sockets.h"

#include <optional>
#include <string>
#include <string_view>

namespace support {

class Connection;
class TlsServer;
class Transport;

class FtpSession
{
public:
    // tls: null without TLS.
    FtpSession(Connection& connection, FtpScript& script, const TlsServer* tls);

    // To the end of the conversation.
    void run();

private:
    std::optional<std::string> readLine();
    // Does what the script says there, and gives the reply; false: the connection is to end.
    bool pass(const std::string& point, const std::string& reply);
    bool pass(const std::string& point) { return pass(point, ""); }
    bool handle(const std::string& command, const std::string& argument);
    std::string replyTo(const std::string& command, const std::string& argument);
    std::string listen(bool extended);
    bool store(const std::string& name);
    bool receive(Transport& data, std::size_t index);
    bool act(const FtpScript::Step& step);
    std::string pathOf(const std::string& name) const;

    Connection& connection_;
    FtpScript& script_;
    const TlsServer* tls_;
    std::string buffer_;
    std::string directory_ = "/";
    std::string user_;
    std::string type_;
    bool protectedData_ = false;
    std::optional<LoopbackPort> passive_;
    Transport* data_ = nullptr; // while bytes come
};

} // namespace support
