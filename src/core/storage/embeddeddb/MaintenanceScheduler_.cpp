#include "core/storage/embeddeddb/MaintenanceScheduler_.h"

#include "core/storage/embeddeddb/ZnEmbeddedDbBlobGcWorker.h"
#include "core/types/ZnLogger.h"

#include <map>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr const char* kCategory = "zn.core.storage.znembeddeddb";
constexpr std::size_t kLevel0Trigger = 4;
constexpr int kFailureLimit = 3;

ZnEmbeddedDbStatus closingStatus() {
    return {ZnEmbeddedDbStatus::NotAvailable, "database is closing"};
}

/// The tables of one kind.
struct Kind {
    CompactionGroup_ level0;
    CompactionGroup_ all;
};
using Kinds = std::map<ZnString, Kind>; // by index name, which is empty for primary tables: they come first

Kinds kindsOf(const std::vector<TableMeta_>& tables) {
    Kinds kinds;
    for (const TableMeta_& table : tables) {
        Kind& kind = kinds[table.indexName];
        for (CompactionGroup_* group : {&kind.level0, &kind.all}) {
            group->kind = table.kind;
            group->indexName = table.indexName;
        }
        kind.all.isWhole = true;
        kind.all.inputs.push_back(table);
        if (table.level == 0)
            kind.level0.inputs.push_back(table);
    }
    return kinds;
}

} // namespace

void MaintenanceScheduler_::reset() {
    failedInRow_ = 0;
    garbageDemands_ = 0;
    core_.workerCondition.notify_all(); // those who wait for work of the opening that has ended
}

void MaintenanceScheduler_::scheduleL0CompactionIfNeeded() {
    if (core_.compactionRunning || core_.closing || core_.options.readOnly || garbageDemands_ > 0 ||
        !core_.backgroundError.isOk())
        return;
    if (CompactionGroups_ groups = dueGroups_(); !groups.empty())
        startCompaction_(std::move(groups), std::make_shared<Outcome_>());
}

/// All of level 0 when one kind has reached the number, and besides, all of the kinds that have too many of level 1.
CompactionGroups_ MaintenanceScheduler_::dueGroups_() const {
    CompactionGroups_ groups;
    bool isDue = false;
    const std::size_t level1Limit = core_.options.maxLevel1Tables;
    for (auto& [indexName, kind] : kindsOf(core_.manifest.tables)) {
        const std::size_t level0Count = kind.level0.inputs.size();
        const bool isWhole = level1Limit != 0 && kind.all.inputs.size() - level0Count > level1Limit;
        isDue = isDue || isWhole || level0Count >= kLevel0Trigger;
        CompactionGroup_& group = isWhole ? kind.all : kind.level0;
        if (!group.inputs.empty())
            groups.push_back(std::move(group));
    }
    return isDue ? groups : CompactionGroups_();
}

CompactionGroups_ MaintenanceScheduler_::allGroups_() const {
    CompactionGroups_ groups;
    for (auto& [indexName, kind] : kindsOf(core_.manifest.tables))
        groups.push_back(std::move(kind.all));
    return groups;
}

void MaintenanceScheduler_::scheduleBlobGcIfNeeded() {
    if (core_.blobGcRunning || garbageDemands_ > 0 || !core_.isIdle() || !core_.backgroundError.isOk())
        return;
    startBlobGc_(false, std::make_shared<Outcome_>());
}

template <typename Task>
bool MaintenanceScheduler_::start_(Task task) {
    auto runnable = std::make_unique<ZnCallableRunnable<Task>>(std::move(task));
    if (!pool_.tryStart(runnable.get(), 0))
        return false;
    static_cast<void>(runnable.release()); // the pool's
    return true;
}

bool MaintenanceScheduler_::startCompaction_(CompactionGroups_ groups, const OutcomePtr_& outcome) {
    core_.compactionRunning = true;
    core_.compactionFirstFileId = core_.manifest.nextTableId;
    core_.compactionRunning = start_([this, generation = core_.openGeneration, groups = std::move(groups), outcome] {
        runCompaction_(generation, groups, *outcome);
    });
    if (!core_.compactionRunning)
        core_.compactionFirstFileId = 0;
    return core_.compactionRunning;
}

bool MaintenanceScheduler_::startBlobGc_(bool isDemanded, const OutcomePtr_& outcome) {
    core_.blobGcRunning = true;
    core_.blobGcFirstFileId = core_.manifest.nextTableId;
    core_.blobGcRunning = start_([this, generation = core_.openGeneration, isDemanded, outcome] {
        runBlobGc_(generation, isDemanded, *outcome);
    });
    if (!core_.blobGcRunning)
        core_.blobGcFirstFileId = 0;
    return core_.blobGcRunning;
}

void MaintenanceScheduler_::runCompaction_(std::uint64_t generation, const CompactionGroups_& groups,
                                           Outcome_& outcome) {
    const ZnEmbeddedDbStatus status = statusOf([&] {
        core_.syncPoints.reach("compaction.begun");
        return CompactionManager_(core_, generation).runL0Compaction(groups);
    });
    const ZnMutexLocker locker(core_.mutex);
    outcome = {true, status};
    core_.workerCondition.notify_all();
    if (core_.openGeneration != generation) // the flag is that of another opening
        return;
    core_.compactionRunning = false;
    core_.compactionFirstFileId = 0;
    core_.noteSyncFailure();
    noteCompaction_(status);
    if (!status.isOk())
        return;
    scheduleL0CompactionIfNeeded();
    scheduleBlobGcIfNeeded();
}

void MaintenanceScheduler_::noteCompaction_(const ZnEmbeddedDbStatus& status) {
    if (status.isOk())
        failedInRow_ = 0;
    if (status.isOk() || status.code() == ZnEmbeddedDbStatus::NotAvailable)
        return;
    core_.counters->compactionFailedCount.add();
    if (status.code() == ZnEmbeddedDbStatus::IoError)
        ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::runL0Compaction") << core_.paths.rootPath << ": " << status.message();
    if (++failedInRow_ < kFailureLimit || !core_.backgroundError.isOk())
        return;
    core_.setBackgroundError({status.code(), "compaction failed three times in a row: " + status.message()});
    core_.mayResume = true;
}

void MaintenanceScheduler_::runBlobGc_(std::uint64_t generation, bool isDemanded, Outcome_& outcome) {
    const ZnEmbeddedDbStatus status = statusOf([&] {
        core_.syncPoints.reach("gc.begun");
        return BlobGcManager_(core_, generation, isDemanded).runBlobGc();
    });
    const ZnMutexLocker locker(core_.mutex);
    outcome = {true, status};
    core_.workerCondition.notify_all();
    if (core_.openGeneration != generation)
        return;
    core_.blobGcRunning = false;
    core_.blobGcFirstFileId = 0;
    core_.noteSyncFailure();
    if (status.code() == ZnEmbeddedDbStatus::IoError)
        ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::runBlobGc") << core_.paths.rootPath << ": " << status.message();
    if (status.code() == ZnEmbeddedDbStatus::NotAvailable) // void; the store may be idle again, with nobody to say so
        scheduleBlobGcIfNeeded();
}

ZnEmbeddedDbStatus MaintenanceScheduler_::refusal_(std::uint64_t generation) const {
    const bool isClosed = core_.tableViews == nullptr; // since the caller found it open
    return isClosed || core_.isEnding(generation) ? closingStatus() : core_.backgroundError;
}

ZnEmbeddedDbStatus MaintenanceScheduler_::await_(const OutcomePtr_& outcome, std::uint64_t generation) {
    while (!outcome->isDone && core_.openGeneration == generation)
        core_.workerCondition.wait(core_.mutex);
    return outcome->isDone ? outcome->status : closingStatus();
}

ZnEmbeddedDbStatus MaintenanceScheduler_::compactAll() {
    const ZnMutexLocker locker(core_.mutex);
    const std::uint64_t generation = core_.openGeneration;
    while ((core_.compactionRunning || garbageDemands_ > 0) && refusal_(generation).isOk())
        core_.workerCondition.wait(core_.mutex);
    if (ZnEmbeddedDbStatus status = refusal_(generation); !status.isOk())
        return status;
    CompactionGroups_ groups = allGroups_();
    const auto outcome = std::make_shared<Outcome_>();
    if (groups.empty())
        return {};
    if (!startCompaction_(std::move(groups), outcome))
        return {ZnEmbeddedDbStatus::IoError, "no thread for a compaction"};
    return await_(outcome, generation);
}

/// With compactions held back: one that changed the set of tables meanwhile would make the run void.
ZnEmbeddedDbStatus MaintenanceScheduler_::collectGarbage() {
    const ZnMutexLocker locker(core_.mutex);
    const std::uint64_t generation = core_.openGeneration;
    ++garbageDemands_;
    while ((core_.compactionRunning || core_.blobGcRunning) && refusal_(generation).isOk())
        core_.workerCondition.wait(core_.mutex);
    ZnEmbeddedDbStatus status = refusal_(generation);
    const auto outcome = std::make_shared<Outcome_>();
    if (status.isOk())
        status = startBlobGc_(true, outcome)
                     ? await_(outcome, generation)
                     : ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, "no thread for a garbage collection");
    if (core_.openGeneration != generation)
        return status;
    --garbageDemands_;
    scheduleL0CompactionIfNeeded();
    core_.workerCondition.notify_all();
    return status;
}

ZnEmbeddedDbStatus MaintenanceScheduler_::resume() {
    const ZnMutexLocker locker(core_.mutex);
    if (core_.closing)
        return closingStatus();
    if (!core_.mayResume)
        return core_.backgroundError;
    core_.backgroundError = {};
    core_.mayResume = false;
    failedInRow_ = 0;
    core_.noteSyncFailure(); // one that came later was not told
    scheduleL0CompactionIfNeeded();
    core_.commitCondition.notify_all(); // the worker's timers
    return core_.backgroundError;
}

} // namespace znEmbeddedDbDetail
