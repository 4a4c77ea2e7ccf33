#include "core/storage/embeddeddb/CommitQueue_.h"

#include "core/platform/ZnMonotonicClock.h"
#include "core/storage/embeddeddb/MaintenanceScheduler_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbFlushScheduler.h"
#include "core/types/ZnAssert.h"
#include "core/types/ZnLogger.h"
#include "core/types/ZnMutexUnlocker.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <random>
#include <system_error>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr const char* kCategory = "zn.core.storage.znembeddeddb";
constexpr std::size_t kGroupBytes = 1024 * 1024;
constexpr std::size_t kSmallGroupBytes = 128 * 1024;
constexpr std::uint64_t kLeastWalLimitBytes = 64 * 1024 * 1024;
constexpr std::size_t kSlowLevel0Tables = 8;      // of one kind: writers are slowed down
constexpr std::size_t kVerySlowLevel0Tables = 20; // by more with every further one
constexpr std::uint64_t kBytesPerDelay = 64 * 1024;
constexpr long long kLongestDelayMs = 50;
constexpr long long kLongestGroupWaitNs = 1'000'000;
constexpr long long kNsPerMs = 1'000'000;

ZnEmbeddedDbStatus closingStatus() {
    return {ZnEmbeddedDbStatus::NotAvailable, "database is closing"};
}

std::uint64_t randomSalt() {
    std::random_device device;
    return (std::uint64_t(device()) << 32) ^ device();
}

} // namespace

/// Holds commitActive_, with the mutex held at either end.
class CommitQueue_::ActiveScope_ {
public:
    explicit ActiveScope_(CommitQueue_& queue) ZN_NO_THREAD_SAFETY_ANALYSIS : queue_(queue) {
        queue_.commitActive_ = true;
    }
    ~ActiveScope_() ZN_NO_THREAD_SAFETY_ANALYSIS { queue_.leave_(); }
    ActiveScope_(const ActiveScope_&) = delete;
    ActiveScope_& operator=(const ActiveScope_&) = delete;

private:
    CommitQueue_& queue_;
};

CommitQueue_::CommitQueue_(StoreCore_& core, FlushScheduler_& flushes, MaintenanceScheduler_& maintenance)
    : core_(core), flushes_(flushes), maintenance_(maintenance), log_(core.files) {}

ZnEmbeddedDbStatus CommitQueue_::beginLog() {
    const ZnMutexLocker locker(core_.mutex);
    const std::uint64_t walId = core_.manifest.nextWalId;
    log_ = WalWriter_(core_.files);
    failedWalId_ = 0;
    wantsNextLog_ = false;
    delayedWalBytes_ = 0;
    if (ZnEmbeddedDbStatus status = createLog_(walId, core_.lastCommittedSequence, &log_); !status.isOk())
        return status;
    logBytes_ = log_.fileBytes();
    core_.manifest.activeWalId = walId;
    core_.manifest.nextWalId = walId + 1;
    nextSequence_ = core_.lastCommittedSequence + 1;
    return {};
}

/// In place of what an attempt that failed may have left; anything else that has the name is left alone.
ZnEmbeddedDbStatus CommitQueue_::createLog_(std::uint64_t walId, std::uint64_t previousSequence, WalWriter_* log) {
    const ZnString path = walPath(core_.paths, walId);
    ZnEmbeddedDbStatus status;
    if (failedWalId_ == walId)
        core_.files.remove(path); // it may still be there
    if (!log->isOpen())
        status = log->prepare(core_.paths.walDir, walId);
    if (status.isOk())
        status = log->begin({walId, previousSequence, randomSalt()});
    failedWalId_ = status.isOk() ? 0 : walId;
    if (!status.isOk())
        core_.files.remove(path); // writes go on in the old log
    return status;
}

/// While writers go on: syncs most of this log, and makes the file of the next one, so that the change of logs has
/// little to wait for. What fails here fails there again.
void CommitQueue_::prepareLog_() {
    const std::uint64_t walId = core_.manifest.nextWalId;
    const ZnString currentPath = walPath(core_.paths, core_.manifest.activeWalId);
    wantsNextLog_ = false;
    preparesLog_ = true;
    std::unique_ptr<WalWriter_> log;
    bool isPrepared = false;
    {
        const ZnMutexUnlocker unlocker(core_.mutex);
        RandomAccessFile_ current(core_.files); // of its own: the log's belongs to whoever commits
        if (current.open(currentPath, RandomAccessFile_::Mode::ReadWrite))
            current.flushData();
        log = std::make_unique<WalWriter_>(core_.files);
        isPrepared = log->prepare(core_.paths.walDir, walId).isOk();
    }
    core_.noteSyncFailure();
    if (isPrepared)
        nextLog_ = std::move(log);
    else
        failedWalId_ = walId;
    preparesLog_ = false;
    core_.workerCondition.notify_all();
}

void CommitQueue_::closeLog() {
    const ZnMutexLocker locker(core_.mutex);
    log_.close();
    if (nextLog_ != nullptr)
        core_.files.remove(walPath(core_.paths, core_.manifest.nextWalId));
    nextLog_ = nullptr;
}

ZnEmbeddedDbStatus CommitQueue_::startCommitWorker() {
    const ZnMutexLocker locker(core_.mutex);
    commitStopRequested_ = false;
    syncRequested_ = false;
    periodicDueNs_ = 0;
    expectedWriters_ = 0;
    try {
        commitThread_ = std::thread([this] { runWorker_(); });
    } catch (const std::system_error& error) {
        return {ZnEmbeddedDbStatus::IoError, ZnString("no thread for the commit worker: ") + error.what()};
    }
    commitWorkerRunning_ = true;
    return {};
}

ZnEmbeddedDbStatus CommitQueue_::refusal_() const {
    if (core_.closing)
        return closingStatus();
    if (!commitWorkerRunning_ && core_.backgroundError.isOk())
        return {ZnEmbeddedDbStatus::NotAvailable, "database is not open"};
    return core_.backgroundError;
}

/// A synced write does not when others are about to come: one sync for all of them is better than two.
bool CommitQueue_::mayLead_(const PendingWrite_& write) const {
    return !commitActive_ && pendingWrites_.empty() && !(write.isSynced && expectedWriters_ > 1);
}

ZnEmbeddedDbStatus CommitQueue_::commit(const WritePtr_& write) {
    {
        const ZnMutexLocker locker(core_.mutex);
        if (ZnEmbeddedDbStatus status = refusal_(); !status.isOk())
            return status;
        if (mayLead_(*write)) {
            const ActiveScope_ scope(*this);
            return commitOrFail_({&write, 1});
        }
        enqueue_(write);
    }
    std::unique_lock lock(write->mutex);
    write->condition.wait(lock, [&] { return write->done; });
    return write->status;
}

/// Wakes the worker when it may have something to do, and when all have come that it waits for.
void CommitQueue_::enqueue_(WritePtr_ write) {
    pendingWrites_.push_back(std::move(write));
    if (pendingWrites_.size() == 1 || pendingWrites_.size() == expectedWriters_)
        core_.commitCondition.notify_one();
}

void CommitQueue_::commitAsync(const WritePtr_& write) {
    ZnEmbeddedDbStatus status;
    {
        const ZnMutexLocker locker(core_.mutex);
        status = refusal_();
        if (status.isOk()) {
            enqueue_(write);
        }
    }
    if (!status.isOk())
        callBack_(*write, status);
}

ZnEmbeddedDbStatus CommitQueue_::sync(bool forClose) {
    const ZnMutexLocker locker(core_.mutex);
    if (core_.closing && !forClose)
        return closingStatus();
    if (!core_.backgroundError.isOk())
        return core_.backgroundError;
    const std::uint64_t target = core_.lastCommittedSequence;
    if (core_.durableSequence >= target && pendingWrites_.empty())
        return {};
    syncRequested_ = true;
    core_.commitCondition.notify_one();
    const std::uint64_t generation = core_.openGeneration;
    while (core_.backgroundError.isOk() && core_.durableSequence < target &&
           (commitWorkerRunning_ || !pendingWrites_.empty())) {
        core_.workerCondition.wait(core_.mutex);
        if (core_.openGeneration != generation)
            return closingStatus();
    }
    if (!core_.backgroundError.isOk() || core_.durableSequence >= target)
        return core_.backgroundError;
    return {ZnEmbeddedDbStatus::IoError, "failed to durably flush pending writes"};
}

void CommitQueue_::stopCommitWorker() {
    {
        const ZnMutexLocker locker(core_.mutex);
        commitStopRequested_ = true;
    }
    core_.commitCondition.notify_all();
    if (commitThread_.joinable())
        commitThread_.join();
    const ZnMutexLocker locker(core_.mutex);
    while (commitActive_) // a writer that commits on its own thread
        core_.workerCondition.wait(core_.mutex);
    commitWorkerRunning_ = false;
    commitStopRequested_ = false;
    syncRequested_ = false;
    core_.workerCondition.notify_all();
}

void CommitQueue_::failPendingWrites() {
    Group_ group;
    {
        const ZnMutexLocker locker(core_.mutex);
        group.assign(pendingWrites_.begin(), pendingWrites_.end());
        pendingWrites_.clear();
    }
    finish_(group, closingStatus());
}

std::uint64_t CommitQueue_::logBytes() {
    const ZnMutexLocker locker(core_.mutex);
    return logBytes_;
}

/// Ends in any case by saying so, so that nobody waits for a worker that has ended.
void CommitQueue_::runWorker_() {
    const ZnMutexLocker locker(core_.mutex);
    try {
        while (!commitStopRequested_ || commitActive_)
            runOnce_();
        if (hasUnsynced_() && core_.backgroundError.isOk())
            static_cast<void>(syncLog_()); // a failure is told by the background error
    } catch (const std::exception& exception) {
        core_.setBackgroundError(
            {ZnEmbeddedDbStatus::IoError, ZnString("the commit worker ended: ") + exception.what()});
    }
    commitWorkerRunning_ = false;
    core_.workerCondition.notify_all();
    if (core_.backgroundError.isOk() || pendingWrites_.empty())
        return;
    Group_ abandoned(pendingWrites_.begin(), pendingWrites_.end());
    const ZnEmbeddedDbStatus status = core_.backgroundError;
    pendingWrites_.clear();
    const ZnMutexUnlocker unlocker(core_.mutex);
    finish_(abandoned, status);
}

void CommitQueue_::runOnce_() {
    flushes_.assumeLocked();
    waitForWork_();
    flushes_.runTimers(monotonicNowNs());
    if (wantsNextLog_ && !preparesLog_)
        prepareLog_();
    if (commitActive_ || commitStopRequested_)
        return;
    const ActiveScope_ scope(*this);
    if (!pendingWrites_.empty()) {
        Group_ group;
        waitForGroup_();
        takeGroup_(&group);
        const ZnEmbeddedDbStatus status = commitOrFail_(group);
        const ZnMutexUnlocker unlocker(core_.mutex);
        finish_(group, status);
    } else if (wantsSync_(monotonicNowNs()) && hasUnsynced_() && core_.backgroundError.isOk()) {
        static_cast<void>(syncLog_()); // as above
    }
}

bool CommitQueue_::hasUnsynced_() const {
    return core_.durableSequence < core_.lastCommittedSequence;
}

bool CommitQueue_::wantsSync_(long long nowNs) const {
    return syncRequested_ || (periodicDueNs_ != 0 && periodicDueNs_ <= nowNs);
}

bool CommitQueue_::hasWork_(long long nowNs) const {
    flushes_.assumeLocked();
    if ((wantsNextLog_ && !preparesLog_) || flushes_.nextTimerNs() <= nowNs)
        return true;
    if (commitActive_)
        return false;
    return commitStopRequested_ || !pendingWrites_.empty() || wantsSync_(nowNs);
}

void CommitQueue_::waitForWork_() {
    flushes_.assumeLocked();
    for (;;) {
        if (!hasUnsynced_() || !core_.backgroundError.isOk()) { // nothing left to do for those who want a sync
            syncRequested_ = false;
            periodicDueNs_ = 0;
        }
        const long long nowNs = monotonicNowNs();
        if (hasWork_(nowNs))
            return;
        long long untilNs = flushes_.nextTimerNs();
        if (periodicDueNs_ > nowNs)
            untilNs = std::min(untilNs, periodicDueNs_);
        if (untilNs == FlushScheduler_::kNever)
            core_.commitCondition.wait(core_.mutex);
        else
            core_.commitCondition.wait_for(core_.mutex, std::chrono::nanoseconds(untilNs - nowNs));
    }
}

/// Those whose writes were synced together come back together. Waiting for them for a fraction of what a sync takes
/// makes one sync of what else would be two.
void CommitQueue_::waitForGroup_() {
    if (!pendingWrites_.front()->isSynced)
        return;
    const long long untilNs = monotonicNowNs() + std::min(syncNs_ / 2, kLongestGroupWaitNs);
    while (pendingWrites_.size() < expectedWriters_ && !commitStopRequested_) {
        const long long leftNs = untilNs - monotonicNowNs();
        if (leftNs <= 0)
            return;
        core_.commitCondition.wait_for(core_.mutex, std::chrono::nanoseconds(leftNs));
    }
}

void CommitQueue_::takeGroup_(Group_* group) {
    std::size_t byteCount = 0;
    std::size_t limit = kGroupBytes;
    group->reserve(pendingWrites_.size()); // a failure below would lose a write that somebody waits for
    while (!pendingWrites_.empty()) {
        const PendingWrite_& next = *pendingWrites_.front();
        const std::size_t frameBytes = next.batch.frameBytes();
        if (group->empty() && frameBytes <= kSmallGroupBytes)
            limit = frameBytes + kSmallGroupBytes;
        if (!group->empty() && (byteCount + frameBytes > limit || (next.isSynced && !group->front()->isSynced)))
            break;
        byteCount += frameBytes;
        group->push_back(std::move(pendingWrites_.front()));
        pendingWrites_.pop_front();
    }
}

/// A failure that nobody has foreseen, as when there is no memory left, leaves the log and the memtable apart: the
/// writes may be in one and not in the other.
ZnEmbeddedDbStatus CommitQueue_::commitOrFail_(GroupView_ group) {
    try {
        return commitGroup_(group);
    } catch (const std::exception& exception) {
        ZnEmbeddedDbStatus status(ZnEmbeddedDbStatus::IoError, ZnString("a commit ended: ") + exception.what());
        core_.setBackgroundError(status);
        return status;
    }
}

ZnEmbeddedDbStatus CommitQueue_::commitGroup_(GroupView_ group) {
    ZnEmbeddedDbStatus status = makeRoom_();
    if (!status.isOk())
        return status;
    const std::uint64_t firstSequence = nextSequence_;
    const bool syncs = syncRequested_ ||
                       std::any_of(group.begin(), group.end(), [](const WritePtr_& write) { return write->isSynced; });
    status = append_(group, syncs);
    if (!status.isOk())
        return status;
    insert_(group, firstSequence);
    if (core_.activeMemtableBytes > core_.options.memtableSizeBytes / 4 * 3 && nextLog_ == nullptr && !preparesLog_ &&
        !wantsNextLog_ && failedWalId_ == 0) {
        wantsNextLog_ = true;
        core_.commitCondition.notify_one();
    }
    if (syncs) {
        core_.durableSequence = std::max(core_.durableSequence, core_.lastCommittedSequence);
        expectedWriters_ = group.size() + pendingWrites_.size();
    } else if (periodicDueNs_ == 0 &&
               std::any_of(group.begin(), group.end(), [](const WritePtr_& write) { return write->isPeriodic; })) {
        periodicDueNs_ = core_.lastWriteNs + core_.options.syncIntervalMs * kNsPerMs;
        core_.commitCondition.notify_one();
    }
    return {};
}

/// Before a group is written: a place for it in memory, and in a log that is not too long.
ZnEmbeddedDbStatus CommitQueue_::makeRoom_() {
    if (ZnEmbeddedDbStatus status = waitForFlush_(); !status.isOk())
        return status;
    if (ZnEmbeddedDbStatus status = waitForCompaction_(); !status.isOk())
        return status;
    const std::uint64_t walLimitBytes = std::max(4 * core_.options.memtableSizeBytes, kLeastWalLimitBytes);
    if (core_.activeMemtableBytes < core_.options.memtableSizeBytes && log_.fileBytes() < walLimitBytes)
        return {};
    return rotate_();
}

ZnEmbeddedDbStatus CommitQueue_::waitForFlush_() {
    flushes_.assumeLocked();
    const long long beganNs = monotonicNowNs();
    bool hasWaited = false;
    flushes_.scheduleIfNeeded(); // what snapshots sealed may have come together to full ones
    const auto isFull = [this] {
        flushes_.assumeLocked();
        return flushes_.fullCount() >= core_.options.maxImmutableMemtables;
    };
    while (isFull() && core_.backgroundError.isOk() && !core_.closing && flushes_.lastFailure().isOk()) {
        hasWaited = true;
        core_.workerCondition.wait(core_.mutex);
    }
    if (hasWaited)
        noteStall_(beganNs);
    if (!core_.backgroundError.isOk() || !isFull())
        return core_.backgroundError;
    return core_.closing ? closingStatus() : flushes_.lastFailure();
}

/// Slows writers down, the more the more tables of level 0 there are: compaction must catch up, and reading gets slow.
/// Never to a stop, as it is flushes that begin compactions. The delay is one for so many bytes, not for a write, so
/// that small writes are not slowed down more than large ones.
ZnEmbeddedDbStatus CommitQueue_::waitForCompaction_() {
    const std::uint64_t walBytes = core_.counters->walBytesWritten.value();
    if (core_.level0Depth < kSlowLevel0Tables || walBytes - delayedWalBytes_ < kBytesPerDelay)
        return {};
    delayedWalBytes_ = walBytes;
    maintenance_.assumeLocked();
    maintenance_.scheduleL0CompactionIfNeeded();
    const std::size_t above = core_.level0Depth - std::min(core_.level0Depth, kVerySlowLevel0Tables);
    const long long delayMs = std::clamp<long long>(static_cast<long long>(above), 1, kLongestDelayMs);
    const long long beganNs = monotonicNowNs();
    const long long untilNs = beganNs + delayMs * kNsPerMs;
    for (long long nowNs = beganNs; nowNs < untilNs && !core_.closing && core_.backgroundError.isOk();
         nowNs = monotonicNowNs())
        core_.workerCondition.wait_for(core_.mutex, std::chrono::nanoseconds(untilNs - nowNs));
    noteStall_(beganNs);
    return core_.closing ? closingStatus() : core_.backgroundError;
}

void CommitQueue_::noteStall_(long long beganNs) {
    core_.counters->stallCount.add();
    core_.counters->stallMicroseconds.add(static_cast<std::uint64_t>((monotonicNowNs() - beganNs) / 1000));
}

/// Begins a new log and a new memtable. The old log is synced first, so that of all logs the last one alone can end in
/// half a frame.
ZnEmbeddedDbStatus CommitQueue_::rotate_() {
    flushes_.assumeLocked();
    const std::uint64_t walId = core_.manifest.nextWalId;
    const std::uint64_t lastSequence = core_.lastCommittedSequence;
    if (ZnEmbeddedDbStatus status = syncLog_(); !status.isOk())
        return status;
    while (preparesLog_)
        core_.workerCondition.wait(core_.mutex);
    WalWriter_ next = nextLog_ == nullptr ? WalWriter_(core_.files) : std::move(*nextLog_);
    nextLog_ = nullptr;
    wantsNextLog_ = false;
    preparesLog_ = true;
    ZnEmbeddedDbStatus status;
    {
        const ZnMutexUnlocker unlocker(core_.mutex);
        status = createLog_(walId, lastSequence, &next);
    }
    preparesLog_ = false;
    core_.noteSyncFailure();
    if (!status.isOk())
        return status;
    log_ = std::move(next);
    logBytes_ = log_.fileBytes();
    core_.sealActive(true);
    core_.manifest.activeWalId = walId;
    core_.manifest.nextWalId = walId + 1;
    core_.counters->walRotationCount.add();
    flushes_.scheduleIfNeeded();
    return {};
}

ZnEmbeddedDbStatus CommitQueue_::append_(GroupView_ group, bool syncs) {
    std::uint64_t operationCount = 0;
    batches_.clear();
    for (const WritePtr_& write : group) {
        batches_.push_back(&write->batch);
        operationCount += write->batch.operationCount();
    }
    const std::uint64_t firstSequence = nextSequence_;
    const std::uint64_t durableSequence = core_.durableSequence;
    nextSequence_ += operationCount; // whatever happens: numbers are never used again
    ZnEmbeddedDbStatus status;
    {
        const ZnMutexUnlocker unlocker(core_.mutex);
        status = log_.append(batches_, firstSequence, durableSequence);
    }
    core_.counters->groupCount.add();
    core_.counters->walBytesWritten.add(log_.fileBytes() - logBytes_);
    logBytes_ = log_.fileBytes();
    if (!log_.canAppend())
        core_.setBackgroundError(status);
    return status.isOk() && syncs ? syncLog_() : status;
}

ZnEmbeddedDbStatus CommitQueue_::syncLog_() {
    const std::uint64_t target = core_.lastCommittedSequence;
    const long long beganNs = monotonicNowNs();
    ZnEmbeddedDbStatus status;
    {
        const ZnMutexUnlocker unlocker(core_.mutex);
        status = log_.sync();
    }
    const long long tookNs = monotonicNowNs() - beganNs;
    core_.counters->walSyncCount.add();
    core_.noteSyncFailure();
    if (status.isOk()) {
        syncNs_ = syncNs_ == 0 ? tookNs : (7 * syncNs_ + tookNs) / 8;
        core_.durableSequence = std::max(core_.durableSequence, target);
        core_.workerCondition.notify_all();
    }
    return status;
}

/// The whole group in one hold of both locks: no reader ever sees half a batch.
void CommitQueue_::insert_(GroupView_ group, std::uint64_t firstSequence) {
    std::uint64_t sequence = firstSequence;
    {
        const MemtableWriteScope_ scope(core_.activeMemtable->lock);
        Memtable_& table = core_.activeMemtable->table;
        for (const WritePtr_& write : group) {
            WalOperationReader_ operations = write->batch.operations();
            for (WalOperation_ operation; operations.next(&operation);) {
                const bool isApplied = table.apply(operation, sequence++);
                ZN_ASSERT(isApplied);
            }
            core_.counters->batchCount.add();
            core_.counters->putCount.add(write->putCount);
            core_.counters->removeCount.add(write->batch.operationCount() - write->putCount);
        }
        if (table.walId == 0)
            table.walId = core_.manifest.activeWalId;
        core_.activeMemtableBytes = table.approximateBytes();
    }
    if (core_.lastCommittedSequence == core_.manifest.maxSequence) // the worker's idle timer begins
        core_.commitCondition.notify_one();
    core_.lastCommittedSequence = sequence - 1;
    core_.lastWriteNs = monotonicNowNs();
}

/// The end of whatever commitActive_ was set for.
void CommitQueue_::leave_() {
    commitActive_ = false;
    core_.workerCondition.notify_all();
    if (!pendingWrites_.empty() || syncRequested_ || commitStopRequested_)
        core_.commitCondition.notify_one();
}

/// What a callback throws is its own: nobody else's write, and no thread of the store, ends by it.
void CommitQueue_::callBack_(const PendingWrite_& write, const ZnEmbeddedDbStatus& status) {
    try {
        write.whenDone(status);
    } catch (const std::exception& exception) {
        ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::writeAsync") << "a callback threw: " << exception.what();
    } catch (...) {
        ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::writeAsync") << "a callback threw";
    }
}

void CommitQueue_::finish_(GroupView_ group, const ZnEmbeddedDbStatus& status) {
    for (const WritePtr_& write : group) {
        if (write->whenDone) {
            callBack_(*write, status);
            continue;
        }
        const std::lock_guard lock(write->mutex);
        write->status = status;
        write->done = true;
        write->condition.notify_all();
    }
}

} // namespace znEmbeddedDbDetail
