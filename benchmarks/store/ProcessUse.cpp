#include "ProcessUse.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace {

constexpr double kMebibyte = 1024.0 * 1024.0;

/// The number behind `label` in a file of lines "label: number"; 0 when there is none.
double numberIn(const char* path, const std::string& label) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(label))
            return std::strtod(line.c_str() + label.size(), nullptr);
    return 0.0;
}

double processorMs() {
    rusage use = {};
    ::getrusage(RUSAGE_SELF, &use);
    const auto ms = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return ms(use.ru_utime) + ms(use.ru_stime);
}

} // namespace

ResidentMemory residentMemory() {
    constexpr const char* kStatus = "/proc/self/status"; // in KiB
    return {numberIn(kStatus, "VmRSS:") / 1024.0, numberIn(kStatus, "RssAnon:") / 1024.0};
}

double writtenMib() {
    return numberIn("/proc/self/io", "write_bytes:") / kMebibyte;
}

double directoryMib(const std::string& path) {
    std::uint64_t blockCount = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path, error)) {
        struct stat attributes = {};
        if (::lstat(entry.path().c_str(), &attributes) == 0)
            blockCount += static_cast<std::uint64_t>(attributes.st_blocks);
    }
    return static_cast<double>(blockCount) * 512.0 / kMebibyte;
}

// No store tells it in a way that the others do too; but one that has work uses the processor, and one that waits for
// the disk does so for less than the time between two looks.
bool waitUntilIdle() {
    constexpr double kIdleMs = 2.0;
    constexpr int kLooksInAMinute = 240;
    double before = processorMs();
    for (int look = 0; look < kLooksInAMinute; ++look) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        const double now = processorMs();
        if (now - before < kIdleMs)
            return true;
        before = now;
    }
    return false;
}
