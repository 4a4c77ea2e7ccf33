#pragma once

#include "core/platform/ZnWaitHandle.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

/// An event that any thread may signal.
class TestEvent : public ZnWaitHandle {
public:
    TestEvent() : ZnWaitHandle(ZnFileDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))) {}
    void set() {
        const std::uint64_t one = 1;
        ASSERT_EQ(::write(descriptor(), &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
    }
    bool noteReady(std::uint32_t readiness) override { return (readiness & ZnReadiness::kInput) != 0; }
};
