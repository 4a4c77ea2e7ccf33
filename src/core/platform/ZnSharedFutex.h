#pragma once

#include <cstdint>

/// Sleeping on a 32-bit word that processes share. Thread: any.
namespace ZnSharedFutex {
/// Sleeps while `*word` is `expected`, until wakeAll, for `timeoutMs` milliseconds at most. May return early. Blocks
/// the thread: not for one with an event loop.
void wait(const std::uint32_t* word, std::uint32_t expected, int timeoutMs);
void wakeAll(const std::uint32_t* word);
} // namespace ZnSharedFutex
