#pragma once

#include "core/platform/ZnFileDescriptor.h"

#include <cstdint>

/// Readiness of a descriptor, as ZnPoller reports it.
namespace ZnReadiness {
constexpr std::uint32_t kInput = 1;
constexpr std::uint32_t kOutput = 2;
constexpr std::uint32_t kPeerClosed = 4;
constexpr std::uint32_t kError = 8;
} // namespace ZnReadiness

/// Something that an event loop can watch: a descriptor, registered once and edge-triggered.
class ZnWaitHandle {
public:
    explicit ZnWaitHandle(ZnFileDescriptor descriptor) noexcept : descriptor_(std::move(descriptor)) {}
    virtual ~ZnWaitHandle() = default;
    ZnWaitHandle(const ZnWaitHandle&) = delete;
    ZnWaitHandle& operator=(const ZnWaitHandle&) = delete;

    int descriptor() const noexcept { return descriptor_.get(); }
    /// Closes the descriptor now; whoever still holds the handle finds it dead.
    void closeDescriptor() noexcept { descriptor_.reset(); }
    /// Merges what has become ready, on the thread of the loop. Returns whether the handle is signalled by it, that is
    /// whether its owner has something to do.
    virtual bool noteReady(std::uint32_t readiness) = 0;

protected:
    ZnFileDescriptor descriptor_;
};
