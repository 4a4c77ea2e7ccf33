#include "core/runtime/ZnTimerTable.h"

#include <climits>
#include <utility>

std::shared_ptr<ZnTimerRecord> ZnTimerTable::add(std::function<void()> callback, long long intervalNs, bool singleShot,
                                                 int lane, long long dueNs) {
    auto record = std::make_shared<ZnTimerRecord>();
    do { // ids start again from 0 after two thousand million timers; those in use are left out
        record->id = nextId_;
        nextId_ = nextId_ == INT_MAX ? 0 : nextId_ + 1;
    } while (!byId_.emplace(record->id, record).second);
    record->callback = std::move(callback);
    record->intervalNs = intervalNs;
    record->singleShot = singleShot;
    record->lane = lane;
    putBack(record, dueNs);
    return record;
}

std::shared_ptr<ZnTimerRecord> ZnTimerTable::remove(int id) {
    const auto at = byId_.find(id);
    if (at == byId_.end())
        return nullptr;
    std::shared_ptr<ZnTimerRecord> record = std::move(at->second);
    byId_.erase(at);
    record->cancelled.store(true, std::memory_order_release);
    if (record->waiting)
        takeFromHeap_(record->heapIndex);
    return record;
}

std::shared_ptr<ZnTimerRecord> ZnTimerTable::takeNext() {
    std::shared_ptr<ZnTimerRecord> record = heap_.front();
    takeFromHeap_(0);
    return record;
}

void ZnTimerTable::putBack(const std::shared_ptr<ZnTimerRecord>& record, long long dueNs) {
    if (record->cancelled.load(std::memory_order_acquire) || record->waiting)
        return;
    record->dueNs = dueNs;
    record->waiting = true;
    heap_.push_back(record);
    record->heapIndex = heap_.size() - 1;
    siftUp_(record->heapIndex);
}

void ZnTimerTable::cancelAll() {
    for (const auto& [id, record] : byId_)
        record->cancelled.store(true, std::memory_order_release);
}

bool ZnTimerTable::isEarlier_(const ZnTimerRecord& left, const ZnTimerRecord& right) {
    return left.dueNs != right.dueNs ? left.dueNs < right.dueNs : left.id < right.id;
}

void ZnTimerTable::place_(std::size_t index, std::shared_ptr<ZnTimerRecord> record) {
    record->heapIndex = index;
    heap_[index] = std::move(record);
}

void ZnTimerTable::siftUp_(std::size_t index) {
    std::shared_ptr<ZnTimerRecord> record = std::move(heap_[index]);
    while (index > 0) {
        const std::size_t parent = (index - 1) / 2;
        if (!isEarlier_(*record, *heap_[parent]))
            break;
        place_(index, std::move(heap_[parent]));
        index = parent;
    }
    place_(index, std::move(record));
}

void ZnTimerTable::siftDown_(std::size_t index) {
    std::shared_ptr<ZnTimerRecord> record = std::move(heap_[index]);
    for (;;) {
        std::size_t child = 2 * index + 1;
        if (child >= heap_.size())
            break;
        if (child + 1 < heap_.size() && isEarlier_(*heap_[child + 1], *heap_[child]))
            ++child;
        if (!isEarlier_(*heap_[child], *record))
            break;
        place_(index, std::move(heap_[child]));
        index = child;
    }
    place_(index, std::move(record));
}

void ZnTimerTable::takeFromHeap_(std::size_t index) {
    heap_[index]->waiting = false;
    std::shared_ptr<ZnTimerRecord> last = std::move(heap_.back());
    heap_.pop_back();
    if (index == heap_.size())
        return;
    place_(index, std::move(last));
    siftUp_(index);
    siftDown_(index); // moves at most one of the two ways
}
