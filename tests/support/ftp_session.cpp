#include "support/ftp_session.h"

#include "support/connection_pool.h"
#include "support/tls_server.h"

#include <algorithm>
#include <array>
#include <cctype>

#include <poll.h>
#include <sys/socket.h>

namespace support {

namespace {

constexpr std::size_t kLongestLine = 65536;

std::string upper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return text;
}

UniqueFd acceptOne(int listener, const Event& interrupt, int peer)
{
    std::array<pollfd, 3> entries{{{listener, POLLIN, 0}, {interrupt.fd(), POLLIN, 0}, {peer, POLLRDHUP, 0}}};
    while (poll(entries.data(), entries.size(), -1) < 0 && errno == EINTR) {
    }
    return entries[0].revents != 0 ? UniqueFd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) : UniqueFd();
}

} // namespace

FtpSession::FtpSession(Connection& connection, FtpScript& script, const TlsServer* tls)
    : connection_(connection), script_(script), tls_(tls)
{
}

void FtpSession::run()
{
    if (!pass(FtpServer::greeting, "220 ready")) {
        return;
    }
    for (std::optional<std::string> line = readLine(); line; line = readLine()) {
        script_.change([&line](FtpScript& script) { script.commands.push_back(*line); });
        const std::size_t blank = std::min(line->find(' '), line->size());
        const std::string argument = blank < line->size() ? line->substr(blank + 1) : "";
        if (!handle(upper(line->substr(0, blank)), argument)) {
            return;
        }
    }
}

std::optional<std::string> FtpSession::readLine()
{
    for (;;) {
        const std::size_t end = buffer_.find('\n');
        if (end != std::string::npos) {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            line.erase(line.find_last_not_of('\r') + 1);
            return line;
        }
        std::array<char, 4096> part{};
        const std::ptrdiff_t got = connection_.transport().read(part.data(), part.size());
        if (got <= 0 || buffer_.size() > kLongestLine) {
            return std::nullopt;
        }
        buffer_.append(part.data(), static_cast<std::size_t>(got));
    }
}

bool FtpSession::act(const FtpScript::Step& step)
{
    switch (step.action) {
    case FtpScript::Action::Wait:
        return connection_.transport().pause(step.gate.fd(), std::nullopt) == Transport::Pause::Signalled;
    case FtpScript::Action::Reset:
        if (data_ != nullptr) {
            data_->reset();
        }
        connection_.transport().reset();
        return false;
    case FtpScript::Action::Close:
        return false;
    case FtpScript::Action::GoOn:
        break;
    }
    return true;
}

bool FtpSession::pass(const std::string& point, const std::string& reply)
{
    const FtpScript::Step step = script_.arriveAt(point);
    if (!act(step)) {
        return false;
    }
    const std::string text = step.reply.value_or(reply);
    return text.empty() || connection_.transport().write(text + "\r\n");
}

bool FtpSession::handle(const std::string& command, const std::string& argument)
{
    if (command == "STOR") {
        return store(argument);
    }
    // Decided here, so that a scripted refusal changes nothing.
    const bool scripted = script_.look([&command](const FtpScript& script) {
        const auto found = script.steps.find(command);
        return found != script.steps.end() && found->second.reply.has_value();
    });
    return pass(command, scripted ? "" : replyTo(command, argument)) && command != "QUIT";
}

std::string FtpSession::replyTo(const std::string& command, const std::string& argument)
{
    if (command == "USER") {
        user_ = argument;
        return "331 password";
    }
    if (command == "PASS") {
        const bool welcome = script_.look([&](const FtpScript& script) {
            return script.user.empty() || (script.user == user_ && script.password == argument);
        });
        return welcome ? "230 welcome" : "530 not you";
    }
    if (command == "PWD") {
        return "257 \"" + directory_ + "\"";
    }
    if (command == "CWD" || command == "MKD") {
        const std::string path = pathOf(argument);
        if (command == "MKD") {
            script_.change([&path](FtpScript& script) {
                script.directories.insert(path);
                script.made.push_back(path);
            });
            return "257 made";
        }
        const bool exists =
            script_.look([&path](const FtpScript& script) { return script.directories.count(path) != 0; });
        directory_ = exists ? path : directory_;
        return exists ? "250 there" : "550 no such directory";
    }
    if (command == "EPSV" || command == "PASV") {
        return listen(command == "EPSV");
    }
    if (command == "TYPE") {
        type_ = argument;
        return "200 so be it";
    }
    if (command == "PROT" && tls_ != nullptr) {
        const bool plainOnly = script_.look([](const FtpScript& script) { return script.plainDataOnly; });
        protectedData_ = argument == "P" && !plainOnly;
        return plainOnly ? "536 not here" : "200 so be it";
    }
    if (command == "PBSZ" && tls_ != nullptr) {
        return "200 so be it";
    }
    return command == "QUIT" ? "221 bye" : "502 unknown";
}

std::string FtpSession::listen(bool extended)
{
    passive_.emplace();
    passive_->listenSilently();
    const unsigned int port = passive_->port();
    constexpr unsigned int kByte = 256;
    return extended ? "229 here (|||" + std::to_string(port) + "|)"
                    : "227 here (127,0,0,1," + std::to_string(port / kByte) + "," +
                          std::to_string(port % kByte) + ")";
}

bool FtpSession::store(const std::string& name)
{
    const bool refused = script_.look([](const FtpScript& script) {
        const auto found = script.steps.find("STOR");
        return found != script.steps.end() && found->second.reply.has_value() &&
               found->second.reply->front() != '1';
    });
    if (!pass("STOR", "150 send it") || refused) {
        return refused;
    }
    if (!passive_) {
        return pass(FtpServer::finalReply, "425 no data connection");
    }
    const LoopbackPort port = std::move(*passive_);
    passive_.reset();
    if (!pass(FtpServer::dataConnect)) {
        return false;
    }
    UniqueFd socket = acceptOne(port.fd(), connection_.interrupt(), connection_.transport().fd());
    if (!socket) {
        return false;
    }
    Transport data(std::move(socket), connection_.interrupt());
    data_ = &data;
    std::size_t index = 0;
    script_.change([&](FtpScript& script) {
        index = script.uploads.size();
        script.uploads.emplace_back();
        script.uploads.back().path = pathOf(name);
        script.uploads.back().textTransfer = type_;
    });
    const bool goOn = receive(data, index);
    data_ = nullptr;
    data.close();
    return goOn && pass(FtpServer::finalReply, "226 got it");
}

bool FtpSession::receive(Transport& data, std::size_t index)
{
    if (!pass(FtpServer::dataHandshake)) {
        return false;
    }
    if (protectedData_) {
        ConnectionInfo facts;
        if (!tls_->establish(data, facts)) {
            return pass(FtpServer::finalReply, "522 no TLS");
        }
        script_.change([index](FtpScript& script) { script.uploads[index].encrypted = true; });
    }
    const std::uint64_t point = script_.look([](const FtpScript& script) { return script.dataPoint; });
    Digest digest;
    std::vector<char> part(std::size_t{1} << 18U);
    bool passed = false;
    for (std::uint64_t count = 0;;) {
        if (!passed && count >= point) {
            passed = true;
            if (!pass(FtpServer::data)) {
                return false;
            }
        }
        const std::uint64_t wanted =
            passed ? part.size() : std::min<std::uint64_t>(part.size(), point - count);
        const std::ptrdiff_t got = data.read(part.data(), static_cast<std::size_t>(wanted));
        if (got <= 0) {
            script_.change([&](FtpScript& script) {
                script.uploads[index].sha256 = digest.finish();
                script.uploads[index].atEnd = got == 0;
            });
            return got == 0;
        }
        digest.add(part.data(), static_cast<std::size_t>(got));
        count += static_cast<std::uint64_t>(got);
        script_.change([&](FtpScript& script) { script.uploads[index].bytes = count; });
    }
}

std::string FtpSession::pathOf(const std::string& name) const
{
    if (!name.empty() && name.front() == '/') {
        return name;
    }
    return (directory_ == "/" ? "" : directory_) + "/" + name;
}

} // namespace support
