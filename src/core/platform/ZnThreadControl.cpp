#include "core/platform/ZnThreadControl.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZnThreadControl {
std::uint32_t currentThreadId() noexcept {
    thread_local const std::uint32_t threadId = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    return threadId;
}

void usePreciseTimers() noexcept {
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

void setPriority(int priority) noexcept {
    ::setpriority(PRIO_PROCESS, currentThreadId(), -priority); // the higher the nice value, the lower
}

void raiseDescriptorLimit() noexcept {
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

void keepLittleMemory() noexcept {
    // A fixed limit: the library would raise its own with the first large block that is freed, and keep the next ones.
    ::mallopt(M_MMAP_THRESHOLD, 256 * 1024);
}

void giveMemoryBack() noexcept {
    ::malloc_trim(0);
}

} // namespace ZnThreadControl
