#include "Progress.h"

#include "core/platform/ZnProcess.h"

#include <algorithm>
#include <iostream>

namespace znstore {

namespace {

constexpr std::chrono::milliseconds kInterval(200);
constexpr const char* kWipeLine = "\r\x1b[K";

} // namespace

Progress::Progress(const char* task)
    : task_(task), isShown_(ZnProcess::hasTerminalForErrors()), nextAt_(std::chrono::steady_clock::now() + kInterval) {}

Progress::~Progress() {
    if (hasLine_)
        std::cerr << kWipeLine << std::flush;
}

void Progress::show(std::uint64_t recordCount) {
    if (isDue_())
        std::cerr << kWipeLine << task_ << ": " << recordCount << " records" << std::flush;
}

void Progress::show(std::uint64_t doneBytes, std::uint64_t totalBytes) {
    if (isDue_())
        std::cerr << kWipeLine << task_ << ": " << doneBytes * 100 / std::max<std::uint64_t>(totalBytes, 1) << " % of "
                  << totalBytes << " bytes" << std::flush;
}

bool Progress::isDue_() {
    if (!isShown_)
        return false;
    const auto now = std::chrono::steady_clock::now();
    if (now < nextAt_)
        return false;
    nextAt_ = now + kInterval;
    hasLine_ = true;
    return true;
}

} // namespace znstore
