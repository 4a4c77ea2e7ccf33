#pragma once

#include <cstdint>

/// What the runtime needs of the system's threads, and of the process.
namespace ZnThreadControl {
/// The system's id of the calling thread, never 0.
std::uint32_t currentThreadId() noexcept;
/// Lets the calling thread's sleeps end on time, not up to 50 microseconds late as is usual.
void usePreciseTimers() noexcept;
/// Asks for somewhat more than normal priority for the calling thread. Silent when that is not permitted.
void raisePriority() noexcept;
/// Lets the process open as many descriptors as it may: the usual soft limit of 1024 is for programs that use select().
void raiseDescriptorLimit() noexcept;
} // namespace ZnThreadControl
