#pragma once

#include "core/platform/ZnSharedMemory.h"

#include <memory>

/// A lock that processes of one user share under a name, in an object of 64 bytes. It survives owners that die.
///
///     0   4  "1XTM"
///     4   4  version, 1
///     8  40  the system's mutex, shared between processes and robust
///    48  16  0
///
/// Thread: any. Use ZnSharedMutexLocker; no fiber may park while it holds one.
class ZnSharedMutex {
public:
    static constexpr std::size_t kByteCount = 64;

    enum class Outcome {
        Locked,
        Abandoned, // locked, and the last owner died with it: what the lock guards may be half done
        Busy,      // not within the time
    };

    /// Null, with the reason, on failure.
    static std::unique_ptr<ZnSharedMutex> open(const ZnString& name, ZnString* errorText);

    /// Waits `waitMs` milliseconds at most, 0 not at all: the owner may be a process that somebody has stopped. A lock
    /// that nobody holds is taken without a system call.
    Outcome lock(int waitMs);
    void unlock();

private:
    explicit ZnSharedMutex(std::unique_ptr<ZnSharedMemory> memory) : memory_(std::move(memory)) {}

    const std::unique_ptr<ZnSharedMemory> memory_;
};

/// Tries to hold a ZnSharedMutex for a scope.
class ZnSharedMutexLocker {
public:
    /// Without a mutex there is nothing to wait for: the lock counts as held.
    ZnSharedMutexLocker(ZnSharedMutex* mutex, int waitMs);
    ~ZnSharedMutexLocker();
    ZnSharedMutexLocker(const ZnSharedMutexLocker&) = delete;
    ZnSharedMutexLocker& operator=(const ZnSharedMutexLocker&) = delete;

    bool isHeld() const noexcept { return outcome_ != ZnSharedMutex::Outcome::Busy; }
    bool wasAbandoned() const noexcept { return outcome_ == ZnSharedMutex::Outcome::Abandoned; }

private:
    ZnSharedMutex* const mutex_;
    const ZnSharedMutex::Outcome outcome_;
};
