#include "core/types/ZnMutex.h"
#include "core/types/ZnReadWriteLock.h"

#include <gtest/gtest.h>

#include <functional>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#if defined(__clang__)
// These tests hand locks between threads and release them out of order, which the analysis cannot follow.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20000;

void onThreads(const std::function<void()>& work) {
    std::vector<std::thread> threads;
    for (int index = 0; index < kThreads; ++index)
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();
}

TEST(ZnMutex, ExcludesOtherThreadsInBothModes) {
    for (auto mode : {ZnMutex::Mode::NonRecursive, ZnMutex::Mode::Recursive}) {
        ZnMutex mutex(mode);
        int count = 0; // a plain int: the thread sanitizer sees a missing happens-before
        onThreads([&] {
            for (int round = 0; round < kRounds; ++round) {
                const ZnMutexLocker lock(mutex);
                ++count;
            }
        });
        EXPECT_EQ(count, kThreads * kRounds);
    }
}

TEST(ZnMutex, IsReleasedByAnotherThread) {
    ZnMutex mutex;
    int handed = 0;
    mutex.lock();
    std::thread waiter([&] {
        mutex.lock(); // until the thread below gives up what the main thread took
        EXPECT_EQ(handed, 1);
    });
    std::thread releaser([&] {
        handed = 1;
        mutex.unlock();
    });
    waiter.join();
    releaser.join();
    EXPECT_FALSE(mutex.tryLock()); // the waiter is gone and still holds it
    mutex.unlock();
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
}

TEST(ZnMutex, CountsItsDepthInRecursiveMode) {
    ZnMutex mutex(ZnMutex::Mode::Recursive);
    const auto isFreeElsewhere = [&] {
        bool isFree = false;
        std::thread([&] {
            isFree = mutex.tryLock();
            if (isFree)
                mutex.unlock();
        }).join();
        return isFree;
    };
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
    EXPECT_FALSE(isFreeElsewhere());
    mutex.unlock();
    EXPECT_TRUE(isFreeElsewhere());
}

TEST(ZnReadWriteLock, ReadersMeetInside) {
    ZnReadWriteLock lock;
    std::latch inside(kThreads); // passes only when all readers hold the lock at once
    onThreads([&] {
        lock.lockForRead();
        inside.arrive_and_wait();
        lock.unlock();
    });
}

TEST(ZnReadWriteLock, WritersExcludeEverybody) {
    for (auto mode : {ZnReadWriteLock::Mode::NonRecursive, ZnReadWriteLock::Mode::Recursive}) {
        ZnReadWriteLock lock(mode);
        int left = 0;
        int right = 0;
        onThreads([&] {
            for (int round = 0; round < kRounds / 10; ++round) {
                lock.lockForWrite();
                ++left;
                ++right;
                lock.unlock();
                lock.lockForRead();
                EXPECT_EQ(left, right);
                lock.unlock();
            }
        });
        EXPECT_EQ(left, kThreads * (kRounds / 10));
    }
}

TEST(ZnReadWriteLock, UnlockKnowsItsSideForManyLocks) {
    std::vector<std::unique_ptr<ZnReadWriteLock>> locks;
    for (int index = 0; index < 20; ++index)
        locks.push_back(std::make_unique<ZnReadWriteLock>());
    for (int round = 0; round < 3; ++round) {
        for (std::size_t index = 0; index < locks.size(); ++index) {
            if (index % 2 == 0) {
                locks[index]->lockForWrite();
            } else {
                locks[index]->lockForRead();
                locks[index]->lockForRead();
            }
        }
        for (std::size_t index = 0; index < locks.size(); ++index) {
            locks[index]->unlock();
            if (index % 2 != 0)
                locks[index]->unlock();
        }
    }
    // A side released wrongly would leave one of them taken.
    std::thread([&] {
        for (auto& lock : locks) {
            lock->lockForWrite();
            lock->unlock();
        }
    }).join();
}

TEST(ZnReadWriteLock, RecursiveModeNestsBothSides) {
    ZnReadWriteLock lock(ZnReadWriteLock::Mode::Recursive);
    lock.lockForWrite();
    lock.lockForRead();
    lock.lockForWrite();
    for (int depth = 0; depth < 3; ++depth)
        lock.unlock();
    std::thread([&] {
        lock.lockForWrite();
        lock.unlock();
    }).join();
}

TEST(ZnReadWriteLockDeathTest, UnlockWithoutLockIsCaught) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        [] {
            ZnReadWriteLock lock;
            lock.unlock();
        }(),
        "assertion failed");
}

} // namespace
