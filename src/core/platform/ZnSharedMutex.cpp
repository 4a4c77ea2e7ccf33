#include "core/platform/ZnSharedMutex.h"

#include "core/types/ZnMutex.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <pthread.h>

#if defined(__SANITIZE_THREAD__)
#define ZN_THREAD_SANITIZER_
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZN_THREAD_SANITIZER_
#endif
#endif

namespace {

struct Layout {
    char magic[4];
    std::uint32_t version;
    pthread_mutex_t mutex;
    char reserved[16];
};
static_assert(sizeof(Layout) == ZnSharedMutex::kByteCount && sizeof(pthread_mutex_t) == 40);

constexpr char kMagic[4] = {'1', 'X', 'T', 'M'};
constexpr std::uint32_t kVersion = 1;

pthread_mutex_t freshMutex() {
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_t mutex;
    ::pthread_mutex_init(&mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
    return mutex;
}

/// Nobody else can hold it, whatever it says: it begins anew.
void makeMutex(void* data) {
    Layout layout = {};
    std::memcpy(layout.magic, kMagic, sizeof(kMagic));
    layout.version = kVersion;
    layout.mutex = freshMutex();
    std::memcpy(data, &layout, sizeof(layout));
}

bool isMutex(const void* data) {
    Layout layout;
    std::memcpy(&layout, data, sizeof(layout));
    // Another kind would make the C library do other things with the bytes, up to ending the process.
    return std::memcmp(layout.magic, kMagic, sizeof(kMagic)) == 0 && layout.version == kVersion &&
           layout.mutex.__data.__kind == freshMutex().__data.__kind;
}

pthread_mutex_t* mutexIn(const ZnSharedMemory& memory) {
    return &static_cast<Layout*>(memory.data())->mutex;
}

timespec deadlineIn(int waitMs, clockid_t clock) {
    timespec deadline = {};
    ::clock_gettime(clock, &deadline);
    const long long ns = deadline.tv_nsec + waitMs * 1000000LL;
    deadline.tv_sec += ns / 1000000000LL;
    deadline.tv_nsec = ns % 1000000000LL;
    return deadline;
}

int lockWithin(pthread_mutex_t* mutex, int waitMs) {
#if defined(ZN_THREAD_SANITIZER_)
    // ThreadSanitizer does not know the other function, and takes the unlock for a mistake.
    const timespec deadline = deadlineIn(waitMs, CLOCK_REALTIME);
    return ::pthread_mutex_timedlock(mutex, &deadline);
#else
    const timespec deadline = deadlineIn(waitMs, CLOCK_MONOTONIC);
    return ::pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
#endif
}

} // namespace

std::unique_ptr<ZnSharedMutex> ZnSharedMutex::open(const ZnString& name, ZnString* errorText) {
    auto memory = ZnSharedMemory::open(name, kByteCount, {&makeMutex, &isMutex}, errorText);
    return memory ? std::unique_ptr<ZnSharedMutex>(new ZnSharedMutex(std::move(memory))) : nullptr;
}

ZnSharedMutex::Outcome ZnSharedMutex::lock(int waitMs) {
    pthread_mutex_t* mutex = mutexIn(*memory_);
    int result = ::pthread_mutex_trylock(mutex);
    if (result == EBUSY && waitMs > 0)
        result = lockWithin(mutex, waitMs);
    if (result == EOWNERDEAD) {
        ::pthread_mutex_consistent(mutex);
        return Outcome::Abandoned;
    }
    return result == 0 ? Outcome::Locked : Outcome::Busy;
}

void ZnSharedMutex::unlock() {
    ::pthread_mutex_unlock(mutexIn(*memory_));
}

ZnSharedMutexLocker::ZnSharedMutexLocker(ZnSharedMutex* mutex, int waitMs)
    : mutex_(mutex), outcome_(mutex == nullptr ? ZnSharedMutex::Outcome::Locked : mutex->lock(waitMs)) {
#if !defined(__OPTIMIZE__)
    zn::detail::heldLockCount() += isHeld() ? 1 : 0;
#endif
}

ZnSharedMutexLocker::~ZnSharedMutexLocker() {
    if (!isHeld())
        return;
#if !defined(__OPTIMIZE__)
    --zn::detail::heldLockCount();
#endif
    if (mutex_ != nullptr)
        mutex_->unlock();
}
