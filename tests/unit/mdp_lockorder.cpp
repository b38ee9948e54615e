// The order in which locks are taken, which debug builds check on every thread.
#include "mdp_lockorder.h"

#include "mdc_hlp_http_curl.h"
#include "mdp_thread.h"

#include <boost/make_shared.hpp>
#include <cerrno>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr MdpLockLevel kFirst{1, "first"};
constexpr MdpLockLevel kSecond{2, "second"};
constexpr MdpLockLevel kThird{3, "third"};

struct RecursiveMutex
{
    RecursiveMutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&native, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~RecursiveMutex() { pthread_mutex_destroy(&native); }
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    pthread_mutex_t native{};
};

// The four locks of the HTTP engine, each as the engine takes it.
class EngineLocks
{
public:
    EngineLocks() { pthread_mutex_init(&m_waiter.mutex, nullptr); }
    ~EngineLocks() { pthread_mutex_destroy(&m_waiter.mutex); }
    EngineLocks(const EngineLocks&) = delete;
    EngineLocks& operator=(const EngineLocks&) = delete;

    static constexpr std::size_t kCount = 4;
    static const char* name(std::size_t index)
    {
        constexpr const char* kNames[kCount] = {"engine", "registry", "descriptor", "select waiter"};
        return kNames[index];
    }

    // Takes the lock for the time of the inner call.
    void within(std::size_t index, const std::function<void()>& inner)
    {
        switch (index) {
        case 0: {
            const MdpFairLock lock(m_engine);
            inner();
            break;
        }
        case 1: {
            const MdpLock lock(m_registry);
            inner();
            break;
        }
        case 2: {
            const MdpLock lock = md::lockDescriptor(*m_descriptor);
            inner();
            break;
        }
        default: {
            const MdpLock lock(m_waiter.mutex, md::kSelectWaiterLock);
            inner();
            break;
        }
        }
    }

private:
    MdpFairMutex m_engine{md::kEngineLock};
    MdpMutex m_registry{md::kRegistryLock};
    md::MdchDescriptorPtr m_descriptor = boost::make_shared<md::MdchCurlDescriptor_struct>();
    md::MdchHttpSelect_struct m_waiter;
};

class LockOrder : public testing::Test
{
protected:
    LockOrder() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// What aborts in debug builds; release builds hold no check.
class LockOrderDeathTest : public LockOrder
{
};

} // namespace

TEST_F(LockOrder, engineRegistryDescriptorAndWaiterMayBeTakenInThisOrder)
{
    EngineLocks locks;
    int reached = 0;
    locks.within(
        0, [&] { locks.within(1, [&] { locks.within(2, [&] { locks.within(3, [&] { ++reached; }); }); }); });
    EXPECT_EQ(reached, 1);
}

TEST_F(LockOrder, levelsMayBeLeftOut)
{
    for (std::size_t outer = 0; outer < EngineLocks::kCount; ++outer) {
        for (std::size_t inner = outer + 1; inner < EngineLocks::kCount; ++inner) {
            EngineLocks locks;
            bool reached = false;
            locks.within(outer, [&] { locks.within(inner, [&] { reached = true; }); });
            EXPECT_TRUE(reached) << EngineLocks::name(outer) << ", " << EngineLocks::name(inner);
        }
    }
}

TEST_F(LockOrder, anEarlierLockMayBeTakenOnceTheLaterIsReleased)
{
    MdpMutex first(kFirst);
    MdpMutex second(kSecond);
    {
        const MdpLock lock(second);
    }
    MdpLock lock(first);
    MdpLock later(second);
    lock.unlock();
    later.unlock();
    lock.lock();
    EXPECT_TRUE(lock.ownsLock());
}

TEST_F(LockOrder, locksMayBeReleasedInAnyOrder)
{
    MdpMutex first(kFirst);
    MdpMutex second(kSecond);
    MdpMutex third(kThird);
    for (int round = 0; round < 100; ++round) {
        MdpLock one(first);
        MdpLock two(second);
        MdpLock three(third);
        one.unlock();
        three.unlock();
        two.unlock();
    }
    const MdpLock again(first); // nothing is left that would forbid it
    EXPECT_TRUE(again.ownsLock());
}

TEST_F(LockOrder, aRecursiveMutexMayBeTakenAgainWhileALaterLockIsHeld)
{
    RecursiveMutex mutex;
    MdpMutex later(kSecond);
    const MdpLock outer(mutex.native, kFirst);
    const MdpLock between(later);
    const MdpLock inner(mutex.native, kFirst);
    EXPECT_TRUE(inner.ownsLock());
}

TEST_F(LockOrder, locksWithoutALevelAreNotTracked)
{
    MdpMutex plain;
    MdpMutex another;
    MdpMutex second(kSecond);
    const MdpLock held(second);
    const MdpLock one(plain);
    const MdpLock two(another);
    EXPECT_TRUE(two.ownsLock());
}

TEST_F(LockOrder, isTrackedForEachThreadAlone)
{
    MdpMutex first(kFirst);
    MdpMutex second(kSecond);
    const MdpLock held(second);
    bool taken = false;
    std::thread other([&] {
        const MdpLock lock(first);
        taken = lock.ownsLock();
    });
    other.join();
    EXPECT_TRUE(taken);
}

TEST_F(LockOrder, aWaitAtDepthOneIsAllowedOnARecursiveMutex)
{
    RecursiveMutex mutex;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    MdpLock lock(mutex.native, kFirst);
    const timespec past{1, 0};
    EXPECT_EQ(lock.wait(condition, &past), ETIMEDOUT);
    {
        const MdpLock inner(mutex.native, kFirst);
    }
    EXPECT_EQ(lock.wait(condition, &past), ETIMEDOUT);
}

#ifndef NDEBUG

TEST_F(LockOrderDeathTest, theEnginesLocksInTheWrongOrderAbortWithBothNames)
{
    for (std::size_t later = 1; later < EngineLocks::kCount; ++later) {
        for (std::size_t earlier = 0; earlier < later; ++earlier) {
            const auto breakIt = [earlier, later] {
                EngineLocks locks;
                locks.within(later, [&] { locks.within(earlier, [] {}); });
            };
            EXPECT_DEATH(breakIt(), std::string("'") + EngineLocks::name(later) + "' and '" +
                                        EngineLocks::name(earlier) + "'");
        }
    }
}

TEST_F(LockOrderDeathTest, theOrderIsCheckedThroughLocksHeldBetween)
{
    const auto breakIt = [] {
        MdpMutex first(kFirst);
        MdpMutex second(kSecond);
        MdpMutex third(kThird);
        const MdpLock two(second);
        const MdpLock three(third);
        const MdpLock one(first);
    };
    EXPECT_DEATH(breakIt(), "'second' and 'first'");
}

TEST_F(LockOrderDeathTest, twoLocksOfOneLevelAbort)
{
    const auto breakIt = [] {
        MdpMutex one(kFirst);
        MdpMutex another({kFirst.order, "another first"});
        const MdpLock lock(one);
        const MdpLock second(another);
    };
    EXPECT_DEATH(breakIt(), "'first' and 'another first'");
}

TEST_F(LockOrderDeathTest, twoDescriptorsHeldTogetherAbort)
{
    const auto breakIt = [] {
        const auto one = boost::make_shared<md::MdchCurlDescriptor_struct>();
        const auto two = boost::make_shared<md::MdchCurlDescriptor_struct>();
        const MdpLock first = md::lockDescriptor(*one);
        const MdpLock second = md::lockDescriptor(*two);
    };
    EXPECT_DEATH(breakIt(), "'descriptor' and 'descriptor'");
}

TEST_F(LockOrderDeathTest, lockingAgainAfterUnlockIsChecked)
{
    const auto breakIt = [] {
        MdpMutex first(kFirst);
        MdpMutex second(kSecond);
        MdpLock one(first);
        const MdpLock two(second);
        one.unlock();
        one.lock();
    };
    EXPECT_DEATH(breakIt(), "'second' and 'first'");
}

TEST_F(LockOrderDeathTest, aWaitAtDepthTwoAborts)
{
    const auto breakIt = [] {
        RecursiveMutex mutex;
        pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
        const MdpLock outer(mutex.native, kFirst);
        MdpLock inner(mutex.native, kFirst);
        const timespec past{1, 0};
        inner.wait(condition, &past);
    };
    EXPECT_DEATH(breakIt(), "'first'");
}

TEST_F(LockOrderDeathTest, aWaitWithoutTheLockAborts)
{
    const auto breakIt = [] {
        MdpMutex mutex(kFirst);
        pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
        MdpLock lock(mutex);
        lock.unlock();
        const timespec past{1, 0};
        lock.wait(condition, &past);
    };
    EXPECT_DEATH(breakIt(), "'first'");
}

TEST_F(LockOrderDeathTest, releasingWhatIsNotHeldAborts)
{
    int lock = 0;
    EXPECT_DEATH(mdpLockOrderRemove(&lock, kSecond), "released but not held: 'second'");
}

TEST_F(LockOrderDeathTest, moreLocksThanTheThreadCanTrackAbort)
{
    const auto breakIt = [] {
        RecursiveMutex mutex;
        std::vector<std::unique_ptr<MdpLock>> locks;
        for (int i = 0; i < 33; ++i) {
            locks.push_back(std::make_unique<MdpLock>(mutex.native, kFirst));
        }
    };
    EXPECT_DEATH(breakIt(), "too many locks held: 'first'");
}

#else

TEST_F(LockOrder, costsNothingInReleaseBuilds)
{
    MdpMutex first(kFirst);
    MdpMutex second(kSecond);
    const MdpLock two(second);
    const MdpLock one(first);
    EXPECT_TRUE(one.ownsLock());
}

#endif
