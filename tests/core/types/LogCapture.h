#pragma once

#include "core/types/ZnLogger.h"

#include <mutex>
#include <string>
#include <vector>

/// Collects the log's lines, without their timestamps, and keeps them off the console, for a scope.
class LogCapture {
public:
    LogCapture() {
        ZnLogger::instance().setConsoleEnabled(false);
        sinkId_ = ZnLogger::instance().addSink([this](const ZnString& line) {
            const std::lock_guard lock(mutex_);
            lines_.push_back(line.str().substr(std::string("[hhmmss.uuuuuu] ").size()));
        });
    }
    ~LogCapture() {
        ZnLogger::instance().removeSink(sinkId_);
        ZnLogger::instance().setConsoleEnabled(true);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    /// The lines so far, which are forgotten.
    std::vector<std::string> take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(lines_, {});
    }

private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
    int sinkId_ = 0;
};
