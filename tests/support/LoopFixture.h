#pragma once

#include "core/runtime/ZnCoreApplication.h"

#include <functional>
#include <gtest/gtest.h>

/// A test with an event loop on its own thread.
class LoopFixture : public ::testing::Test {
protected:
    /// Runs the loop until the condition holds; false when that takes longer than the deadline.
    bool runUntil(const std::function<bool()>& condition, int deadlineMs = 10000) {
        return application_.processUntil(condition, deadlineMs);
    }
    /// For a condition that comes true on another thread, which does not wake the loop.
    bool pollUntil(const std::function<bool()>& condition) {
        for (int attempt = 0; attempt < 10000 && !condition(); ++attempt)
            settle(1);
        return condition();
    }
    /// Runs `body` on a fiber and the loop until it has returned.
    void runOnFiber(std::function<void()> body, int deadlineMs = 20000) {
        bool done = false;
        ASSERT_TRUE(application_.postEvent([&] {
            body();
            done = true;
        }));
        ASSERT_TRUE(runUntil([&] { return done; }, deadlineMs));
    }
    /// Lets everything that is ready now run.
    void settle(int ms = 20) {
        application_.processUntil([] { return false; }, ms);
    }
    int parkedCount() { return application_.fiberPool().stats().blockedCount; }

    ZnCoreApplication application_;
};
