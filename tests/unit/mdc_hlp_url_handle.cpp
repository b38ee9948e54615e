// The holder of a stream's open file or socket.
#include "mdc_hlp_url_handle.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace {

// What stands for a file: the closer notes itself in it.
struct File
{
    int result = 0;
    std::atomic<int> timesClosed{0};
};

std::atomic<int> closedWithNull{0};

int closeFile(File* file)
{
    if (file == nullptr) {
        ++closedWithNull;
        return -7;
    }
    ++file->timesClosed;
    return file->result;
}

using Holder = md::SharedHandle<File>;

class SharedHandle : public testing::Test
{
protected:
    void SetUp() override { closedWithNull = 0; }

    File m_file;
    File m_other;
    Holder m_holder{closeFile};
};

} // namespace

TEST_F(SharedHandle, beginsWithNothingOpen)
{
    EXPECT_EQ(m_holder.use(), nullptr);
    EXPECT_EQ(closedWithNull, 0);
}

TEST_F(SharedHandle, givesWhatItHolds)
{
    m_holder.replace(&m_file);
    EXPECT_EQ(m_holder.use().get(), &m_file);
    EXPECT_EQ(m_holder.use().get(), &m_file);
    EXPECT_EQ(m_file.timesClosed, 0);
}

TEST_F(SharedHandle, closeGivesTheClosersResult)
{
    m_file.result = -5;
    m_holder.replace(&m_file);
    EXPECT_EQ(m_holder.close(), -5);
    EXPECT_EQ(m_file.timesClosed, 1);
    EXPECT_EQ(m_holder.use(), nullptr);
}

TEST_F(SharedHandle, closeWithNothingOpenAsksTheCloser)
{
    EXPECT_EQ(m_holder.close(), -7);
    EXPECT_EQ(closedWithNull, 1);
    m_holder.replace(&m_file);
    m_holder.close();
    EXPECT_EQ(m_holder.close(), -7) << "a second close has nothing open";
    EXPECT_EQ(closedWithNull, 2);
    EXPECT_EQ(m_file.timesClosed, 1);
}

TEST_F(SharedHandle, closeDuringAnOperationIsCarriedOutBehindIt)
{
    m_file.result = -5;
    m_holder.replace(&m_file);
    std::shared_ptr<File> operation = m_holder.use();
    EXPECT_EQ(m_holder.close(), 0) << "nobody knows yet";
    EXPECT_EQ(m_file.timesClosed, 0);
    EXPECT_EQ(m_holder.use(), nullptr) << "nobody joins any more";
    std::shared_ptr<File> second = operation;
    operation.reset();
    EXPECT_EQ(m_file.timesClosed, 0);
    second.reset();
    EXPECT_EQ(m_file.timesClosed, 1);
}

TEST_F(SharedHandle, closeBehindAnOperationThatHasEndedGivesTheResult)
{
    m_file.result = -5;
    m_holder.replace(&m_file);
    m_holder.use().reset();
    EXPECT_EQ(m_holder.close(), -5);
}

TEST_F(SharedHandle, replaceClosesTheFormerOne)
{
    m_holder.replace(&m_file);
    m_holder.replace(&m_other);
    EXPECT_EQ(m_file.timesClosed, 1);
    EXPECT_EQ(m_other.timesClosed, 0);
    EXPECT_EQ(m_holder.use().get(), &m_other);
}

TEST_F(SharedHandle, replaceDuringAnOperationClosesBehindIt)
{
    m_holder.replace(&m_file);
    std::shared_ptr<File> operation = m_holder.use();
    m_holder.replace(&m_other);
    EXPECT_EQ(m_file.timesClosed, 0);
    operation.reset();
    EXPECT_EQ(m_file.timesClosed, 1);
}

TEST_F(SharedHandle, replaceByNullLeavesNothingOpen)
{
    m_holder.replace(&m_file);
    m_holder.replace(nullptr);
    EXPECT_EQ(m_file.timesClosed, 1);
    EXPECT_EQ(m_holder.use(), nullptr);
    EXPECT_EQ(closedWithNull, 0);
}

TEST_F(SharedHandle, theDestructorCloses)
{
    {
        Holder holder(closeFile);
        holder.replace(&m_file);
    }
    EXPECT_EQ(m_file.timesClosed, 1);
    {
        const Holder empty(closeFile);
    }
    EXPECT_EQ(closedWithNull, 0);
}

TEST_F(SharedHandle, anOperationMayOutliveTheHolder)
{
    auto holder = std::make_unique<Holder>(closeFile);
    holder->replace(&m_file);
    std::shared_ptr<File> operation = holder->use();
    holder.reset();
    EXPECT_EQ(m_file.timesClosed, 0);
    operation.reset();
    EXPECT_EQ(m_file.timesClosed, 1);
}

TEST_F(SharedHandle, closesOnceHoweverManyThreadsAreAtIt)
{
    constexpr int kUsers = 3;
    for (int round = 0; round < 1000; ++round) {
        File file;
        file.result = -5;
        m_holder.replace(&file);
        std::atomic<int> ready{0};
        std::vector<std::future<int>> threads;
        threads.reserve(kUsers + 2);
        for (int i = 0; i < kUsers + 2; ++i) {
            threads.push_back(std::async(std::launch::async, [&, closes = i >= kUsers] {
                ++ready;
                while (ready < kUsers + 2) {
                    std::this_thread::yield();
                }
                if (closes) {
                    return m_holder.close();
                }
                const std::shared_ptr<File> operation = m_holder.use();
                EXPECT_TRUE(operation == nullptr || operation->timesClosed == 0);
                return 1;
            }));
        }
        int withoutResult = 0;
        int withResult = 0;
        int late = 0;
        for (auto& thread : threads) {
            const int result = thread.get();
            withoutResult += result == 0 ? 1 : 0;
            withResult += result == -5 ? 1 : 0;
            late += result == -7 ? 1 : 0;
        }
        ASSERT_EQ(file.timesClosed, 1);
        ASSERT_EQ(withResult + withoutResult, 1) << "one of the two closes found it";
        ASSERT_EQ(late, 1) << "the other did not";
    }
}
