// Streams on media volumes and several threads: a close while another thread is inside an operation.
#include "mdc_hlp_url_nvol2.h"

#include "support/descriptors.h"
#include "support/random.h"
#include "support/volume.h"
#include "support/wait.h"

#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::Volume;

// A content from which each piece tells whether it stands at its place.
std::string patternOf(std::size_t size)
{
    std::string content(size, '\0');
    for (std::size_t index = 0; index < size; ++index) {
        content[index] = static_cast<char>(index * 31 + index / 251);
    }
    return content;
}

class VolumeStreamThreads : public testing::Test
{
protected:
    VolumeStreamThreads() { volume.dir().write("f", content); }

    // Reads until the stream is closed; what is read must be the content from its start on.
    static void readOn(MdchUrlNvol2& stream, const std::string& content, std::atomic<std::size_t>& total)
    {
        std::vector<unsigned char> buffer(1000);
        for (int got = 1; got > 0;) {
            got = stream.read(buffer.data(), static_cast<unsigned int>(buffer.size()));
            const std::string piece(buffer.begin(), buffer.begin() + got);
            ASSERT_EQ(content.compare(total, piece.size(), piece), 0) << "at " << total;
            total += piece.size();
        }
    }

    const std::string content = patternOf(2'000'000);
    Volume volume;
};

TEST_F(VolumeStreamThreads, aCloseEndsAReadInAnotherThread)
{
    const auto before = support::openDescriptors();
    std::size_t cut = 0;
    for (int round = 0; round < support::randomRounds(300); ++round) {
        MdchUrlNvol2 stream;
        ASSERT_EQ(stream.open(volume.url("f").c_str(), 0), 0);
        std::atomic<std::size_t> total{0};
        std::thread reader([&] { readOn(stream, content, total); });
        ASSERT_TRUE(support::waitUntil([&] { return total > 0; }));
        EXPECT_EQ(stream.close(), 0);
        reader.join();
        EXPECT_LE(total, content.size());
        cut += total < content.size() ? 1 : 0;
        EXPECT_EQ(stream.close(), -1) << "not open any more";
    }
    EXPECT_EQ(support::openDescriptors(), before);
    EXPECT_GT(cut, 0U) << "no close came before the end";
}

TEST_F(VolumeStreamThreads, ofManyClosesOneFindsTheFile)
{
    const auto before = support::openDescriptors();
    for (int round = 0; round < support::randomRounds(300); ++round) {
        MdchUrlNvol2 stream;
        ASSERT_EQ(stream.open(volume.url("f").c_str(), 0), 0);
        std::atomic<int> succeeded{0};
        std::vector<std::thread> threads;
        threads.reserve(4);
        for (int index = 0; index < 4; ++index) {
            threads.emplace_back([&] { succeeded += stream.close() == 0 ? 1 : 0; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(succeeded, 1);
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST_F(VolumeStreamThreads, eachOperationMayMeetAClose)
{
    for (int round = 0; round < support::randomRounds(300); ++round) {
        MdchUrlNvol2 stream;
        ASSERT_EQ(stream.open(volume.url("f").c_str(), 0), 0);
        std::atomic<bool> started{false};
        std::thread user([&] {
            bool isOpen = true;
            while (isOpen) {
                unsigned char byte = 0;
                stream.read(&byte, 1);
                stream.getc();
                stream.seek(5000, 0);
                stream.size();
                stream.error();
                stream.eof();
                stream.clearerr();
                isOpen = stream.tell() >= 0;
                started = true;
            }
        });
        ASSERT_TRUE(support::waitUntil([&] { return started.load(); }));
        EXPECT_EQ(stream.close(), 0);
        user.join();
    }
}

TEST_F(VolumeStreamThreads, manyStreamsReadAtOnceWhileTheVolumeComesAndGoes)
{
    std::atomic<int> running{4};
    std::vector<std::thread> readers;
    readers.reserve(4);
    for (int index = 0; index < 4; ++index) {
        readers.emplace_back([&] {
            for (int opened = 0; opened < 20;) {
                MdchUrlNvol2 stream;
                const int result = stream.open(volume.url("f").c_str(), 0);
                ASSERT_TRUE(result == 0 || result == -ENODEV) << result;
                if (result == 0) {
                    std::atomic<std::size_t> total{0};
                    readOn(stream, content, total);
                    ASSERT_EQ(total, content.size());
                    ++opened;
                }
            }
            --running;
        });
    }
    while (running > 0) {
        EXPECT_EQ(volume.remove(), 0);
        EXPECT_EQ(nvol2VolumeAdd(volume.uuid().c_str(), volume.accessPath().c_str()), volume.id());
        std::this_thread::yield();
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
}

} // namespace
