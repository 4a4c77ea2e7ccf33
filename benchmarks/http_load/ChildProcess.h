#pragma once

#include "support/ForkedProcess.h"

#include <chrono>
#include <string>
#include <vector>

/// A server that a benchmark runs: started with its standard output on a pipe, ended by its id.
class ChildProcess {
public:
    /// Starts the program on processor `cpu` (below 0: anywhere) and waits until it has printed a line that contains
    /// `readyText`. Exits the benchmark with a message when that does not happen within ten seconds.
    ChildProcess(const std::vector<std::string>& command, const std::string& readyText, int cpu);
    /// Sends SIGTERM and waits for the end.
    ~ChildProcess() { process_.exitCode(SIGTERM); }

    /// Processor time used so far by its first thread, in nanoseconds.
    long long cpuNs() const;
    /// Resident memory in KiB.
    long residentKib() const { return process_.residentKib(); }
    /// The number at the end of the line that was waited for.
    unsigned short announcedPort() const { return announcedPort_; }
    /// Milliseconds from its start to the line that was waited for.
    double readyMs() const { return readyMs_; }

private:
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    ProcessPipe output_;
    ForkedProcess process_;
    unsigned short announcedPort_ = 0;
    double readyMs_ = 0.0;
};
