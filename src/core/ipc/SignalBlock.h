#pragma once

#include "core/ipc/SignalValue.h"
#include "core/platform/ZnSharedMutex.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace zn::ipc {
namespace detail {

/// The state of one channel, as it stands in shared memory: the latest publication and its number.
///
///     0     4  "1GIS"
///     4     4  version, 1
///     8     4  size of the block, 4128
///    12     4  0
///    16     8  sequence: raised by 1 with every publication; its low half is what waiters sleep on
///    24     4  payload size
///    28  4096  payload
///  4124     4  number of waiters that sleep
///
/// A publication is the first 16 bytes of the payload: two numbers of 8 bytes. Behind them it stands once more, with
/// the number that it will have, so that a publisher that dies half way does not leave half of each: who takes the
/// mutex next finishes it. Thread: any.
class SignalBlock {
public:
    static constexpr std::size_t kByteCount = 4128;

    /// Null, with the reason, on failure.
    static std::shared_ptr<SignalBlock> open(const ZnString& domain, const ZnString& object, const ZnString& signal,
                                             ZnString* errorText);

    std::uint64_t sequence() const;
    /// Asks `source` for the values under the mutex and publishes them, if it gives any. False, and nothing asked, when
    /// the mutex could not be had within `waitMs` milliseconds.
    template <typename Source>
    bool publish(int waitMs, Source source) {
        const ZnSharedMutexLocker locker(mutex_.get(), waitMs);
        if (!locker.isHeld())
            return false;
        if (locker.wasAbandoned())
            finishPublication_();
        if (const std::optional<SignalValue> value = source())
            write_(*value);
        return true;
    }
    /// The latest publication. False, with `*value` as it was, when the mutex could not be had within `waitMs`
    /// milliseconds.
    bool read(int waitMs, SignalValue* value);

    /// Wakes who sleeps in waitForChange; no system call when there is nobody.
    void wakeWaiters();
    /// Sleeps while the sequence is `seen`, for `timeoutMs` milliseconds at most. Blocks the thread: not for one with
    /// an event loop. True when the sequence has changed.
    bool waitForChange(std::uint64_t seen, int timeoutMs);

private:
    struct Layout_;

    SignalBlock(std::unique_ptr<ZnSharedMemory> memory, std::unique_ptr<ZnSharedMutex> mutex)
        : memory_(std::move(memory)), mutex_(std::move(mutex)) {}
    Layout_& layout_() const { return *static_cast<Layout_*>(memory_->data()); }
    void write_(const SignalValue& value);
    void finishPublication_();
    static void takeOver_(void* data);
    static bool isBlock_(const void* data);

    const std::unique_ptr<ZnSharedMemory> memory_;
    const std::unique_ptr<ZnSharedMutex> mutex_;
};

} // namespace detail
} // namespace zn::ipc
