#pragma once

#include "core/types/ZnLogger.h"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// Collects the log lines of a scope and keeps them off the console.
class LogCapture {
public:
    LogCapture() {
        ZnLogger::instance().setConsoleEnabled(false);
        sinkId_ = ZnLogger::instance().addSink([this](const ZnString& line) {
            std::lock_guard<std::mutex> guard(mutex_);
            lines_.push_back(line);
        });
    }
    ~LogCapture() {
        ZnLogger::instance().removeSink(sinkId_);
        ZnLogger::instance().setConsoleEnabled(true);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    int countOf(std::string_view text) {
        std::lock_guard<std::mutex> guard(mutex_);
        int count = 0;
        for (const ZnString& line : lines_)
            count += line.contains(text) ? 1 : 0;
        return count;
    }

    /// The lines so far without their timestamps, which are forgotten.
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> guard(mutex_);
        std::vector<std::string> texts;
        for (const ZnString& line : std::exchange(lines_, {}))
            texts.push_back(line.str().substr(std::string_view("[hhmmss.uuuuuu] ").size()));
        return texts;
    }

private:
    std::mutex mutex_;
    std::vector<ZnString> lines_; // guarded by mutex_
    int sinkId_ = 0;
};
