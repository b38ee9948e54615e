// A scripted HTTP and HTTPS server inside the test's process, on a free port of 127.0.0.1.
//
//     support::HttpServer server;
//     server.on("/song", support::Reply().header("Content-Type: audio/mpeg").body("hello"));
//     ... let the client fetch server.url("/song") ...
//     EXPECT_EQ(server.requests().at(0).header("Range"), "bytes=5-");
//
// Every member may be called from any thread. The destructor ends everything at once, whatever the replies
// are waiting for. See reply.h for what a reply can do and README.md for examples.
#pragma once

#include "support/gate.h"
#include "support/media.h"
#include "support/reply.h"
#include "support/request.h"
#include "support/tls.h"
#include "support/wait.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace support {

class HttpServer
{
public:
    using Handler = std::function<Reply(const Request&)>;

    HttpServer();                 // http
    explicit HttpServer(Tls tls); // https
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // --- Script. Paths match the request's path; one with a "?" matches path and query. ---

    // Every request for `path` gets this reply. Replaces what was said for the path before.
    void on(std::string path, Reply reply);
    // The first request gets the first reply, and so on; the last one serves all further requests.
    void onSequence(std::string path, std::vector<Reply> replies);
    // Called for each request, on the connection's thread.
    void on(std::string path, Handler handler);
    // For all paths that have no script: 404 unless set.
    void otherwise(Handler handler);

    // For runs without end: requests are not kept from here on, and requests() and waitForRequests() see none.
    void recordNothing();

    // --- Where ---

    std::uint16_t port() const;
    std::string url(std::string_view path = "/") const; // "http://127.0.0.1:PORT/path"
    std::string urlAs(std::string_view host, std::string_view path) const;

    // --- What came ---

    // The requests so far, in the order in which their heads were complete. A request counts when its body
    // has been read, too.
    std::vector<Request> requests() const;
    std::vector<Request> requests(std::string_view path) const; // those for this path alone
    bool waitForRequests(std::size_t count, std::chrono::milliseconds deadline = defaultDeadline) const;

    std::size_t connectionCount() const; // accepted since the start
    std::size_t openConnections() const; // not yet closed by the server; it closes when the client does
    bool waitForConnections(std::size_t count, std::chrono::milliseconds deadline = defaultDeadline) const;
    // Waits for exactly `count` open connections.
    bool waitForOpenConnections(std::size_t count,
                                std::chrono::milliseconds deadline = defaultDeadline) const;
    std::vector<ConnectionInfo> connections() const;

    // --- What went ---

    // Body bytes given to the kernel (which buffers some) for all requests of `path` together.
    std::uint64_t bodyBytesSent(std::string_view path) const;
    bool waitForBodyBytes(std::string_view path, std::uint64_t count,
                          std::chrono::milliseconds deadline = defaultDeadline) const;
    // Replies of `path` that were sent to their end, or ended where their script said.
    std::size_t repliesFinished(std::string_view path) const;
    bool waitForRepliesFinished(std::string_view path, std::size_t count,
                                std::chrono::milliseconds deadline = defaultDeadline) const;

    // --- Trouble at the test's command ---

    void dropConnections();  // closes all that are open, in good order
    void resetConnections(); // ... with a reset
    void stopListening();    // further connections are refused; the port stays ours
    void listenAgain();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace support
