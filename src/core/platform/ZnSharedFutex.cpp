#include "core/platform/ZnSharedFutex.h"

#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

void ZnSharedFutex::wait(const std::uint32_t* word, std::uint32_t expected, int timeoutMs) {
    const timespec timeout = {timeoutMs / 1000, timeoutMs % 1000 * 1000000L};
    ::syscall(SYS_futex, word, FUTEX_WAIT, expected, &timeout, nullptr, 0); // not the private kind
}

void ZnSharedFutex::wakeAll(const std::uint32_t* word) {
    ::syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}
