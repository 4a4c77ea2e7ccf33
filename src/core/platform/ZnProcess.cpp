#include "core/platform/ZnProcess.h"

#include "core/platform/ZnFileDescriptor.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<unsigned> forks{0};

void noteFork() {
    forks.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

std::uint32_t ZnProcess::currentId() {
    return static_cast<std::uint32_t>(::getpid());
}

std::uint32_t ZnProcess::userId() {
    return static_cast<std::uint32_t>(::geteuid());
}

ZnString ZnProcess::startTime() {
    char text[1024];
    const ZnFileDescriptor file(::open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
    const ssize_t byteCount = file ? ::read(file.get(), text, sizeof(text)) : -1;
    if (byteCount <= 0)
        return {};
    // The name of the program stands in brackets and may hold anything; the start time is the 20th field behind it.
    std::string_view rest(text, static_cast<std::size_t>(byteCount));
    rest.remove_prefix(std::min(rest.rfind(')') + 1, rest.size()));
    for (int field = 0; field < 19; ++field)
        rest.remove_prefix(std::min(rest.find(' ', 1), rest.size()));
    rest.remove_prefix(rest.empty() ? 0 : 1);
    return ZnString(rest.substr(0, rest.find(' ')));
}

int ZnProcess::isGone(std::uint32_t processId) {
    if (processId == 0 || processId > INT_MAX)
        return 1;
    const ZnFileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(processId), 0)));
    if (!process)
        return errno == ESRCH ? 1 : 2;
    pollfd ended = {process.get(), POLLIN, 0};
    const int readyCount = ::poll(&ended, 1, 0);
    return readyCount < 0 ? 2 : readyCount;
}

unsigned ZnProcess::forkCount() {
    static const int isRegistered = ::pthread_atfork(nullptr, nullptr, &noteFork);
    (void)isRegistered; // fails for want of memory only
    return forks.load(std::memory_order_relaxed);
}

bool ZnProcess::hasTerminalForErrors() {
    return ::isatty(STDERR_FILENO) == 1;
}
