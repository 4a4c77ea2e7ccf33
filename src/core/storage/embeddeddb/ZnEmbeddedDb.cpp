#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include "core/runtime/Thread.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/IteratorCore_.h"
#include "core/storage/embeddeddb/PointRead_.h"
#include "core/storage/embeddeddb/StoreVerifier_.h"
#include "core/storage/embeddeddb/Store_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbLifecycle.h"

#include <algorithm>
#include <utility>

using namespace znEmbeddedDbDetail;

namespace {

constexpr std::size_t kMaxBatchBytes = std::size_t(2) * 1024 * 1024 * 1024; // of a frame of the log

ZnEmbeddedDbStatus notOpen(Store_& store) {
    const ZnMutexLocker locker(store.core.mutex);
    return {ZnEmbeddedDbStatus::NotAvailable, store.core.closing ? "database is closing" : "database is not open"};
}

ZnEmbeddedDbStatus invalid(ZnString message) {
    return {ZnEmbeddedDbStatus::InvalidArgument, std::move(message)};
}

ZnEmbeddedDbStatus checkSizes(std::string_view key, std::string_view value, const ZnEmbeddedDbIndexKeys& indexKeys) {
    if (key.size() > ZnEmbeddedDb::kMaxKeyBytes)
        return invalid("key of " + ZnString::number(key.size()) + " bytes: 65535 at most");
    if (value.size() > ZnEmbeddedDb::kMaxValueBytes)
        return invalid("value of " + ZnString::number(value.size()) + " bytes: 1073741824 at most");
    for (const auto& [name, keys] : indexKeys) {
        if (!isIndexName(name.view()))
            return invalid("no name of an index: \"" + name + "\"");
        for (const ZnByteArray& secondary : keys)
            if (secondary.size() > ZnEmbeddedDb::kMaxKeyBytes)
                return invalid("secondary key of " + ZnString::number(secondary.size()) + " bytes: 65535 at most");
    }
    return {};
}

bool lists(const ZnEmbeddedDbIndexKeys& indexKeys, const ZnString& indexName, const ZnByteArray& key) {
    const auto at = indexKeys.find(indexName);
    return at != indexKeys.end() && std::find(at->second.begin(), at->second.end(), key) != at->second.end();
}

/// The secondary keys that `before` has and `now` has not.
RetiredKeys_ retiredOf(const ZnEmbeddedDbIndexKeys& before, const ZnEmbeddedDbIndexKeys& now) {
    RetiredKeys_ retired;
    for (const auto& [indexName, keys] : before)
        for (const ZnByteArray& key : keys)
            if (!lists(now, indexName, key))
                retired.append({indexName, key});
    return retired;
}

/// Builds one write: checks its operations, and looks up what they take away from indexes.
class WriteBuilder {
public:
    explicit WriteBuilder(Store_& store, ZnEmbeddedDbDurability durability)
        : store_(store), write_(std::make_shared<PendingWrite_>()) {
        if (durability == ZnEmbeddedDbDurability::Default)
            durability = store.core.options.durability;
        write_->isSynced = durability == ZnEmbeddedDbDurability::Synced;
        write_->isPeriodic = durability == ZnEmbeddedDbDurability::Periodic;
    }

    ZnEmbeddedDbStatus put(std::string_view key, std::string_view value, const ZnEmbeddedDbIndexKeys& indexKeys) {
        if (ZnEmbeddedDbStatus status = checkSizes(key, value, indexKeys); !status.isOk())
            return status;
        RetiredKeys_ retired;
        if (ZnEmbeddedDbStatus status = findRetired_(key, indexKeys, &retired); !status.isOk())
            return status;
        if (!indexKeys.isEmpty())
            store_.hasIndexes.store(true, std::memory_order_relaxed);
        write_->batch.put(key, value, indexKeys, retired);
        ++write_->putCount;
        return checkBatch_();
    }
    ZnEmbeddedDbStatus remove(std::string_view key) {
        if (ZnEmbeddedDbStatus status = checkSizes(key, {}, {}); !status.isOk())
            return status;
        RetiredKeys_ retired;
        if (ZnEmbeddedDbStatus status = findRetired_(key, {}, &retired); !status.isOk())
            return status;
        write_->batch.remove(key, retired);
        return checkBatch_();
    }
    ZnEmbeddedDbStatus add(const ZnEmbeddedDbBatch& batch) {
        for (const ZnEmbeddedDbBatch::Operation& operation : batch.operations()) {
            ZnEmbeddedDbStatus status = operation.isRemove
                                            ? remove(operation.key.view())
                                            : put(operation.key.view(), operation.value.view(), operation.indexKeys);
            if (!status.isOk())
                return status;
        }
        return {};
    }
    const std::shared_ptr<PendingWrite_>& write() const { return write_; }

private:
    ZnEmbeddedDbStatus findRetired_(std::string_view key, const ZnEmbeddedDbIndexKeys& indexKeys,
                                    RetiredKeys_* retired) {
        const ReadViewPtr_ view =
            store_.hasIndexes.load(std::memory_order_relaxed) ? store_.core.view() : ReadViewPtr_();
        if (view == nullptr)
            return {};
        ZnEmbeddedDbIndexKeys before;
        ZnEmbeddedDbStatus status = readRecord(*view, key, nullptr, &before);
        if (status.isOk())
            *retired = retiredOf(before, indexKeys);
        return status.code() == ZnEmbeddedDbStatus::NotFound ? ZnEmbeddedDbStatus() : status;
    }
    ZnEmbeddedDbStatus checkBatch_() const {
        return write_->batch.frameBytes() <= kMaxBatchBytes ? ZnEmbeddedDbStatus() : invalid("batch above 2 GiB");
    }

    Store_& store_;
    const std::shared_ptr<PendingWrite_> write_;
};

ZnEmbeddedDbStatus checkWritable(Store_& store) {
    if (!store.isOpen.load(std::memory_order_acquire)) // pairs with open's store
        return notOpen(store);
    if (store.core.options.readOnly)
        return {ZnEmbeddedDbStatus::ReadOnly, "database is open for reading only"};
    return {};
}

/// Builds a write with `fill(builder)` and commits it.
template <typename Fill>
ZnEmbeddedDbStatus commitWrite(Store_& store, ZnEmbeddedDbDurability durability, Fill fill) {
    if (ZnEmbeddedDbStatus status = checkWritable(store); !status.isOk())
        return status;
    WriteBuilder builder(store, durability);
    if (ZnEmbeddedDbStatus status = fill(builder); !status.isOk())
        return status;
    if (builder.write()->batch.operationCount() == 0)
        return {};
    return store.commits.commit(builder.write());
}

/// Hands an answer to the event loop of the thread that asked, or to the current thread when that has none any more.
class Answer {
public:
    explicit Answer(std::function<void(const ZnEmbeddedDbStatus&)> callback)
        : callback_(std::make_shared<Callback>(std::move(callback))),
          thread_(ZnCoreApplication::instance() == nullptr ? nullptr : zn::atomic::Thread::currentThread()) {}

    void operator()(const ZnEmbeddedDbStatus& status) const {
        ZnTask task([callback = callback_, status] { (*callback)(status); });
        // Nothing is kept for a thread's next start: the callback would run twice.
        const ZnPostOptions options{.whenNotRunning = ZnPostOptions::WhenNotRunning::Refuse};
        if (postTask(thread_, task, options) != ZnPostResult::Queued)
            (*callback_)(status);
    }

private:
    using Callback = std::function<void(const ZnEmbeddedDbStatus&)>;
    std::shared_ptr<Callback> callback_;
    zn::atomic::Thread* thread_; // null: no loop
};

ReadViewPtr_ viewOf(const Store_& store, const ZnEmbeddedDbSnapshotPtr& snapshot) {
    return snapshot != nullptr ? snapshot->view() : store.core.view();
}

ReadViewPtr_ stableViewOf(Store_& store, const ZnEmbeddedDbSnapshotPtr& snapshot) {
    std::uint64_t sequence = 0;
    if (snapshot != nullptr)
        return snapshot->view();
    return store.isOpen.load(std::memory_order_acquire) ? store.core.stableView(&sequence) : nullptr;
}

/// Keeps the tables of a view on the disk.
class TableHold {
public:
    explicit TableHold(StoreCore_& core) : core_(core) { core_.holdTables(); }
    ~TableHold() { core_.releaseTables(); }
    TableHold(const TableHold&) = delete;
    TableHold& operator=(const TableHold&) = delete;

private:
    StoreCore_& core_;
};

} // namespace

ZnEmbeddedDb::ZnEmbeddedDb(ZnStorageFiles& files) : store_(std::make_unique<Store_>(files)) {}

ZnEmbeddedDb::~ZnEmbeddedDb() {
    close();
}

ZnEmbeddedDbStatus ZnEmbeddedDb::open(const ZnString& path, const ZnEmbeddedDbOptions& options) {
    return LifecycleManager_(*store_).open(path, options);
}

void ZnEmbeddedDb::close() {
    LifecycleManager_(*store_).close();
}

bool ZnEmbeddedDb::isOpen() const {
    return store_->isOpen.load();
}

ZnEmbeddedDbStatus ZnEmbeddedDb::put(ZnByteView key, ZnByteView value, const ZnEmbeddedDbIndexKeys& indexKeys,
                                     ZnEmbeddedDbDurability durability) {
    return commitWrite(*store_, durability,
                       [&](WriteBuilder& builder) { return builder.put(key.view(), value.view(), indexKeys); });
}

ZnEmbeddedDbStatus ZnEmbeddedDb::remove(ZnByteView key, ZnEmbeddedDbDurability durability) {
    return commitWrite(*store_, durability, [&](WriteBuilder& builder) { return builder.remove(key.view()); });
}

ZnEmbeddedDbStatus ZnEmbeddedDb::write(const ZnEmbeddedDbBatch& batch, ZnEmbeddedDbDurability durability) {
    return commitWrite(*store_, durability, [&](WriteBuilder& builder) { return builder.add(batch); });
}

void ZnEmbeddedDb::writeAsync(const ZnEmbeddedDbBatch& batch, std::function<void(const ZnEmbeddedDbStatus&)> callback,
                              ZnEmbeddedDbDurability durability) {
    const Answer answer(std::move(callback));
    ZnEmbeddedDbStatus status = checkWritable(*store_);
    WriteBuilder builder(*store_, durability);
    if (status.isOk())
        status = builder.add(batch);
    if (!status.isOk() || batch.size() == 0) {
        answer(status);
        return;
    }
    builder.write()->whenDone = answer;
    store_->commits.commitAsync(builder.write());
}

ZnEmbeddedDbStatus ZnEmbeddedDb::get(ZnByteView key, ZnByteArray* value,
                                     const ZnEmbeddedDbSnapshotPtr& snapshot) const {
    const ReadViewPtr_ view = viewOf(*store_, snapshot);
    if (view == nullptr)
        return notOpen(*store_);
    view->counters->getCount.add();
    ZnEmbeddedDbStatus status = readRecord(*view, key.view(), value);
    if (status.isOk())
        view->counters->getHitCount.add();
    return status;
}

ZnEmbeddedDbStatus ZnEmbeddedDb::multiGet(const ZnVector<ZnByteArray>& keys,
                                          ZnVector<std::optional<ZnByteArray>>* values,
                                          const ZnEmbeddedDbSnapshotPtr& snapshot) const {
    const ReadViewPtr_ view = viewOf(*store_, snapshot);
    if (view == nullptr)
        return notOpen(*store_);
    view->counters->getCount.add(keys.size());
    ZnEmbeddedDbStatus status = readRecords(*view, keys, values);
    if (status.isOk())
        view->counters->getHitCount.add(static_cast<std::uint64_t>(
            std::count_if(values->begin(), values->end(), [](const auto& value) { return value.has_value(); })));
    return status;
}

ZnEmbeddedDbStatus ZnEmbeddedDb::contains(ZnByteView key, const ZnEmbeddedDbSnapshotPtr& snapshot) const {
    return get(key, nullptr, snapshot);
}

ZnEmbeddedDbIterator ZnEmbeddedDb::scan(const ZnEmbeddedDbRange& range) const {
    ReadViewPtr_ view = stableViewOf(*store_, range.snapshot);
    if (view == nullptr)
        return ZnEmbeddedDbIterator(notOpen(*store_));
    view->counters->scanCount.add();
    return openScan(std::move(view), range);
}

ZnEmbeddedDbIterator ZnEmbeddedDb::indexLookup(const ZnString& indexName, ZnByteView secondaryKey,
                                               const ZnEmbeddedDbSnapshotPtr& snapshot) const {
    ReadViewPtr_ view = stableViewOf(*store_, snapshot);
    if (view == nullptr)
        return ZnEmbeddedDbIterator(notOpen(*store_));
    view->counters->indexLookupCount.add();
    return openIndexLookup(std::move(view), indexName, secondaryKey.view());
}

ZnEmbeddedDbIterator ZnEmbeddedDb::indexScan(const ZnString& indexName, const ZnEmbeddedDbRange& secondaryKeys) const {
    ReadViewPtr_ view = stableViewOf(*store_, secondaryKeys.snapshot);
    if (view == nullptr)
        return ZnEmbeddedDbIterator(notOpen(*store_));
    view->counters->indexLookupCount.add();
    return openIndexScan(std::move(view), indexName, secondaryKeys);
}

ZnEmbeddedDbSnapshotPtr ZnEmbeddedDb::snapshot() const {
    if (!store_->isOpen.load(std::memory_order_acquire))
        return nullptr;
    std::uint64_t sequence = 0;
    ReadViewPtr_ view = store_->core.stableView(&sequence);
    return view == nullptr ? nullptr : std::make_shared<const ZnEmbeddedDbSnapshot>(std::move(view), sequence);
}

ZnEmbeddedDbStatus ZnEmbeddedDb::sync() {
    if (!isOpen())
        return notOpen(*store_);
    return store_->core.options.readOnly ? ZnEmbeddedDbStatus() : store_->commits.sync(false);
}

ZnEmbeddedDbStatus ZnEmbeddedDb::flush() {
    if (ZnEmbeddedDbStatus status = checkWritable(*store_); !status.isOk())
        return status;
    return store_->flushes.flush();
}

ZnEmbeddedDbStatus ZnEmbeddedDb::compact() {
    ZnEmbeddedDbStatus status = flush();
    if (status.isOk())
        status = store_->maintenance.compactAll();
    return status.isOk() ? store_->maintenance.collectGarbage() : status;
}

ZnEmbeddedDbStatus ZnEmbeddedDb::collectGarbage() {
    ZnEmbeddedDbStatus status = flush();
    return status.isOk() ? store_->maintenance.collectGarbage() : status;
}

ZnEmbeddedDbStatus ZnEmbeddedDb::resume() {
    if (ZnEmbeddedDbStatus status = checkWritable(*store_); !status.isOk())
        return status;
    return store_->maintenance.resume();
}

ZnEmbeddedDbStatus ZnEmbeddedDb::refresh() {
    return LifecycleManager_(*store_).refresh();
}

ZnEmbeddedDbStatus ZnEmbeddedDb::watch(std::function<void(const ZnEmbeddedDbChange&)> callback) {
    return LifecycleManager_(*store_).watch(std::move(callback));
}

ZnEmbeddedDbStats ZnEmbeddedDb::stats() const {
    ZnEmbeddedDbStats stats;
    if (!isOpen())
        return stats;
    store_->core.fillStats(&stats);
    if (!store_->core.options.readOnly)
        stats.walBytes = store_->commits.logBytes();
    return stats;
}

ZnEmbeddedDbStatus ZnEmbeddedDb::verify(ZnEmbeddedDbVerifyReport* report, const ZnEmbeddedDbProgress& progress) const {
    StoreCore_& core = store_->core;
    const TableHold hold(core);
    StorePaths_ paths;
    std::uint64_t firstRunningFileId = 0;
    std::optional<std::uint64_t> readManifestId;
    {
        const ZnMutexLocker locker(core.mutex);
        paths = core.paths;
        firstRunningFileId = core.firstRunningFileId(); // before the view: what has come into force since is in it
        if (core.options.readOnly)
            readManifestId = core.manifest.manifestId - 1;
    }
    const ReadViewPtr_ view = stableViewOf(*store_, nullptr);
    if (view == nullptr)
        return notOpen(*store_);
    ZnEmbeddedDbVerifyReport unused;
    return verifyStore(core.baseFiles, paths, *view, firstRunningFileId, readManifestId,
                       report == nullptr ? &unused : report, progress);
}
