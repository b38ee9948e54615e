#include "support/http_server.h"

#include "support/connection_pool.h"
#include "support/reply_plan.h"
#include "support/reply_writer.h"
#include "support/request_reader.h"
#include "support/tls_server.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace support {

class HttpServer::Impl
{
public:
    explicit Impl(std::optional<Tls> tls)
        : tls_(tls ? std::make_unique<TlsServer>(std::move(*tls)) : nullptr),
          pool_([this](Connection& connection) { serve(connection); })
    {
    }
    // Threads use everything here, so they end first.
    ~Impl() { pool_.stop(); }

    struct Traffic
    {
        std::uint64_t bodyBytes = 0;
        std::size_t finished = 0;
    };

    void setScript(std::string path, Handler handler)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        scripts_[std::move(path)] = std::make_shared<Handler>(std::move(handler));
    }

    void setFallback(Handler handler)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        fallback_ = std::make_shared<Handler>(std::move(handler));
    }

    template <typename Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds deadline) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, deadline, predicate);
    }

    std::vector<Request> requests(const std::function<bool(const Request&)>& wanted) const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Request> result;
        std::copy_if(requests_.begin(), requests_.end(), std::back_inserter(result), wanted);
        return result;
    }

    Traffic traffic(std::string_view path) const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return trafficLocked(path);
    }

    // The caller holds the mutex.
    Traffic trafficLocked(std::string_view path) const
    {
        const auto found = traffic_.find(path);
        return found == traffic_.end() ? Traffic() : found->second;
    }
    std::size_t requestCountLocked() const { return requests_.size(); }

    void recordNothing()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        recordsRequests_ = false;
    }

    bool usesTls() const { return tls_ != nullptr; }
    ConnectionPool& pool() { return pool_; }

private:
    void serve(Connection& connection);
    bool answer(Connection& connection, const Request& request);
    void record(Connection& connection, const Request& request);
    Reply replyTo(const Request& request);
    void count(const std::string& path, std::uint64_t bodyBytes, std::size_t finished);

    std::unique_ptr<TlsServer> tls_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, std::shared_ptr<Handler>, std::less<>> scripts_;
    std::shared_ptr<Handler> fallback_;
    std::vector<Request> requests_;
    bool recordsRequests_ = true;
    std::map<std::string, Traffic, std::less<>> traffic_;
    ConnectionPool pool_;
};

void HttpServer::Impl::serve(Connection& connection)
{
    ConnectionInfo facts;
    const bool established = !tls_ || tls_->establish(connection.transport(), facts);
    connection.update([&](ConnectionInfo& info) {
        facts.index = info.index;
        info = facts;
        info.established = established;
    });
    if (!established) {
        return;
    }
    RequestReader reader(connection.transport());
    for (;;) {
        std::optional<Request> request = reader.next();
        if (!request) {
            return;
        }
        request->connection = connection.index();
        record(connection, *request);
        if (!request->complete || !answer(connection, *request)) {
            return;
        }
    }
}

// False when the connection is to end.
bool HttpServer::Impl::answer(Connection& connection, const Request& request)
{
    const ReplyPlan plan(replyTo(request), request);
    ReplyWriter writer(connection.transport(), plan,
                       [&](std::uint64_t bodyBytes) { count(request.path, bodyBytes, 0); });
    const ReplyWriter::Result result = writer.send();
    if (result != ReplyWriter::Result::Broken) {
        count(request.path, 0, 1);
    }
    return result == ReplyWriter::Result::Sent && plan.keepOpen;
}

void HttpServer::Impl::record(Connection& connection, const Request& request)
{
    connection.update([](ConnectionInfo& info) { ++info.requests; });
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!recordsRequests_) {
        return;
    }
    requests_.push_back(request);
    changed_.notify_all();
}

Reply HttpServer::Impl::replyTo(const Request& request)
{
    std::shared_ptr<Handler> handler;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        auto found = scripts_.find(request.path + "?" + request.query);
        if (found == scripts_.end()) {
            found = scripts_.find(request.path);
        }
        handler = found == scripts_.end() ? fallback_ : found->second;
    }
    if (!handler) {
        return Reply::error(404);
    }
    try {
        return (*handler)(request);
    } catch (const std::exception& error) {
        return Reply::error(500).body(std::string("the test's handler failed: ") + error.what() + "\n");
    }
}

void HttpServer::Impl::count(const std::string& path, std::uint64_t bodyBytes, std::size_t finished)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Traffic& traffic = traffic_[path];
    traffic.bodyBytes += bodyBytes;
    traffic.finished += finished;
    changed_.notify_all();
}

HttpServer::HttpServer() : impl_(std::make_unique<Impl>(std::nullopt)) {}

HttpServer::HttpServer(Tls tls) : impl_(std::make_unique<Impl>(std::move(tls))) {}

HttpServer::~HttpServer() = default;

void HttpServer::on(std::string path, Reply reply)
{
    impl_->setScript(std::move(path), [reply = std::move(reply)](const Request&) { return reply; });
}

void HttpServer::onSequence(std::string path, std::vector<Reply> replies)
{
    if (replies.empty()) {
        throw std::invalid_argument("a sequence needs a reply");
    }
    struct Sequence
    {
        std::mutex mutex;
        std::vector<Reply> replies;
        std::size_t next = 0;
    };
    auto sequence = std::make_shared<Sequence>();
    sequence->replies = std::move(replies);
    impl_->setScript(std::move(path), [sequence](const Request&) {
        const std::lock_guard<std::mutex> lock(sequence->mutex);
        const std::size_t index = std::min(sequence->next++, sequence->replies.size() - 1);
        return sequence->replies[index];
    });
}

void HttpServer::on(std::string path, Handler handler)
{
    impl_->setScript(std::move(path), std::move(handler));
}

void HttpServer::otherwise(Handler handler)
{
    impl_->setFallback(std::move(handler));
}

void HttpServer::recordNothing()
{
    impl_->recordNothing();
}

std::uint16_t HttpServer::port() const
{
    return impl_->pool().port();
}

std::string HttpServer::url(std::string_view path) const
{
    return urlAs("127.0.0.1", path);
}

std::string HttpServer::urlAs(std::string_view host, std::string_view path) const
{
    std::string url = impl_->usesTls() ? "https://" : "http://";
    url.append(host).append(":").append(std::to_string(port())).append(path);
    return url;
}

std::vector<Request> HttpServer::requests() const
{
    return impl_->requests([](const Request&) { return true; });
}

std::vector<Request> HttpServer::requests(std::string_view path) const
{
    return impl_->requests([path](const Request& request) { return request.path == path; });
}

bool HttpServer::waitForRequests(std::size_t count, std::chrono::milliseconds deadline) const
{
    return impl_->waitFor([&] { return impl_->requestCountLocked() >= count; }, deadline);
}

std::size_t HttpServer::connectionCount() const
{
    return impl_->pool().accepted();
}

std::size_t HttpServer::openConnections() const
{
    return impl_->pool().open();
}

bool HttpServer::waitForConnections(std::size_t count, std::chrono::milliseconds deadline) const
{
    return impl_->pool().waitForAccepted(count, deadline);
}

bool HttpServer::waitForOpenConnections(std::size_t count, std::chrono::milliseconds deadline) const
{
    return impl_->pool().waitForOpen(count, deadline);
}

std::vector<ConnectionInfo> HttpServer::connections() const
{
    return impl_->pool().infos();
}

std::uint64_t HttpServer::bodyBytesSent(std::string_view path) const
{
    return impl_->traffic(path).bodyBytes;
}

bool HttpServer::waitForBodyBytes(std::string_view path, std::uint64_t count,
                                  std::chrono::milliseconds deadline) const
{
    return impl_->waitFor([&] { return impl_->trafficLocked(path).bodyBytes >= count; }, deadline);
}

std::size_t HttpServer::repliesFinished(std::string_view path) const
{
    return impl_->traffic(path).finished;
}

bool HttpServer::waitForRepliesFinished(std::string_view path, std::size_t count,
                                        std::chrono::milliseconds deadline) const
{
    return impl_->waitFor([&] { return impl_->trafficLocked(path).finished >= count; }, deadline);
}

void HttpServer::dropConnections()
{
    impl_->pool().interruptAll(false);
}

void HttpServer::resetConnections()
{
    impl_->pool().interruptAll(true);
}

void HttpServer::stopListening()
{
    impl_->pool().stopListening();
}

void HttpServer::listenAgain()
{
    impl_->pool().listenAgain();
}

} // namespace support
