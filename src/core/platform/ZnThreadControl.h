#pragma once

#include <cstdint>

/// What the runtime needs of the system's threads, and of the process.
namespace ZnThreadControl {
/// The system's id of the calling thread, never 0.
std::uint32_t currentThreadId() noexcept;
/// Lets the calling thread's sleeps end on time, not up to 50 microseconds late as is usual.
void usePreciseTimers() noexcept;
/// Gives the calling thread a priority: 0 is normal, -2 to 2 around it, -15 idle, 15 time-critical. Silent when that
/// is not permitted.
void setPriority(int priority) noexcept;
/// Asks for somewhat more than normal priority for the calling thread.
inline void raisePriority() noexcept {
    setPriority(2);
}
/// Lets the process open as many descriptors as it may: the usual soft limit of 1024 is for programs that use select().
void raiseDescriptorLimit() noexcept;
/// Lets large blocks of memory go back to the system as soon as they are freed. At the start of a program.
void keepLittleMemory() noexcept;
/// Gives back what small blocks have left behind: the allocator itself keeps all of it that lies below a block in use.
/// May take milliseconds. Any thread.
void giveMemoryBack() noexcept;
} // namespace ZnThreadControl
