#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

/// One timer of an application.
struct ZnTimerRecord {
    int id = 0;
    std::function<void()> callback;
    long long intervalNs = 0;
    bool singleShot = false;
    int lane = 0;
    long long dueNs = 0;
    std::size_t heapIndex = 0;          // its place in the table's heap while it waits there
    bool waiting = false;               // in the heap; otherwise its closure is queued or runs
    std::atomic<bool> cancelled{false}; // set by removal; the closure tests it
};

/// The timers of an application, the one that is due next on top: a pass costs nothing for those that are not due.
///
/// Thread: none of its own; the application guards it.
class ZnTimerTable {
public:
    /// Adds a timer that is due at `dueNs`. The id is never negative and not in use.
    std::shared_ptr<ZnTimerRecord> add(std::function<void()> callback, long long intervalNs, bool singleShot, int lane,
                                       long long dueNs);
    /// Cancels; false when there is no such timer. The record is given back, so that its callback can be destroyed where
    /// that is safe.
    std::shared_ptr<ZnTimerRecord> remove(int id);
    /// The timer that is due next (ties: the older id), or null.
    const std::shared_ptr<ZnTimerRecord>* next() const { return heap_.empty() ? nullptr : &heap_.front(); }
    /// Takes next() out of the order: its closure is on its way.
    std::shared_ptr<ZnTimerRecord> takeNext();
    /// Puts a record that was taken back in line, due at `dueNs`. A cancelled one is ignored.
    void putBack(const std::shared_ptr<ZnTimerRecord>& record, long long dueNs);
    /// Forgets a record that was taken and will not be put back.
    void forget(int id) { byId_.erase(id); }
    std::size_t size() const noexcept { return byId_.size(); }
    /// Marks every record as cancelled: closures under way will not call their callbacks.
    void cancelAll();

private:
    static bool isEarlier_(const ZnTimerRecord& left, const ZnTimerRecord& right);
    void place_(std::size_t index, std::shared_ptr<ZnTimerRecord> record);
    void siftUp_(std::size_t index);
    void siftDown_(std::size_t index);
    void takeFromHeap_(std::size_t index);

    std::unordered_map<int, std::shared_ptr<ZnTimerRecord>> byId_;
    std::vector<std::shared_ptr<ZnTimerRecord>> heap_; // binary, by due time and id
    int nextId_ = 0;
};
