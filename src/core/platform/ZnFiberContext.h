#pragma once

#include <cstddef>

/// A mapping of stacks of one size, each with a guard page below it.
///
/// Nothing is resident until a stack is used. Thread: any one thread at a time.
class ZnFiberStacks {
public:
    /// `stackBytes` is rounded up to whole pages. Check isValid() afterwards.
    ZnFiberStacks(std::size_t stackCount, std::size_t stackBytes);
    ~ZnFiberStacks();
    ZnFiberStacks(const ZnFiberStacks&) = delete;
    ZnFiberStacks& operator=(const ZnFiberStacks&) = delete;

    bool isValid() const noexcept { return base_ != nullptr; }
    std::size_t stackBytes() const noexcept { return stackBytes_; }
    const void* begin() const noexcept { return base_; }
    const void* end() const noexcept { return base_ + mappedBytes_; }
    /// The lowest address of the stack, with its guard page put in place. Null when the system refuses.
    void* prepare(std::size_t stackIndex);

private:
    char* base_ = nullptr;
    std::size_t mappedBytes_ = 0;
    std::size_t stackBytes_ = 0;
};

/// A stackful execution context: the only place of the system that switches stacks.
///
/// A switch saves and restores the C++ exception state and errno, and tells the sanitizers. All switching of a
/// context happens on one thread.
class ZnFiberContext {
public:
    using Entry = void (*)(void* argument);

    /// The calling thread's own context, not yet entered: the one that the loop runs on.
    ZnFiberContext();
    /// A suspended context; `entry` must never return. The stack must outlive it.
    ZnFiberContext(void* stackBottom, std::size_t stackBytes, Entry entry, void* argument);
    /// Not while it runs. A suspended context is dropped without unwinding.
    ~ZnFiberContext();
    ZnFiberContext(const ZnFiberContext&) = delete;
    ZnFiberContext& operator=(const ZnFiberContext&) = delete;

    /// Suspends this context, which must be the running one, and resumes `target`; returns when something switches
    /// back.
    void switchTo(ZnFiberContext& target);

private:
    struct Switch_; // the switch library's types, in ZnFiberContext.cpp
    friend struct Switch_;

    void* saved_ = nullptr; // where the context goes on; null while it runs
    Entry entry_ = nullptr;
    void* argument_ = nullptr;
    const void* stackBottom_ = nullptr; // for AddressSanitizer
    std::size_t stackBytes_ = 0;
    void* sanitizerState_ = nullptr; // AddressSanitizer's fake stack or ThreadSanitizer's fiber
    unsigned valgrindStackId_ = 0;
};
