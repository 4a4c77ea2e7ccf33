#include "ChildProcess.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

namespace {

int execute(const std::vector<std::string>& command, int outputFd, int cpu) {
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
    return 127;
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, const std::string& readyText, int cpu)
    : process_([&] { return execute(command, output_.ends[1], cpu); }) {
    output_.closeEnd(1);
    std::string output;
    while (output.find(readyText) == std::string::npos ||
           output.find('\n', output.find(readyText)) == std::string::npos) {
        pollfd waitFor = {output_.ends[0], POLLIN, 0};
        char buffer[512];
        const ssize_t got = ::poll(&waitFor, 1, 10000) == 1 ? ::read(output_.ends[0], buffer, sizeof(buffer)) : -1;
        if (got <= 0) {
            std::fprintf(stderr, "%s did not get ready: %s\n", command[0].c_str(), output.c_str());
            std::exit(1);
        }
        output.append(buffer, static_cast<std::size_t>(got));
    }
    const std::size_t lastBlank = output.find_last_of(' ');
    announcedPort_ =
        static_cast<unsigned short>(std::atoi(output.c_str() + (lastBlank == std::string::npos ? 0 : lastBlank)));
    readyMs_ = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count();
}

long long ChildProcess::cpuNs() const {
    std::ifstream file("/proc/" + std::to_string(process_.pid()) + "/schedstat");
    long long ns = 0;
    file >> ns;
    return ns;
}
