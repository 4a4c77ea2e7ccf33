#include "ChildProcess.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void execute(const std::vector<std::string>& command, int outputFd, int cpu) {
    if (cpu >= 0) {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(static_cast<std::size_t>(cpu), &cpus);
        ::sched_setaffinity(0, sizeof(cpus), &cpus);
    }
    ::dup2(outputFd, STDOUT_FILENO);
    std::vector<char*> argv;
    for (const std::string& word : command)
        argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    std::perror(argv[0]);
    ::_exit(127);
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, const std::string& readyText, int cpu) {
    const auto start = std::chrono::steady_clock::now();
    int pipeFds[2] = {-1, -1};
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    pid_ = ::fork();
    if (pid_ == 0)
        execute(command, pipeFds[1], cpu);
    ::close(pipeFds[1]);
    outputFd_ = pipeFds[0];
    std::string output;
    while (output.find(readyText) == std::string::npos ||
           output.find('\n', output.find(readyText)) == std::string::npos) {
        pollfd waitFor = {outputFd_, POLLIN, 0};
        char buffer[512];
        const ssize_t got = ::poll(&waitFor, 1, 10000) == 1 ? ::read(outputFd_, buffer, sizeof(buffer)) : -1;
        if (got <= 0) {
            std::fprintf(stderr, "%s did not get ready: %s\n", command[0].c_str(), output.c_str());
            std::exit(1);
        }
        output.append(buffer, static_cast<std::size_t>(got));
    }
    const std::size_t lastBlank = output.find_last_of(' ');
    announcedPort_ =
        static_cast<unsigned short>(std::atoi(output.c_str() + (lastBlank == std::string::npos ? 0 : lastBlank)));
    readyMs_ = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

ChildProcess::~ChildProcess() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    ::close(outputFd_);
}

long long ChildProcess::cpuNs() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/schedstat");
    long long ns = 0;
    file >> ns;
    return ns;
}

long ChildProcess::residentKib() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/statm");
    long totalPages = 0;
    long residentPages = 0;
    file >> totalPages >> residentPages;
    return residentPages * (::sysconf(_SC_PAGESIZE) / 1024);
}
