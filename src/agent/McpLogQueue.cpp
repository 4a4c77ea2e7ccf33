#include "agent/McpLogQueue.h"

#include <chrono>
#include <utility>

void McpLogQueue::append(std::string_view line) {
    const ZnMutexLocker locker(lock_);
    tellLoss_();
    if (hasEnded_ || lostCount_ > 0 || heldBytes_ + line.size() > kMaxBytes) {
        ++lostCount_;
        ++droppedCount_;
        return;
    }
    put_(line);
}

void McpLogQueue::put_(std::string_view line) {
    const bool isNewPiece = pieces_.empty() || pieces_.back().size() + line.size() > kPieceBytes;
    if (isNewPiece)
        pieces_.emplace_back();
    pieces_.back().append(line);
    heldBytes_ += line.size();
    if (isNewPiece) // else the writer knows already that there is something
        changed_.notify_all();
}

/// Once a piece has been written: the room of a single line would not be worth it.
void McpLogQueue::tellLoss_() {
    if (lostCount_ == 0 || heldBytes_ + kPieceBytes > kMaxBytes)
        return;
    put_(lossLine_(std::exchange(lostCount_, 0)));
}

std::uint64_t McpLogQueue::droppedCount() const {
    const ZnMutexLocker locker(lock_);
    return droppedCount_;
}

bool McpLogQueue::take(std::string* piece) {
    const ZnMutexLocker locker(lock_);
    while (pieces_.empty() && !hasEnded_)
        changed_.wait(lock_);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(kGatherMs);
    while (pieces_.size() == 1 && !hasEnded_ && changed_.wait_until(lock_, limit) == std::cv_status::no_timeout) {
    }
    if (pieces_.empty())
        return false;
    *piece = std::move(pieces_.front());
    pieces_.pop_front();
    return true;
}

void McpLogQueue::release(std::size_t byteCount) {
    const ZnMutexLocker locker(lock_);
    heldBytes_ -= byteCount;
    tellLoss_();
}

void McpLogQueue::pause(int ms) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    const ZnMutexLocker locker(lock_);
    while (!hasEnded_ && changed_.wait_until(lock_, limit) == std::cv_status::no_timeout) {
    }
}

void McpLogQueue::end() {
    const ZnMutexLocker locker(lock_);
    hasEnded_ = true;
    changed_.notify_all();
}

bool McpLogQueue::hasEnded() const {
    const ZnMutexLocker locker(lock_);
    return hasEnded_;
}

void McpLogQueue::finish() {
    const ZnMutexLocker locker(lock_);
    isFinished_ = true;
    changed_.notify_all();
}

bool McpLogQueue::waitForFinish(int ms) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    const ZnMutexLocker locker(lock_);
    while (!isFinished_ && changed_.wait_until(lock_, limit) == std::cv_status::no_timeout) {
    }
    return isFinished_;
}
