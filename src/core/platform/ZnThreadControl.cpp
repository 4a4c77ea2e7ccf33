#include "core/platform/ZnThreadControl.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ZnThreadControl {
namespace {
constexpr int kRaisedNice = -2;
} // namespace

std::uint32_t currentThreadId() noexcept {
    thread_local const std::uint32_t threadId = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    return threadId;
}

void raisePriority() noexcept {
    ::setpriority(PRIO_PROCESS, currentThreadId(), kRaisedNice);
}

} // namespace ZnThreadControl
