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
        takeFromHeap_(heapOf_(*record), record->heapIndex);
    return record;
}

long long ZnTimerTable::nextDueNs() const {
    long long dueNs = -1;
    for (const Heap_& heap : heaps_) {
        if (!heap.empty() && (dueNs < 0 || heap.front()->dueNs < dueNs))
            dueNs = heap.front()->dueNs;
    }
    return dueNs;
}

std::shared_ptr<ZnTimerRecord> ZnTimerTable::takeNext(std::size_t group) {
    std::shared_ptr<ZnTimerRecord> record = heaps_[group].front();
    takeFromHeap_(heaps_[group], 0);
    return record;
}

void ZnTimerTable::putBack(const std::shared_ptr<ZnTimerRecord>& record, long long dueNs) {
    if (record->cancelled.load(std::memory_order_acquire) || record->waiting)
        return;
    record->dueNs = dueNs;
    record->waiting = true;
    Heap_& heap = heapOf_(*record);
    heap.push_back(record);
    record->heapIndex = heap.size() - 1;
    siftUp_(heap, record->heapIndex);
}

void ZnTimerTable::cancelAll() {
    for (const auto& [id, record] : byId_)
        record->cancelled.store(true, std::memory_order_release);
}

bool ZnTimerTable::isEarlier_(const ZnTimerRecord& left, const ZnTimerRecord& right) {
    return left.dueNs != right.dueNs ? left.dueNs < right.dueNs : left.id < right.id;
}

void ZnTimerTable::place_(Heap_& heap, std::size_t index, std::shared_ptr<ZnTimerRecord> record) {
    record->heapIndex = index;
    heap[index] = std::move(record);
}

void ZnTimerTable::siftUp_(Heap_& heap, std::size_t index) {
    std::shared_ptr<ZnTimerRecord> record = std::move(heap[index]);
    while (index > 0) {
        const std::size_t parent = (index - 1) / 2;
        if (!isEarlier_(*record, *heap[parent]))
            break;
        place_(heap, index, std::move(heap[parent]));
        index = parent;
    }
    place_(heap, index, std::move(record));
}

void ZnTimerTable::siftDown_(Heap_& heap, std::size_t index) {
    std::shared_ptr<ZnTimerRecord> record = std::move(heap[index]);
    for (;;) {
        std::size_t child = 2 * index + 1;
        if (child >= heap.size())
            break;
        if (child + 1 < heap.size() && isEarlier_(*heap[child + 1], *heap[child]))
            ++child;
        if (!isEarlier_(*heap[child], *record))
            break;
        place_(heap, index, std::move(heap[child]));
        index = child;
    }
    place_(heap, index, std::move(record));
}

void ZnTimerTable::takeFromHeap_(Heap_& heap, std::size_t index) {
    heap[index]->waiting = false;
    std::shared_ptr<ZnTimerRecord> last = std::move(heap.back());
    heap.pop_back();
    if (index == heap.size())
        return;
    place_(heap, index, std::move(last));
    siftUp_(heap, index);
    siftDown_(heap, index); // moves at most one of the two ways
}
