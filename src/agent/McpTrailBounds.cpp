#include "agent/McpTrailBounds.h"

#include "agent/McpTime.h"
#include "agent/McpTrailRecord.h"

namespace {

constexpr std::size_t kBatchCalls = 1000;
/// What is left when there were too many bytes: so that not every few calls make the store write itself anew.
constexpr double kShareThatStays = 0.75;

/// Removes up to `count` calls, the first of `calls`, in batches, which leave others time to write.
ZnEmbeddedDbStatus removeCalls(ZnEmbeddedDb& store, ZnEmbeddedDbIterator calls, std::uint64_t count,
                               const std::function<bool()>& mayGoOn, std::uint64_t* removedCount) {
    ZnEmbeddedDbBatch batch;
    const auto write = [&] {
        ZnEmbeddedDbStatus status = store.write(batch);
        *removedCount += batch.size();
        batch.clear();
        return status;
    };
    for (; calls.valid() && *removedCount + batch.size() < count && mayGoOn(); calls.next()) {
        batch.remove(calls.key());
        if (batch.size() < kBatchCalls)
            continue;
        if (ZnEmbeddedDbStatus status = write(); !status.isOk())
            return status;
    }
    return calls.status().isOk() ? write() : calls.status();
}

ZnEmbeddedDbRange allCalls() {
    ZnEmbeddedDbRange range;
    range.prefix = ZnByteArray(mcp::kTrailPrefix);
    range.keysOnly = true;
    return range;
}

std::uint64_t countOf(ZnEmbeddedDbIterator calls) {
    std::uint64_t count = 0;
    for (; calls.valid(); calls.next())
        ++count;
    return count;
}

} // namespace

ZnEmbeddedDbStatus McpTrailBounds::enforce(ZnEmbeddedDb& store, long long nowUs,
                                           const std::function<bool()>& mayGoOn) const {
    ZnEmbeddedDbRange oldDays;
    oldDays.end = ZnByteArray(mcp::dayText(nowUs - (maxDays_ - 1) * mcp::kUsPerDay).view());
    oldDays.keysOnly = true;
    std::uint64_t removedCount = 0;
    ZnEmbeddedDbStatus status =
        removeCalls(store, store.indexScan(mcp::kTrailDayIndex, oldDays), oldDays.limit, mayGoOn, &removedCount);
    if (status.isOk() && removedCount > 0 && mayGoOn())
        status = store.compact(); // before the bytes are looked at
    if (!status.isOk() || !mayGoOn() || !isExceeded(store))
        return status;
    const double share = 1.0 - kShareThatStays * static_cast<double>(maxBytes_) / static_cast<double>(bytesOf_(store));
    const auto count = static_cast<std::uint64_t>(share * static_cast<double>(countOf(store.scan(allCalls()))));
    removedCount = 0;
    status = removeCalls(store, store.scan(allCalls()), count, mayGoOn, &removedCount);
    return status.isOk() && removedCount > 0 && mayGoOn() ? store.compact() : status;
}

/// Not those of the log, which no removal makes smaller.
std::uint64_t McpTrailBounds::bytesOf_(const ZnEmbeddedDb& store) {
    const ZnEmbeddedDbStats stats = store.stats();
    return stats.tableBytes + stats.blobBytes;
}
