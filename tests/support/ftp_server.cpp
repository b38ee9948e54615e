#include "support/ftp_server.h"

#include "support/connection_pool.h"
#include "support/ftp_session.h"
#include "support/tls_server.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include <openssl/evp.h>

namespace support {

class FtpServer::Impl
{
public:
    explicit Impl(std::optional<Tls> tls)
        : tls_(tls ? std::make_unique<TlsServer>(std::move(*tls)) : nullptr),
          pool_([this](Connection& connection) { serve(connection); })
    {
    }
    // Threads use everything here, so they end first.
    ~Impl() { pool_.stop(); }

    FtpScript& script() { return script_; }
    ConnectionPool& pool() { return pool_; }

private:
    void serve(Connection& connection)
    {
        ConnectionInfo facts;
        const bool established = !tls_ || tls_->establish(connection.transport(), facts);
        connection.update([&](ConnectionInfo& info) {
            facts.index = info.index;
            info = facts;
            info.established = established;
        });
        if (established) {
            FtpSession(connection, script_, tls_.get()).run();
        }
    }

    std::unique_ptr<TlsServer> tls_;
    FtpScript script_;
    ConnectionPool pool_;
};

FtpServer::FtpServer() : impl_(std::make_unique<Impl>(std::nullopt)) {}

FtpServer::FtpServer(Tls tls) : impl_(std::make_unique<Impl>(std::move(tls))) {}

FtpServer::~FtpServer() = default;

void FtpServer::account(std::string user, std::string password)
{
    impl_->script().change([&](FtpScript& script) {
        script.user = std::move(user);
        script.password = std::move(password);
    });
}

void FtpServer::directory(std::string path)
{
    impl_->script().change([&](FtpScript& script) { script.directories.insert(std::move(path)); });
}

void FtpServer::answer(std::string point, std::string reply)
{
    impl_->script().change(
        [&](FtpScript& script) { script.steps[std::move(point)].reply = std::move(reply); });
}

void FtpServer::stall(std::string point)
{
    wait(std::move(point), Gate());
}

void FtpServer::wait(std::string point, Gate gate)
{
    impl_->script().change([&](FtpScript& script) {
        FtpScript::Step& step = script.steps[std::move(point)];
        step.action = FtpScript::Action::Wait;
        step.gate = std::move(gate);
    });
}

void FtpServer::close(std::string point)
{
    impl_->script().change(
        [&](FtpScript& script) { script.steps[std::move(point)].action = FtpScript::Action::Close; });
}

void FtpServer::reset(std::string point)
{
    impl_->script().change(
        [&](FtpScript& script) { script.steps[std::move(point)].action = FtpScript::Action::Reset; });
}

void FtpServer::dataPoint(std::uint64_t bytes)
{
    impl_->script().change([&](FtpScript& script) { script.dataPoint = bytes; });
}

void FtpServer::plainDataOnly()
{
    impl_->script().change([](FtpScript& script) { script.plainDataOnly = true; });
}

std::uint16_t FtpServer::port() const
{
    return impl_->pool().port();
}

std::string FtpServer::host() const
{
    return "127.0.0.1:" + std::to_string(port());
}

std::vector<std::string> FtpServer::commands() const
{
    return impl_->script().look([](const FtpScript& script) { return script.commands; });
}

bool FtpServer::hasCommand(const std::string& line) const
{
    const std::vector<std::string> lines = commands();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::vector<FtpUpload> FtpServer::uploads() const
{
    return impl_->script().look([](const FtpScript& script) { return script.uploads; });
}

std::vector<std::string> FtpServer::directories() const
{
    return impl_->script().look([](const FtpScript& script) { return script.made; });
}

std::vector<ConnectionInfo> FtpServer::connections() const
{
    return impl_->pool().infos();
}

bool FtpServer::waitForPoint(const std::string& point, std::chrono::milliseconds deadline) const
{
    return impl_->script().waitFor(
        [&point](const FtpScript& script) { return script.points.count(point) != 0; }, deadline);
}

bool FtpServer::waitForBytes(std::uint64_t count, std::chrono::milliseconds deadline) const
{
    return impl_->script().waitFor(
        [count](const FtpScript& script) {
            return std::any_of(script.uploads.begin(), script.uploads.end(),
                               [count](const FtpUpload& upload) { return upload.bytes >= count; });
        },
        deadline);
}

bool FtpServer::waitForOpenConnections(std::size_t count, std::chrono::milliseconds deadline) const
{
    return impl_->pool().waitForOpen(count, deadline);
}

struct Digest::State
{
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(), EVP_MD_CTX_free};
};

Digest::Digest() : state_(std::make_unique<State>())
{
    if (EVP_DigestInit_ex(state_->context.get(), EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("no SHA-256");
    }
}

Digest::~Digest() = default;
Digest::Digest(Digest&&) noexcept = default;
Digest& Digest::operator=(Digest&&) noexcept = default;

void Digest::add(const void* bytes, std::size_t count)
{
    EVP_DigestUpdate(state_->context.get(), bytes, count);
}

std::string Digest::finish()
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
    unsigned int size = 0;
    EVP_DigestFinal_ex(state_->context.get(), value.data(), &size);
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        text += kDigits[value[i] / 16U];
        text += kDigits[value[i] % 16U];
    }
    return text;
}

std::string sha256Of(std::string_view bytes)
{
    Digest digest;
    digest.add(bytes.data(), bytes.size());
    return digest.finish();
}

} // namespace support
