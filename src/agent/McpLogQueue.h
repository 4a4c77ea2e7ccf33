#pragma once

#include "core/types/ZnMutex.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

/// Lines on their way to the thread that writes them, in pieces of many lines. A line for which there is no room is
/// dropped and counted, and a line of its own says how many as soon as there is room again.
///
/// Thread: any.
class McpLogQueue {
public:
    static constexpr std::size_t kMaxBytes = 4194304; // that are not written
    static constexpr std::size_t kPieceBytes = 65536;
    static constexpr int kGatherMs = 10; // waking the writer for each line would cost more than the line

    /// `lossLine`: the line that says how many were dropped.
    explicit McpLogQueue(std::function<std::string(std::uint64_t lostCount)> lossLine)
        : lossLine_(std::move(lossLine)) {}

    /// Never waits. `line` ends with its line end.
    void append(std::string_view line);
    std::uint64_t droppedCount() const;

    /// Waits for lines, and a little for more of them. False when the end has come and every line was taken.
    bool take(std::string* piece);
    /// What was taken needs no room any more.
    void release(std::size_t byteCount);
    /// Waits for so long, or until the end comes.
    void pause(int ms);

    /// No line comes any more. What is there can still be taken.
    void end();
    bool hasEnded() const;
    /// The writer has come to its end.
    void finish();
    /// Waits until then, for `ms` at most; whether it has come.
    bool waitForFinish(int ms);

private:
    void put_(std::string_view line) ZN_REQUIRES(lock_);
    void tellLoss_() ZN_REQUIRES(lock_);

    const std::function<std::string(std::uint64_t)> lossLine_;
    mutable ZnMutex lock_; // leaf
    std::condition_variable_any changed_;
    std::deque<std::string> pieces_ ZN_GUARDED_BY(lock_);
    std::size_t heldBytes_ ZN_GUARDED_BY(lock_) = 0;   // of pieces_, and what was taken and is not written
    std::uint64_t lostCount_ ZN_GUARDED_BY(lock_) = 0; // dropped, and not told yet
    std::uint64_t droppedCount_ ZN_GUARDED_BY(lock_) = 0;
    bool hasEnded_ ZN_GUARDED_BY(lock_) = false;
    bool isFinished_ ZN_GUARDED_BY(lock_) = false;
};
