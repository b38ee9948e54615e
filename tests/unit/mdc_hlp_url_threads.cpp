// The handle interface from many threads, on local files.
#include "mdc_hlp_url.h"

#include "support/temp_dir.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string readText(unsigned int handle, unsigned int size)
{
    std::string text(size, '\0');
    const int count = mdch_UrlRead(handle, reinterpret_cast<unsigned char*>(text.data()), size);
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return text;
}

} // namespace

TEST(HandleThreads, thousandsOfHandlesFromEightThreads)
{
    constexpr unsigned int kThreads = 8;
    constexpr unsigned int kRounds = 12;
    constexpr unsigned int kAtOnce = 50;
    const support::TempDir dir;
    std::vector<std::string> paths;
    for (unsigned int i = 0; i < kThreads; ++i) {
        paths.push_back(dir.write(std::to_string(i), "content of thread " + std::to_string(i)));
    }
    std::vector<std::vector<unsigned int>> seen(kThreads);
    std::atomic<int> faults{0};
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const std::string expected = "content of thread " + std::to_string(i);
            for (unsigned int round = 0; round < kRounds; ++round) {
                std::vector<unsigned int> handles(kAtOnce);
                for (unsigned int& handle : handles) {
                    handle = mdch_UrlOpen(paths[i].c_str(), 0);
                    faults += mdch_UrlOpen("/nowhere/at/all", 0) == 0 ? 0 : 1;
                }
                for (const unsigned int handle : handles) {
                    faults += readText(handle, 100) == expected ? 0 : 1;
                    faults += mdch_UrlSize(handle) == static_cast<long long>(expected.size()) ? 0 : 1;
                }
                for (const unsigned int handle : handles) {
                    faults += mdch_UrlClose(handle) == 0 ? 0 : 1;
                    faults += mdch_UrlClose(handle) == -1 && errno == EBADF ? 0 : 1;
                }
                seen[i].insert(seen[i].end(), handles.begin(), handles.end());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(faults, 0);

    std::vector<unsigned int> all;
    for (const auto& handles : seen) {
        EXPECT_TRUE(std::is_sorted(handles.begin(), handles.end())) << "numbers only ever grow";
        all.insert(all.end(), handles.begin(), handles.end());
    }
    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), kThreads * kRounds * kAtOnce);
    EXPECT_NE(all.front(), 0U);
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "a number was given twice";
    EXPECT_EQ(all.back() - all.front() + 1, all.size()) << "a failed open took a number";
}

TEST(HandleThreads, twoThreadsReadingOneHandleShareItsBytes)
{
    constexpr std::uint32_t kNumbers = 1U << 18U;
    constexpr unsigned int kPiece = 4096;
    std::string content(kNumbers * sizeof(std::uint32_t), '\0');
    for (std::uint32_t i = 0; i < kNumbers; ++i) {
        std::memcpy(&content[i * sizeof(i)], &i, sizeof(i));
    }
    const support::TempDir dir;
    const unsigned int handle = mdch_UrlOpen(dir.write("numbers", content).c_str(), 0);
    ASSERT_NE(handle, 0U);
    std::vector<std::string> read(2);
    std::vector<std::thread> threads;
    for (std::string& part : read) {
        threads.emplace_back([&part, handle] {
            for (;;) {
                const std::string piece = readText(handle, kPiece);
                if (piece.empty()) {
                    return;
                }
                part += piece;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mdch_UrlClose(handle), 0);

    ASSERT_EQ(read[0].size() + read[1].size(), content.size());
    std::vector<std::uint32_t> numbers;
    for (const std::string& part : read) {
        ASSERT_EQ(part.size() % kPiece, 0U);
        for (std::size_t at = 0; at < part.size(); at += sizeof(std::uint32_t)) {
            std::uint32_t number = 0;
            std::memcpy(&number, &part[at], sizeof(number));
            numbers.push_back(number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    for (std::uint32_t i = 0; i < kNumbers; ++i) {
        ASSERT_EQ(numbers[i], i) << "a byte came twice or not at all";
    }
}

TEST(HandleThreads, invalidHandlesDisturbNobody)
{
    const support::TempDir dir;
    const std::string path = dir.write("a", "hello");
    std::atomic<bool> stop{false};
    std::thread stranger([&stop] {
        unsigned char byte = 0;
        for (unsigned int handle = 0; !stop; handle = (handle + 1) % 16) {
            const unsigned int unknown = 0xf0000000U + handle;
            mdch_UrlRead(unknown, &byte, 1);
            mdch_UrlSeek(unknown, 0, 0);
            mdch_UrlClose(unknown);
        }
    });
    for (int i = 0; i < 500; ++i) {
        const unsigned int handle = mdch_UrlOpen(path.c_str(), 0);
        ASSERT_NE(handle, 0U);
        ASSERT_EQ(readText(handle, 10), "hello");
        ASSERT_EQ(mdch_UrlClose(handle), 0);
    }
    stop = true;
    stranger.join();
}

TEST(HandleThreads, closesThatRaceWithReadsOfAFileAreSafe)
{
    const support::TempDir dir;
    const std::string path = dir.write("a", std::string(1U << 20U, 'x'));
    for (int round = 0; round < 500; ++round) {
        const unsigned int handle = mdch_UrlOpen(path.c_str(), 0);
        ASSERT_NE(handle, 0U);
        std::atomic<int> reading{0};
        std::atomic<int> wrongBytes{0};
        std::vector<std::thread> readers;
        for (int i = 0; i < 2; ++i) {
            readers.emplace_back([&reading, &wrongBytes, handle] {
                ++reading;
                for (std::string piece = readText(handle, 64); !piece.empty(); piece = readText(handle, 64)) {
                    wrongBytes += piece.find_first_not_of('x') == std::string::npos ? 0 : 1;
                }
            });
        }
        while (reading < 2) {
            std::this_thread::yield();
        }
        ASSERT_EQ(mdch_UrlClose(handle), 0);
        for (std::thread& reader : readers) {
            reader.join();
        }
        ASSERT_EQ(wrongBytes, 0);
    }
}
