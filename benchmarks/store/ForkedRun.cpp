#include "ForkedRun.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void runChild(const std::function<std::vector<Measurement>()>& work, unsigned timeoutSeconds, int resultFd,
                           pid_t parent) {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) // it ended before the line above
        ::_exit(1);
    ::alarm(timeoutSeconds);
    bool isWritten = true;
    for (const Measurement& measurement : work())
        isWritten = isWritten && ::write(resultFd, &measurement, sizeof(measurement)) == sizeof(measurement);
    ::_exit(isWritten ? 0 : 1);
}

bool endedWell(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status))
        std::fprintf(stderr, "store_benchmark: child ended by signal %d\n", WTERMSIG(status));
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

bool runForked(const std::function<std::vector<Measurement>()>& work, unsigned timeoutSeconds,
               std::vector<Measurement>* measurements) {
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0)
        return false;
    std::fflush(nullptr); // or the child would print it once more
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        runChild(work, timeoutSeconds, ends[1], parent);
    }
    ::close(ends[1]);
    // Each was written at once and is shorter than what a pipe keeps in one piece.
    Measurement measurement;
    while (child > 0) {
        const ssize_t readBytes = ::read(ends[0], &measurement, sizeof(measurement));
        if (readBytes == sizeof(measurement))
            measurements->push_back(measurement);
        else if (readBytes < 0 && errno == EINTR)
            ::kill(child, SIGTERM); // this process is to end
        else
            break;
    }
    ::close(ends[0]);
    return child > 0 && endedWell(child);
}
