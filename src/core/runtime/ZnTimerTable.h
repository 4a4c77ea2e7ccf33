#pragma once

#include <array>
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
/// Two groups, as the pool may have room for lanes 0 and 1 when it has none for the others.
///
/// Thread: none of its own; the application guards it.
class ZnTimerTable {
public:
    /// Adds a timer that is due at `dueNs`. The id is never negative and not in use.
    std::shared_ptr<ZnTimerRecord> add(std::function<void()> callback, long long intervalNs, bool singleShot, int lane,
                                       long long dueNs);
    /// Cancels; false when there is no such timer. The record is given back, so that its callback can be destroyed
    /// where that is safe.
    std::shared_ptr<ZnTimerRecord> remove(int id);
    static constexpr std::size_t kGroupCount = 2;

    /// The timer of a group that is due next (ties: the older id), or null.
    const ZnTimerRecord* next(std::size_t group) const {
        return heaps_[group].empty() ? nullptr : heaps_[group].front().get();
    }
    /// When the next timer of any group is due; -1 without timers.
    long long nextDueNs() const;
    /// Takes next() out of the order: its closure is on its way.
    std::shared_ptr<ZnTimerRecord> takeNext(std::size_t group);
    /// Puts a record that was taken back in line, due at `dueNs`. A cancelled one is ignored.
    void putBack(const std::shared_ptr<ZnTimerRecord>& record, long long dueNs);
    /// Forgets a record that was taken and will not be put back.
    void forget(int id) { byId_.erase(id); }
    std::size_t size() const noexcept { return byId_.size(); }
    /// Marks every record as cancelled: closures under way will not call their callbacks.
    void cancelAll();

private:
    using Heap_ = std::vector<std::shared_ptr<ZnTimerRecord>>; // binary, by due time and id

    static bool isEarlier_(const ZnTimerRecord& left, const ZnTimerRecord& right);
    static void place_(Heap_& heap, std::size_t index, std::shared_ptr<ZnTimerRecord> record);
    static void siftUp_(Heap_& heap, std::size_t index);
    static void siftDown_(Heap_& heap, std::size_t index);
    static void takeFromHeap_(Heap_& heap, std::size_t index);
    Heap_& heapOf_(const ZnTimerRecord& record) { return heaps_[record.lane == 0 || record.lane == 1 ? 0 : 1]; }

    std::unordered_map<int, std::shared_ptr<ZnTimerRecord>> byId_;
    std::array<Heap_, kGroupCount> heaps_; // lanes 0 and 1, the others
    int nextId_ = 0;
};
