#include "core/types/ZnMutex.h"
#include "core/types/ZnReadWriteLock.h"
#include "support/OnThreads.h"

#include <gtest/gtest.h>

#include <latch>

#if defined(__clang__)
// These tests hand locks between threads and release them out of order, which the analysis cannot follow.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20000;

TEST(ZnMutex, ExcludesOtherThreadsInBothModes) {
    for (auto mode : {ZnMutex::Mode::NonRecursive, ZnMutex::Mode::Recursive}) {
        ZnMutex mutex(mode);
        int count = 0; // a plain int: the thread sanitizer sees a missing happens-before
        onThreads(kThreads, [&](int) {
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
    onThreads(1, [&](int) {
        handed = 1;
        mutex.unlock();
    });
    waiter.join();
    EXPECT_FALSE(mutex.tryLock()); // the waiter is gone and still holds it
    mutex.unlock();
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
}

TEST(ZnMutex, CountsItsDepthInRecursiveMode) {
    ZnMutex mutex(ZnMutex::Mode::Recursive);
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());
    for (const bool isFree : {false, true}) {
        mutex.unlock();
        onThreads(1, [&](int) {
            EXPECT_EQ(mutex.tryLock(), isFree);
            if (isFree)
                mutex.unlock();
        });
    }
}

TEST(ZnReadWriteLock, ReadersMeetInside) {
    ZnReadWriteLock lock;
    std::latch inside(kThreads); // passes only when all readers hold the lock at once
    onThreads(kThreads, [&](int) {
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
        onThreads(kThreads, [&](int) {
            for (int round = 0; round < kRounds / 10; ++round) {
                lock.lockForWrite();
                ++left;
                std::this_thread::yield();                      // whoever is let in now sees the two sides differ
                if (mode == ZnReadWriteLock::Mode::Recursive) { // the other side within
                    lock.lockForRead();
                    lock.unlock();
                }
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
    std::vector<ZnReadWriteLock> locks(20);
    const auto isWritten = [](std::size_t index) { return index % 2 == 0; };
    for (std::size_t index = 0; index < locks.size(); ++index)
        isWritten(index) ? locks[index].lockForWrite() : locks[index].lockForRead();
    for (std::size_t index = 1; index < locks.size(); index += 2)
        locks[index].lockForRead(); // twice
    for (std::size_t index = 0; index < locks.size(); ++index) {
        for (int times = isWritten(index) ? 1 : 2; times > 0; --times)
            locks[index].unlock();
    }
    onThreads(1, [&](int) { // a side released wrongly would leave one of them taken
        for (ZnReadWriteLock& lock : locks) {
            lock.lockForWrite();
            lock.unlock();
        }
    });
}

} // namespace
