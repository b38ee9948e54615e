/*
 * What tests of several threads on one stream share: a server, and ways to run and to check.
 */
#ifndef SUPPORT_RACE_H
#define SUPPORT_RACE_H

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace support {

inline const Media kRaceMedia(30);
constexpr std::uint64_t kRaceSize = 3'000'000;

inline int upTo(std::mt19937& random, int most)
{
    return std::uniform_int_distribution<int>(0, most)(random);
}

class Race : public testing::Test
{
protected:
    EngineStopped m_stopped;
    HttpServer m_server;

    void open(HttpStream& stream) const
    {
        stream.start(m_server.url("/"));
        EXPECT_EQ(stream.getResponseCode(), 200);
    }

    // What is read next must be what stands at tell(); only one thread uses the stream.
    static testing::AssertionResult standsWhereItTells(HttpStream& stream)
    {
        const long long position = stream.tell();
        const std::string bytes = stream.readSome(1000);
        const auto from = static_cast<std::uint64_t>(position);
        if (bytes.size() != std::min<std::uint64_t>(1000, from < kRaceSize ? kRaceSize - from : 0)) {
            return testing::AssertionFailure()
                   << bytes.size() << " bytes at " << position << ", error " << stream.error();
        }
        if (!kRaceMedia.matches(from, bytes)) {
            return testing::AssertionFailure() << "wrong bytes at " << position;
        }
        return testing::AssertionSuccess();
    }

    // Whether the bytes stand together anywhere in the resource: none between them is lost or doubled.
    static bool areOnePiece(const std::string& bytes, long long last)
    {
        const auto end = static_cast<std::uint64_t>(last);
        return end >= bytes.size() && kRaceMedia.matches(end - bytes.size(), bytes);
    }

    // Runs the functions at the same time, each on a thread of its own; false when one does not come back.
    static bool together(std::vector<std::function<void()>> functions)
    {
        std::atomic<std::size_t> ready{0};
        std::vector<std::future<void>> threads;
        for (auto& function : functions) {
            threads.push_back(std::async(std::launch::async, [&ready, &functions, &function] {
                ++ready;
                while (ready < functions.size()) {
                    std::this_thread::yield();
                }
                function();
            }));
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        bool inTime = true;
        for (auto& thread : threads) {
            inTime = thread.wait_until(deadline) == std::future_status::ready && inTime;
        }
        return inTime;
    }
};

} // namespace support

#endif
