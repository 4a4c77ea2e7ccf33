#pragma once

#include <chrono>
#include <cstdint>

namespace znstore {

/// One line on standard error that tells how far long work has come, where that is a terminal; nothing elsewhere.
///
/// Thread: one. The line is wiped with the object.
class Progress {
public:
    explicit Progress(const char* task);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(std::uint64_t recordCount);
    void show(std::uint64_t doneBytes, std::uint64_t totalBytes);

private:
    bool isDue_();

    const char* const task_;
    const bool isShown_;
    bool hasLine_ = false;
    std::chrono::steady_clock::time_point nextAt_;
};

} // namespace znstore
