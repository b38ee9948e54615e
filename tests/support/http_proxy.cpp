#include "support/http_proxy.h"

#include "support/connection_pool.h"
#include "support/relay.h"
#include "support/reply_plan.h"
#include "support/reply_writer.h"
#include "support/request_reader.h"
#include "support/text.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>

#include <openssl/evp.h>

namespace support {

namespace {

std::string base64(const std::string& text)
{
    std::string result((text.size() + 2) / 3 * 4 + 1, '\0'); // with the final NUL that is written, too
    const int size =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(result.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    result.resize(static_cast<std::size_t>(size));
    return result;
}

// The port of "host:port" or "[address]:port"; 0 for nonsense.
std::uint16_t portOf(std::string_view authority, std::uint16_t usual)
{
    const std::size_t colon = authority.rfind(':');
    if (colon == std::string_view::npos || authority.find(']', colon) != std::string_view::npos) {
        return usual;
    }
    std::string_view digits = authority.substr(colon + 1);
    const std::optional<std::uint64_t> port = takeNumber(digits);
    return port && digits.empty() && *port <= UINT16_MAX ? static_cast<std::uint16_t>(*port)
                                                         : std::uint16_t{0};
}

// What an origin server gets: its own form of the target, nothing that is meant for the proxy alone, and the
// wish to close behind the response, which tells where that ends.
std::string originRequest(const Request& request)
{
    std::string head = request.method + " " + (request.path.empty() ? "/" : request.path) +
                       (request.target.find('?') == std::string::npos ? "" : "?" + request.query) +
                       " HTTP/1.1\r\n";
    for (const std::string& line : request.lines) {
        const std::string_view name = headerName(line);
        if (!startsWithIgnoringCase(name, "Proxy-") && !equalIgnoringCase(name, "Connection") &&
            !equalIgnoringCase(name, "Transfer-Encoding") && !equalIgnoringCase(name, "Expect")) {
            head += line + "\r\n";
        }
    }
    if (request.hasHeader("Transfer-Encoding")) {
        head += "Content-Length: " + std::to_string(request.body.size()) + "\r\n";
    }
    return head + "Connection: close\r\n\r\n" + request.body;
}

} // namespace

class HttpProxy::Impl
{
public:
    struct Settings
    {
        std::string credentials; // "Basic ..."; empty: none required
        int missingStatus = 407;
        int wrongStatus = 407;
        std::vector<std::string> refusalLines;
        int connectRefusal = 0;
        std::string connectStatusLine = "HTTP/1.1 200 Connection established";
        std::vector<std::string> connectLines;
        bool hangUp = false;
        struct Hold
        {
            std::uint64_t bytes;
            Gate gate;
        };
        std::optional<Hold> hold;
        std::optional<std::uint64_t> garbled;
    };
    struct Counts
    {
        std::size_t tunnels = 0;
        std::size_t openTunnels = 0;
        std::size_t forwards = 0;
        std::size_t refusals = 0;
    };

    Impl() : pool_([this](Connection& connection) { serve(connection); }) {}
    ~Impl() { pool_.stop(); } // threads use everything here, so they end first

    template <typename Change>
    void change(Change how)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        how(settings_);
    }

    template <typename Change>
    void count(Change how)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        how(counts_);
        changed_.notify_all();
    }

    Counts counts() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return counts_;
    }

    std::vector<Request> requests() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

    bool waitForRequests(std::size_t wanted, std::chrono::milliseconds deadline) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, deadline, [&] { return requests_.size() >= wanted; });
    }

    bool waitForOpenTunnels(std::size_t wanted, std::chrono::milliseconds deadline) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, deadline, [&] { return counts_.openTunnels == wanted; });
    }

    ConnectionPool& pool() { return pool_; }

private:
    void serve(Connection& connection);
    bool refuse(Connection& connection, const Request& request, int status, const Settings& settings);
    void tunnel(Connection& connection, const Settings& settings, int origin, const std::string& rest);
    void forward(Connection& connection, const Settings& settings, const Request& request, int origin);
    static void disturb(Relay& relay, const Settings& settings);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Settings settings_;
    Counts counts_;
    std::vector<Request> requests_;
    ConnectionPool pool_;
};

void HttpProxy::Impl::serve(Connection& connection)
{
    RequestReader reader(connection.transport());
    for (;;) {
        std::optional<Request> request = reader.next();
        if (!request) {
            return;
        }
        request->connection = connection.index();
        Settings settings;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(*request);
            settings = settings_;
            changed_.notify_all();
        }
        if (settings.hangUp || !request->complete) {
            return;
        }
        const std::string given = request->header("Proxy-Authorization");
        int refusal = 0;
        if (!settings.credentials.empty() && given != settings.credentials) {
            refusal = given.empty() ? settings.missingStatus : settings.wrongStatus;
        }
        const bool connect = request->method == "CONNECT";
        if (refusal == 0 && connect) {
            refusal = settings.connectRefusal;
        }
        std::string_view authority = request->target;
        if (!connect && !takePrefix(authority, "http://")) {
            refusal = refusal == 0 ? 400 : refusal;
        }
        UniqueFd origin;
        if (refusal == 0) {
            try {
                origin =
                    connectLoopback(portOf(authority.substr(0, authority.find('/')), connect ? 443 : 80));
            } catch (const std::system_error&) {
                refusal = 502;
            }
        }
        if (refusal != 0) {
            if (!refuse(connection, *request, refusal, settings)) {
                return;
            }
            continue;
        }
        // Non-blocking from here on, as both ends of a relay are.
        Transport originTransport(std::move(origin), connection.interrupt());
        if (connect) {
            tunnel(connection, settings, originTransport.fd(), reader.takeRest());
        } else {
            forward(connection, settings, *request, originTransport.fd());
        }
        return;
    }
}

bool HttpProxy::Impl::refuse(Connection& connection, const Request& request, int status,
                             const Settings& settings)
{
    count([](Counts& counts) { ++counts.refusals; });
    Reply reply = Reply::error(status);
    if (status == 407) {
        reply.header("Proxy-Authenticate: Basic realm=\"proxy\"");
    }
    reply.headers(settings.refusalLines);
    const ReplyPlan plan(reply, request);
    ReplyWriter writer(connection.transport(), plan, [](std::uint64_t) {});
    return writer.send() == ReplyWriter::Result::Sent && plan.keepOpen;
}

void HttpProxy::Impl::tunnel(Connection& connection, const Settings& settings, int origin,
                             const std::string& rest)
{
    std::string head = settings.connectStatusLine + "\r\n";
    for (const std::string& line : settings.connectLines) {
        head += line + "\r\n";
    }
    count([](Counts& counts) {
        ++counts.tunnels;
        ++counts.openTunnels;
    });
    Relay relay(connection.transport().fd(), origin, connection.interrupt());
    disturb(relay, settings);
    relay.sendToOrigin(rest);
    relay.sendToClient(head + "\r\n");
    relay.run();
    count([](Counts& counts) { --counts.openTunnels; });
}

void HttpProxy::Impl::disturb(Relay& relay, const Settings& settings)
{
    if (settings.hold) {
        relay.holdAt(settings.hold->bytes, settings.hold->gate);
    }
    if (settings.garbled) {
        relay.garble(*settings.garbled);
    }
}

void HttpProxy::Impl::forward(Connection& connection, const Settings& settings, const Request& request,
                              int origin)
{
    count([](Counts& counts) { ++counts.forwards; });
    Relay relay(connection.transport().fd(), origin, connection.interrupt());
    disturb(relay, settings);
    relay.sendToOrigin(originRequest(request));
    relay.ignoreClient();
    relay.run();
}

HttpProxy::HttpProxy() : impl_(std::make_unique<Impl>()) {}

HttpProxy::~HttpProxy() = default;

void HttpProxy::requireBasic(std::string user, std::string password, int missingStatus, int wrongStatus)
{
    impl_->change([&](Impl::Settings& settings) {
        settings.credentials = "Basic " + base64(std::move(user) + ":" + std::move(password));
        settings.missingStatus = missingStatus;
        settings.wrongStatus = wrongStatus;
    });
}

void HttpProxy::refusalHeader(std::string line)
{
    impl_->change([&](Impl::Settings& settings) { settings.refusalLines.push_back(std::move(line)); });
}

void HttpProxy::refuseConnect(int status)
{
    impl_->change([&](Impl::Settings& settings) { settings.connectRefusal = status; });
}

void HttpProxy::connectHeader(std::string line)
{
    impl_->change([&](Impl::Settings& settings) { settings.connectLines.push_back(std::move(line)); });
}

void HttpProxy::connectStatusLine(std::string line)
{
    impl_->change([&](Impl::Settings& settings) { settings.connectStatusLine = std::move(line); });
}

void HttpProxy::hangUp(bool on)
{
    impl_->change([&](Impl::Settings& settings) { settings.hangUp = on; });
}

void HttpProxy::holdAt(std::uint64_t bytes, Gate gate)
{
    impl_->change([&](Impl::Settings& settings) { settings.hold = {bytes, std::move(gate)}; });
}

void HttpProxy::garble(std::uint64_t position)
{
    impl_->change([&](Impl::Settings& settings) { settings.garbled = position; });
}

void HttpProxy::passOnEverything()
{
    impl_->change([](Impl::Settings& settings) {
        settings.hold.reset();
        settings.garbled.reset();
    });
}

void HttpProxy::dropConnections()
{
    impl_->pool().interruptAll(false);
}

void HttpProxy::resetConnections()
{
    impl_->pool().interruptAll(true);
}

std::uint16_t HttpProxy::port() const
{
    return impl_->pool().port();
}

std::string HttpProxy::url() const
{
    return "http://" + host() + ":" + std::to_string(port());
}

std::vector<Request> HttpProxy::requests() const
{
    return impl_->requests();
}

bool HttpProxy::waitForRequests(std::size_t count, std::chrono::milliseconds deadline) const
{
    return impl_->waitForRequests(count, deadline);
}

std::size_t HttpProxy::tunnelCount() const
{
    return impl_->counts().tunnels;
}

std::size_t HttpProxy::openTunnels() const
{
    return impl_->counts().openTunnels;
}

bool HttpProxy::waitForOpenTunnels(std::size_t count, std::chrono::milliseconds deadline) const
{
    return impl_->waitForOpenTunnels(count, deadline);
}

std::size_t HttpProxy::forwardCount() const
{
    return impl_->counts().forwards;
}

std::size_t HttpProxy::refusalCount() const
{
    return impl_->counts().refusals;
}

std::size_t HttpProxy::connectionCount() const
{
    return impl_->pool().accepted();
}

bool HttpProxy::waitForOpenConnections(std::size_t count, std::chrono::milliseconds deadline) const
{
    return impl_->pool().waitForOpen(count, deadline);
}

} // namespace support
