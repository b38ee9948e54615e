// Locks with scoped guards, and the mutex that serves in the order of arrival.
#include "mdp_thread.h"

#include "support/wait.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::waitUntil;

timespec inSeconds(long seconds)
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += seconds;
    return time;
}

pid_t ownId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool sleeps(pid_t task)
{
    std::ifstream file("/proc/self/task/" + std::to_string(task) + "/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, 6, "State:") == 0) {
            return line.find('S', 6) != std::string::npos;
        }
    }
    return false;
}

} // namespace

TEST(Lock, keepsOthersOut)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    MdpMutex mutex;
    long plain = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&mutex, &plain] {
            for (int round = 0; round < kRounds; ++round) {
                const MdpLock lock(mutex);
                ++plain;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(plain, kThreads * kRounds);
}

TEST(Lock, unlocksAndLocksAgain)
{
    MdpMutex mutex;
    const auto isFree = [&mutex] {
        if (pthread_mutex_trylock(&mutex.native()) != 0) {
            return false;
        }
        pthread_mutex_unlock(&mutex.native());
        return true;
    };
    {
        MdpLock lock(mutex);
        EXPECT_TRUE(lock.ownsLock());
        EXPECT_FALSE(isFree());
        lock.unlock();
        EXPECT_FALSE(lock.ownsLock());
        EXPECT_TRUE(isFree());
        lock.lock();
        EXPECT_TRUE(lock.ownsLock());
        EXPECT_FALSE(isFree());
    }
    EXPECT_TRUE(isFree());
    {
        MdpLock lock(mutex);
        lock.unlock();
    }
    EXPECT_TRUE(isFree());
}

TEST(Lock, waitEndsAtItsDeadlineWithTheMutexHeld)
{
    MdpMutex mutex;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    MdpLock lock(mutex);
    const timespec past = inSeconds(-1);
    EXPECT_EQ(lock.wait(condition, &past), ETIMEDOUT);
    EXPECT_TRUE(lock.ownsLock());
    EXPECT_EQ(pthread_mutex_trylock(&mutex.native()), EBUSY);
}

TEST(Lock, waitReleasesTheMutexAndReturnsZeroWhenSignalled)
{
    const timespec farAway = inSeconds(60);
    for (const timespec* deadline : {&farAway, static_cast<const timespec*>(nullptr)}) {
        MdpMutex mutex({7, "waiting"});
        pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
        bool ready = false;
        std::thread signaller;
        {
            MdpLock lock(mutex);
            signaller = std::thread([&] {
                const MdpLock inner(mutex); // only possible during the wait
                ready = true;
                pthread_cond_signal(&condition);
            });
            while (!ready) {
                ASSERT_EQ(lock.wait(condition, deadline), 0);
            }
            EXPECT_EQ(pthread_mutex_trylock(&mutex.native()), EBUSY);
        }
        signaller.join();
    }
}

TEST(FairMutex, keepsOthersOut)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 3000;
    MdpFairMutex mutex;
    long plain = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&mutex, &plain] {
            for (int round = 0; round < kRounds; ++round) {
                MdpFairLock lock(mutex);
                ++plain;
                lock.unlock();
                lock.lock();
                ++plain;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(plain, 2 * kThreads * kRounds);
}

TEST(FairMutex, servesInTheOrderOfArrival)
{
    constexpr int kThreads = 6;
    MdpFairMutex mutex;
    std::string order; // guarded by mutex
    std::vector<std::thread> threads;
    {
        const MdpFairLock held(mutex);
        for (int i = 0; i < kThreads; ++i) {
            std::atomic<pid_t> task{0};
            threads.emplace_back([&mutex, &order, &task, i] {
                task = ownId();
                const MdpFairLock lock(mutex);
                order += static_cast<char>('a' + i);
            });
            // It has come when it sleeps: the mutex is the only thing that it waits for.
            ASSERT_TRUE(waitUntil([&task] { return task != 0 && sleeps(task); }));
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(order, "abcdef");
}

TEST(FairMutex, whoReleasesAndAsksAgainQueuesBehindThoseWhoWait)
{
    MdpFairMutex mutex;
    std::string order; // guarded by mutex
    std::atomic<pid_t> task{0};
    MdpFairLock greedy(mutex);
    std::thread patient([&] {
        task = ownId();
        const MdpFairLock lock(mutex);
        order += 'p';
    });
    ASSERT_TRUE(waitUntil([&task] { return task != 0 && sleeps(task); }));
    order += 'g';
    greedy.unlock();
    greedy.lock();
    order += 'g';
    greedy.unlock();
    patient.join();
    EXPECT_EQ(order, "gpg");
}

TEST(FairMutex, aThreadAtFullSpeedDoesNotStarveAnother)
{
    MdpFairMutex mutex;
    std::atomic<bool> stop{false};
    std::atomic<long> passes{0};
    std::thread greedy([&] {
        while (!stop) {
            const MdpFairLock lock(mutex);
            ++passes;
        }
    });
    ASSERT_TRUE(waitUntil([&passes] { return passes > 0; }));
    constexpr std::size_t kRequests = 501;
    std::vector<long> passesDuringRequest;
    for (std::size_t i = 0; i < kRequests; ++i) {
        const long before = passes;
        const MdpFairLock lock(mutex);
        passesDuringRequest.push_back(passes - before);
    }
    stop = true;
    greedy.join();
    // The median, for the scheduler may stop this thread between the count and the request. One pass is under
    // way when the request comes; one more may come in between.
    std::sort(passesDuringRequest.begin(), passesDuringRequest.end());
    EXPECT_LE(passesDuringRequest[kRequests / 2], 2);
}
