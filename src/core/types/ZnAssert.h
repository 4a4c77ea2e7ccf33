#pragma once

namespace zn::detail {
/// Writes the failed condition with its place to standard error and aborts. Never returns.
[[noreturn]] void assertFailed(const char* condition, const char* file, int line) noexcept;
} // namespace zn::detail

/// Programmer mistakes only; input from outside never trips it. Active in every build.
#define ZN_ASSERT(condition)                                                                                           \
    ((condition) ? static_cast<void>(0) : ::zn::detail::assertFailed(#condition, __FILE__, __LINE__))

/// As ZN_ASSERT, in builds without optimisation only: for checks on the hot path.
#if defined(__OPTIMIZE__)
#define ZN_DEBUG_ASSERT(condition) static_cast<void>(0)
#else
#define ZN_DEBUG_ASSERT(condition) ZN_ASSERT(condition)
#endif
