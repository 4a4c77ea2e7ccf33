#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

/// A pipe to a child process or from one; each side closes the end that it does not use.
struct ProcessPipe {
    ProcessPipe() {
        if (::pipe2(ends, O_CLOEXEC) != 0)
            std::abort();
    }
    ~ProcessPipe() {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(int end) {
        if (ends[end] >= 0)
            ::close(std::exchange(ends[end], -1));
    }
    int ends[2] = {-1, -1}; // to read from, to write to
};

/// A child process, for tests and benchmarks; killed by its id, and waited for, when nobody has waited for its end.
class ForkedProcess {
public:
    /// Forks. `body` runs in the child and gives its exit code; it may as well execute another program.
    template <typename Body>
    explicit ForkedProcess(const Body& body) {
        std::fflush(nullptr); // or the child would write it once more
        pid_ = ::fork();
        if (pid_ < 0)
            std::abort();
        if (pid_ == 0)
            ::_exit(body());
    }
    ~ForkedProcess() {
        if (pid_ > 0)
            exitCode(SIGKILL);
    }
    ForkedProcess(const ForkedProcess&) = delete;
    ForkedProcess& operator=(const ForkedProcess&) = delete;

    pid_t pid() const { return pid_; }
    /// Nobody, once it has been waited for: its id may be another one's by then.
    void signal(int number) {
        if (pid_ > 0)
            ::kill(pid_, number);
    }
    /// Until it has stopped itself, or ended.
    bool awaitStop() { return ::waitpid(pid_, nullptr, WUNTRACED) == pid_; }
    void pause() {
        signal(SIGSTOP);
        awaitStop();
    }
    void resume() { signal(SIGCONT); }
    /// Waits for its end, which the signal asks for if there is one: the exit code, or the signal that ended it below
    /// 0.
    int exitCode(int signalNumber = 0) {
        signal(signalNumber);
        int status = 0;
        ::waitpid(std::exchange(pid_, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    long residentKib() const {
        std::ifstream file("/proc/" + std::to_string(pid_) + "/statm");
        long pages[2] = {}; // in all, and resident
        file >> pages[0] >> pages[1];
        return pages[1] * (::sysconf(_SC_PAGESIZE) / 1024);
    }

private:
    pid_t pid_ = -1;
};
