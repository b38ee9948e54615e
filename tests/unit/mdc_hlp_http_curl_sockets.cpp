// Which sockets libcurl wants watched.

#include "mdc_hlp_http_curl_sockets.h"

#include "support/http_server.h"

#include <gtest/gtest.h>

namespace {

using support::HttpServer;
using support::Reply;

size_t pauseAtOnce(char* /*data*/, size_t /*size*/, size_t /*nmemb*/, void* /*user*/)
{
    return CURL_WRITEFUNC_PAUSE;
}

class SocketInterest : public testing::Test
{
protected:
    SocketInterest() : m_multi(curl_multi_init()), m_easy(curl_easy_init()) { m_interest.attach(m_multi); }
    ~SocketInterest() override
    {
        curl_multi_remove_handle(m_multi, m_easy);
        curl_easy_cleanup(m_easy);
        curl_multi_cleanup(m_multi);
    }

    void start(const std::string& url)
    {
        curl_easy_setopt(m_easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(m_easy, CURLOPT_WRITEFUNCTION, pauseAtOnce);
        curl_multi_add_handle(m_multi, m_easy);
    }

    // Drives the transfer until the interest is as wanted.
    template <class Condition>
    bool driveUntil(Condition condition)
    {
        return support::waitUntil([&] {
            int running = 0;
            curl_multi_socket_action(m_multi, CURL_SOCKET_TIMEOUT, 0, &running);
            std::vector<pollfd> watched;
            for (const auto& socket : m_interest.sockets()) {
                watched.push_back(socket.poll);
            }
            if (poll(watched.data(), watched.size(), 10) > 0) {
                for (const pollfd& entry : watched) {
                    if (entry.revents != 0) {
                        const int events =
                            (entry.revents & POLLOUT) != 0 ? CURL_CSELECT_OUT : CURL_CSELECT_IN;
                        curl_multi_socket_action(m_multi, entry.fd, events, &running);
                    }
                }
            }
            return condition();
        });
    }

    md::HttpSocketInterest m_interest;
    CURLM* m_multi;
    CURL* m_easy;
};

TEST_F(SocketInterest, isEmptyAtFirst)
{
    EXPECT_TRUE(m_interest.sockets().empty());
}

TEST_F(SocketInterest, watchesATransferThatWaitsForItsAnswer)
{
    HttpServer server;
    server.on("/", Reply::silence());
    start(server.url("/"));
    EXPECT_TRUE(driveUntil([&] {
        return m_interest.sockets().size() == 1 && m_interest.sockets().front().poll.events == POLLIN;
    }));
}

// Its server may hang up at any time, and poll would report that again and again.
TEST_F(SocketInterest, doesNotWatchAPausedTransfer)
{
    HttpServer server;
    server.on("/", Reply::endless());
    start(server.url("/"));
    EXPECT_TRUE(driveUntil([&] { return !m_interest.sockets().empty(); }));
    EXPECT_TRUE(driveUntil([&] { return m_interest.sockets().empty(); }));
}

TEST_F(SocketInterest, forgetsARemovedTransfer)
{
    HttpServer server;
    server.on("/", Reply::silence());
    start(server.url("/"));
    EXPECT_TRUE(driveUntil([&] { return server.requests().size() == 1; }));
    curl_multi_remove_handle(m_multi, m_easy);
    EXPECT_TRUE(m_interest.sockets().empty());
}

// What poll told of the first must not be taken for the second's.
TEST_F(SocketInterest, tellsASocketFromALaterOneOfTheSameNumber)
{
    HttpServer server;
    server.on("/", Reply::silence());
    start(server.url("/"));
    ASSERT_TRUE(
        driveUntil([&] { return server.requests().size() == 1 && m_interest.sockets().size() == 1; }));
    const md::HttpSocketInterest::Socket first = m_interest.sockets().front();
    EXPECT_TRUE(m_interest.isWatched(first.poll.fd, first.serial));

    curl_multi_remove_handle(m_multi, m_easy);
    EXPECT_FALSE(m_interest.isWatched(first.poll.fd, first.serial));
    curl_multi_add_handle(m_multi, m_easy);
    ASSERT_TRUE(
        driveUntil([&] { return server.requests().size() == 2 && m_interest.sockets().size() == 1; }));
    const md::HttpSocketInterest::Socket second = m_interest.sockets().front();
    EXPECT_TRUE(m_interest.isWatched(second.poll.fd, second.serial));
    EXPECT_FALSE(m_interest.isWatched(second.poll.fd, first.serial));
}

} // namespace
