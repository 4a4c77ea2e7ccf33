#pragma once

// Clang's thread-safety analysis; other compilers see nothing.
#if defined(__clang__)
#define ZN_THREAD_ATTRIBUTE_(x) __attribute__((x))
#else
#define ZN_THREAD_ATTRIBUTE_(x)
#endif

#define ZN_CAPABILITY(name) ZN_THREAD_ATTRIBUTE_(capability(name))
#define ZN_SCOPED_CAPABILITY ZN_THREAD_ATTRIBUTE_(scoped_lockable)
#define ZN_GUARDED_BY(lock) ZN_THREAD_ATTRIBUTE_(guarded_by(lock))
#define ZN_REQUIRES(...) ZN_THREAD_ATTRIBUTE_(requires_capability(__VA_ARGS__))
#define ZN_EXCLUDES(...) ZN_THREAD_ATTRIBUTE_(locks_excluded(__VA_ARGS__))
#define ZN_ACQUIRE(...) ZN_THREAD_ATTRIBUTE_(acquire_capability(__VA_ARGS__))
#define ZN_ACQUIRE_SHARED(...) ZN_THREAD_ATTRIBUTE_(acquire_shared_capability(__VA_ARGS__))
#define ZN_RELEASE(...) ZN_THREAD_ATTRIBUTE_(release_capability(__VA_ARGS__))
#define ZN_RELEASE_GENERIC(...) ZN_THREAD_ATTRIBUTE_(release_generic_capability(__VA_ARGS__))
#define ZN_TRY_ACQUIRE(...) ZN_THREAD_ATTRIBUTE_(try_acquire_capability(__VA_ARGS__))
#define ZN_ASSUME_HELD(...) ZN_THREAD_ATTRIBUTE_(assert_capability(__VA_ARGS__))
#define ZN_NO_THREAD_SAFETY_ANALYSIS ZN_THREAD_ATTRIBUTE_(no_thread_safety_analysis)
