#include "core/storage/embeddeddb/ZnEmbeddedDbFlushScheduler.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/storage/embeddeddb/MaintenanceScheduler_.h"
#include "core/storage/embeddeddb/MemtableFlush_.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr const char* kCategory = "zn.core.storage.znembeddeddb";
constexpr long long kNsPerMs = 1'000'000;
constexpr long long kFirstRetryNs = 1000 * kNsPerMs;
constexpr long long kLastRetryNs = 60 * kFirstRetryNs;

std::uint64_t maxSequenceOf(SharedMemtable_& memtable) {
    const MemtableReadScope_ scope(memtable.lock);
    return memtable.table.maxSequence();
}

} // namespace

void FlushScheduler_::reset() {
    flushRunning_ = false;
    demandedSequence_ = 0;
    lastFailure_ = {};
    retryNs_ = kNever;
    retryDelayNs_ = 0;
}

std::size_t FlushScheduler_::fullCount() const {
    return static_cast<std::size_t>(std::count_if(core_.immutableMemtables.begin(), core_.immutableMemtables.end(),
                                                  [](const SealedMemtable_& sealed) { return sealed.isFull; }));
}

bool FlushScheduler_::needsFlush_() const {
    return !core_.immutableMemtables.empty() &&
           (fullCount() > 0 || maxSequenceOf(*core_.immutableMemtables.front().memtable) <= demandedSequence_);
}

void FlushScheduler_::scheduleIfNeeded() {
    if (flushRunning_ || core_.closing || !needsFlush_() || retryNs_ != kNever || !core_.backgroundError.isOk())
        return;
    flushRunning_ = true;
    auto task = [this, generation = core_.openGeneration] { runTask_(generation); };
    auto runnable = std::make_unique<ZnCallableRunnable<decltype(task)>>(std::move(task));
    if (pool_.tryStart(runnable.get(), 0)) {
        static_cast<void>(runnable.release()); // the pool's
        return;
    }
    flushRunning_ = false;
    noteOutcome_({ZnEmbeddedDbStatus::IoError, "no thread for a flush"});
}

long long FlushScheduler_::nextTimerNs() const {
    if (core_.closing) // nothing is scheduled any more: the worker would spin, and never let the mutex go
        return kNever;
    const bool isIdleTimed = core_.options.idleFlushMs != 0 && !flushRunning_ && retryNs_ == kNever &&
                             core_.backgroundError.isOk() && core_.manifest.maxSequence < core_.lastCommittedSequence;
    const long long idleNs = core_.lastWriteNs + core_.options.idleFlushMs * kNsPerMs;
    return isIdleTimed ? std::min(idleNs, retryNs_) : retryNs_;
}

void FlushScheduler_::runTimers(long long nowNs) {
    if (nextTimerNs() > nowNs)
        return;
    if (retryNs_ <= nowNs) {
        retryNs_ = kNever;
    } else {
        core_.sealActive(true);
        demandedSequence_ = core_.lastCommittedSequence;
    }
    scheduleIfNeeded();
}

ZnEmbeddedDbStatus FlushScheduler_::flush() {
    const ZnMutexLocker locker(core_.mutex);
    const ZnEmbeddedDbStatus isClosing(ZnEmbeddedDbStatus::NotAvailable, "database is closing");
    const std::uint64_t generation = core_.openGeneration;
    const std::uint64_t target = core_.lastCommittedSequence;
    if (core_.closing)
        return isClosing;
    core_.sealActive(true);
    demandedSequence_ = std::max(demandedSequence_, target);
    retryNs_ = kNever;
    // A flush that runs already may have begun before the seal: one more failure is not yet the answer.
    const std::uint64_t attemptsBefore = attemptCount_ + (flushRunning_ ? 1 : 0);
    scheduleIfNeeded();
    while (core_.manifest.maxSequence < target && core_.backgroundError.isOk() && !core_.closing &&
           (attemptCount_ <= attemptsBefore || lastFailure_.isOk())) {
        core_.workerCondition.wait(core_.mutex);
        if (core_.openGeneration != generation)
            return isClosing;
        retryNs_ = kNever; // whoever asks does not wait for the timer
        scheduleIfNeeded();
    }
    if (!core_.backgroundError.isOk()) // then what is in tables may yet be lost
        return core_.backgroundError;
    if (core_.manifest.maxSequence >= target)
        return {};
    return core_.closing ? isClosing : lastFailure_;
}

void FlushScheduler_::runTask_(std::uint64_t generation) {
    const ZnMutexLocker locker(core_.mutex);
    if (core_.openGeneration != generation) // closed, and perhaps opened again, since it was scheduled
        return;
    while (needsFlush_() && !core_.closing && core_.backgroundError.isOk()) {
        const ZnEmbeddedDbStatus status = flushOldest_();
        noteOutcome_(status);
        if (!status.isOk())
            break;
    }
    flushRunning_ = false;
    core_.workerCondition.notify_all();
    core_.commitCondition.notify_all(); // the worker's timers
}

/// From the oldest to the first full one; all, when somebody waits for the small ones.
std::size_t FlushScheduler_::inputCount_() const {
    const auto isFull = [](const SealedMemtable_& sealed) { return sealed.isFull; };
    const auto begin = core_.immutableMemtables.begin();
    const auto end = core_.immutableMemtables.end();
    const auto full = std::find_if(begin, end, isFull);
    return static_cast<std::size_t>(full - begin) + (full == end ? 0 : 1);
}

ZnEmbeddedDbStatus FlushScheduler_::flushOldest_() {
    const std::size_t count = inputCount_();
    Memtables_ memtables;
    for (std::size_t index = 0; index < count; ++index) {
        core_.immutableMemtables[index].isFlushing = true;
        memtables.push_back(core_.immutableMemtables[index].memtable);
    }
    ZnEmbeddedDbStatus status = flushMemtablesToTables_(memtables, count);
    core_.mutex.unlock();
    memtables.clear(); // which takes its time for a large one that nobody else holds
    core_.mutex.lock();
    if (!status.isOk())
        for (std::size_t index = 0; index < std::min(count, core_.immutableMemtables.size()); ++index)
            core_.immutableMemtables[index].isFlushing = false;
    return status;
}

/// `sealedCount` of the memtables are still in the line, at its front.
ZnEmbeddedDbStatus FlushScheduler_::flushMemtablesToTables_(const Memtables_& memtables, std::size_t sealedCount) {
    const auto nextTableId = [this] {
        const ZnMutexLocker locker(core_.mutex);
        return core_.manifest.nextTableId++;
    };
    core_.flushFirstFileId = core_.manifest.nextTableId;
    std::optional<MemtableFlush_> flush;
    core_.mutex.unlock();
    ZnEmbeddedDbStatus status = statusOf([&] {
        flush.emplace(
            core_.files, core_.paths, *core_.counters,
            MemtableFlush_::Settings{0, core_.options.blobThresholdBytes, {core_.options.verifyFilters}, nextTableId},
            memtables);
        const ZnEmbeddedDbStatus written = flush->run();
        core_.syncPoints.reach("flush.written");
        return written;
    });
    core_.mutex.lock();
    core_.noteSyncFailure();
    if (status.isOk())
        status = commit_(*flush, sealedCount);
    // Whose name or content may be lost is not known to be out of force either: it stays until the next opening.
    if (!status.isOk() && flush.has_value() && core_.isOldManifestInForce()) {
        core_.mutex.unlock();
        flush->removeFiles();
        core_.mutex.lock();
    }
    core_.flushFirstFileId = 0;
    return status;
}

ZnEmbeddedDbStatus FlushScheduler_::commit_(const MemtableFlush_& flush, std::size_t sealedCount) {
    TableChange_ change{flush.tables(), {}, flush.maxSequence(), sealedCount};
    if (ZnEmbeddedDbStatus status = core_.commitTables(change); !status.isOk())
        return status;
    if (core_.backgroundError.isOk()) // else the manifest's name may be lost
        core_.durableSequence = std::max(core_.durableSequence, flush.maxSequence());
    core_.counters->flushCount.add();
    core_.workerCondition.notify_all();
    if (!core_.closing)
        core_.collectObsoleteWalFiles();
    // It let go of the mutex. While the store is being opened nothing begins that a failure would have to wait for.
    if (!core_.closing && flushRunning_) {
        maintenance_.assumeLocked();
        maintenance_.scheduleL0CompactionIfNeeded();
        maintenance_.scheduleBlobGcIfNeeded();
    }
    return {};
}

void FlushScheduler_::noteOutcome_(const ZnEmbeddedDbStatus& status) {
    ++attemptCount_;
    lastFailure_ = status;
    core_.workerCondition.notify_all();
    if (status.isOk()) {
        retryDelayNs_ = 0;
        return;
    }
    core_.counters->flushFailedCount.add();
    retryDelayNs_ = retryDelayNs_ == 0 ? kFirstRetryNs : std::min(2 * retryDelayNs_, kLastRetryNs);
    retryNs_ = monotonicNowNs() + retryDelayNs_;
    core_.commitCondition.notify_all(); // the worker's timer
    ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::flushMemtableToTables") << core_.paths.rootPath << ": " << status.message();
}

ZnEmbeddedDbStatus FlushScheduler_::flushRecovered() {
    const ZnMutexLocker locker(core_.mutex);
    Memtables_ memtables;
    for (const SealedMemtable_& sealed : core_.immutableMemtables)
        memtables.push_back(sealed.memtable);
    if (memtables.empty())
        return {};
    ZnEmbeddedDbStatus status = flushMemtablesToTables_(memtables, memtables.size());
    return status.isOk() ? core_.backgroundError : status;
}

/// Readers see them until the tables are in force: not even while the store closes does it show what was before.
FlushScheduler_::Memtables_ FlushScheduler_::sealAll_() {
    const ZnMutexLocker locker(core_.mutex);
    while (flushRunning_) // its memtables must not be flushed twice
        core_.workerCondition.wait(core_.mutex);
    core_.sealActive(true);
    Memtables_ memtables;
    for (const SealedMemtable_& sealed : core_.immutableMemtables)
        memtables.push_back(sealed.memtable);
    return memtables;
}

void FlushScheduler_::flushSealed_(const Memtables_& memtables) {
    const ZnMutexLocker locker(core_.mutex);
    ZnEmbeddedDbStatus status;
    if (!memtables.empty()) {
        status = flushMemtablesToTables_(memtables, memtables.size());
    } else {
        status = core_.commitTables({});
    }
    if (!status.isOk())
        ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::flushAllSync") << core_.paths.rootPath << ": " << status.message();
}

} // namespace znEmbeddedDbDetail
