#include "core/storage/embeddeddb/ZnEmbeddedDbLifecycle.h"

#include "core/ipc/Names.h"
#include "core/platform/ZnDirPlatform.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/Recovery_.h"
#include "core/storage/embeddeddb/Store_.h"
#include "core/types/ZnLogger.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr const char* kCategory = "zn.core.storage.znembeddeddb";
constexpr std::uint64_t kOpenBlobFileBytes = 16 * 1024; // what an open file is counted as
constexpr std::uint64_t kLeastMemtableBytes = 4 * 1024;
constexpr std::uint64_t kMostMemtableBytes = std::uint64_t(4) * 1024 * 1024 * 1024;
constexpr const char* kChangeDomain = "zn.embeddeddb";
constexpr const char* kChangeSignal = "manifest";

ZnEmbeddedDbOptions inRange(ZnEmbeddedDbOptions options) {
    options.memtableSizeBytes = std::clamp(options.memtableSizeBytes, kLeastMemtableBytes, kMostMemtableBytes);
    options.maxImmutableMemtables = std::max(options.maxImmutableMemtables, 1U);
    options.keepManifests = std::max(options.keepManifests, 1U);
    if (options.durability == ZnEmbeddedDbDurability::Default)
        options.durability = ZnEmbeddedDbDurability::Buffered;
    return options;
}

/// What the changes of a store are announced under: the same for every path that leads to its directory.
ZnString changeObject(const ZnString& rootPath) {
    std::error_code error;
    const std::string path = std::filesystem::weakly_canonical(rootPath.str(), error).string();
    std::uint64_t hash = 0xCBF29CE484222325; // FNV-1a
    for (const char c : error ? rootPath.str() : path)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
    return zn::ipc::detail::hexText(hash);
}

bool hasCurrent(ZnStorageFiles& files, const StorePaths_& paths) {
    std::uint64_t manifestId = 0;
    return readCurrent(files, paths.rootPath, &manifestId).code() != ZnEmbeddedDbStatus::NotFound;
}

} // namespace

ZnEmbeddedDbStatus LifecycleManager_::open(const ZnString& path, const ZnEmbeddedDbOptions& options) {
    if (store_.isOpen.load())
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::InvalidArgument, "database is open already")
            .at(store_.core.paths.rootPath);
    const ZnString root = znDirPlatform()->normalizePath(path);
    if (path.isEmpty() || root.isEmpty())
        return {ZnEmbeddedDbStatus::InvalidArgument, "database without a path"};
    resetState_();
    store_.core.options = inRange(options);
    store_.core.paths = StorePaths_(root);
    ZnEmbeddedDbStatus status = openFiles_();
    if (status.isOk()) {
        store_.isOpen.store(true);
        return status;
    }
    store_.commits.closeLog();
    store_.core.notifier = nullptr;
    store_.lockFile.release();
    resetState_();
    return status;
}

ZnEmbeddedDbStatus LifecycleManager_::openFiles_() {
    StoreCore_& core = store_.core;
    if (ZnEmbeddedDbStatus status = prepareDirectory_(); !status.isOk())
        return status;
    const std::uint64_t openLimit = core.options.sharedTableStateSize / kOpenBlobFileBytes;
    core.blobs = std::make_shared<BlobFiles_>(core.baseFiles, core.paths.blobsDir, static_cast<std::size_t>(openLimit),
                                              core.counters);
    RecoveredStore_ recovered;
    Recovery_ recovery(core.files, core.paths, core.options);
    if (core.options.readOnly)
        recovery.shareOpenFiles({}, core.blobs);
    if (ZnEmbeddedDbStatus status = recovery.run(&recovered); !status.isOk())
        return status;
    return takeOver_(&recovery, &recovered);
}

/// The lock, and a store to be opened.
ZnEmbeddedDbStatus LifecycleManager_::prepareDirectory_() {
    StoreCore_& core = store_.core;
    const ZnString& root = core.paths.rootPath;
    const bool mayCreate = core.options.createIfMissing && !core.options.readOnly;
    const ZnEmbeddedDbStatus none = ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::NotFound, "no database there").at(root);
    std::vector<ZnString> names;
    ZnString error;
    const int code = core.files.list(root, &names);
    if (code == ENOENT && !mayCreate)
        return none;
    if (code != 0 && code != ENOENT) {
        failWithCode("FindFirstFileW failed", code, &error);
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(root);
    }
    const auto missing = [&] {
        const ZnEmbeddedDbStatus lost = checkNoStore(core.files, core.paths);
        return lost.isOk() ? none : lost;
    };
    if (core.options.readOnly) {
        if (hasCurrent(core.files, core.paths))
            return {};
        const ZnEmbeddedDbStatus status = missing();
        return hasCurrent(core.files, core.paths) ? ZnEmbeddedDbStatus() : status; // it may have been made just now
    }
    if (!mayCreate && !hasCurrent(core.files, core.paths))
        return missing(); // without the lock's file
    if (code == ENOENT)
        if (ZnEmbeddedDbStatus status = makeDirectory(core.files, root); !status.isOk())
            return status;
    if (ZnEmbeddedDbStatus status = store_.lockFile.take(core.files, core.paths); !status.isOk())
        return status;
    if (!hasCurrent(core.files, core.paths))
        return mayCreate ? createStore(core.files, core.paths) : missing();
    if (core.options.errorIfExists)
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::InvalidArgument, "database exists already").at(root);
    return {};
}

ZnEmbeddedDbStatus LifecycleManager_::takeOver_(Recovery_* recovery, RecoveredStore_* recovered) {
    StoreCore_& core = store_.core;
    noteIndexes_(*recovered);
    {
        const ZnMutexLocker locker(core.mutex);
        core.adopt(std::move(*recovered));
    }
    if (core.options.readOnly)
        return {};
    openNotifier_();
    return beginToWrite_(recovery);
}

/// The store does without, if it has to.
void LifecycleManager_::openNotifier_() {
    StoreCore_& core = store_.core;
    if (!core.options.notifyChanges)
        return;
    ZnString error;
    core.notifier = zn::ipc::Channel::open(kChangeDomain, changeObject(core.paths.rootPath), kChangeSignal, &error);
    if (core.notifier == nullptr)
        ZN_LOG_WARNING(kCategory, "ZnEmbeddedDb::open")
            << core.paths.rootPath << ": nobody will be told of changes: " << error;
}

/// What the logs held goes into tables first. It may have been read from the system's memory, and a process before this
/// one may have seen a sync of it fail: then no sync of that log would tell what is on the disk. New files do. After
/// that a new log begins, which the new manifest makes the active one, and what the old ones left behind can be
/// removed.
ZnEmbeddedDbStatus LifecycleManager_::beginToWrite_(Recovery_* recovery) {
    StoreCore_& core = store_.core;
    if (ZnEmbeddedDbStatus status = store_.flushes.flushRecovered(); !status.isOk())
        return status;
    if (ZnEmbeddedDbStatus status = store_.commits.beginLog(); !status.isOk())
        return status;
    {
        const ZnMutexLocker locker(core.mutex);
        if (ZnEmbeddedDbStatus status = core.commitTables({}); !status.isOk())
            return status;
        if (!core.backgroundError.isOk())
            return core.backgroundError;
        core.collectObsoleteWalFiles();
        recovery->clean(core.manifest, core.tableHandles);
        store_.flushes.assumeLocked();
        store_.flushes.reset();
        store_.maintenance.assumeLocked();
        store_.maintenance.reset();
        store_.maintenance.scheduleL0CompactionIfNeeded(); // each opening and closing may have added a table
    }
    return store_.commits.startCommitWorker();
}

void LifecycleManager_::noteIndexes_(const RecoveredStore_& recovered) {
    bool hasIndexes = false;
    for (const TableMeta_& table : recovered.manifest.tables)
        hasIndexes = hasIndexes || table.kind == kIndexTable;
    for (const SealedMemtable_& sealed : recovered.memtables)
        hasIndexes = hasIndexes || !sealed.memtable->sealed().indexes().empty();
    store_.hasIndexes.store(hasIndexes);
}

ZnEmbeddedDbStatus LifecycleManager_::refresh() {
    StoreCore_& core = store_.core;
    const ZnMutexLocker refreshing(store_.refreshLock);
    if (!store_.isOpen.load(std::memory_order_acquire)) // pairs with open's store
        return {ZnEmbeddedDbStatus::NotAvailable, "database is not open"};
    if (!core.options.readOnly)
        return {ZnEmbeddedDbStatus::InvalidArgument, "database is open for writing: it shows the latest anyway"};
    RecoveredStore_ recovered;
    Recovery_ recovery(core.files, core.paths, core.options);
    {
        const ZnMutexLocker locker(core.mutex);
        recovery.shareOpenFiles(core.tableHandles, core.blobs);
    }
    if (ZnEmbeddedDbStatus status = recovery.run(&recovered); !status.isOk())
        return status;
    const ZnMutexLocker locker(core.mutex);
    if (core.closing)
        return {ZnEmbeddedDbStatus::NotAvailable, "database is closing"};
    core.adopt(std::move(recovered));
    return {};
}

ZnEmbeddedDbStatus LifecycleManager_::watch(std::function<void(const ZnEmbeddedDbChange&)> callback) {
    if (!callback) {
        store_.subscription = nullptr;
        return {};
    }
    if (!store_.isOpen.load())
        return {ZnEmbeddedDbStatus::NotAvailable, "database is not open"};
    if (ZnCoreApplication::instance() == nullptr)
        return {ZnEmbeddedDbStatus::InvalidArgument, "watching needs a thread with an event loop"};
    const ZnString& root = store_.core.paths.rootPath;
    ZnString error;
    auto subscription = zn::ipc::Subscription::subscribe(
        kChangeDomain, changeObject(root), kChangeSignal, "",
        [callback = std::move(callback)](const zn::ipc::SignalValue& value) {
            if (value.second != 0) // else it is from elsewhere
                callback({value.first, value.second - 1});
        },
        &error);
    if (subscription == nullptr)
        return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, "cannot watch: " + error).at(root);
    store_.subscription = std::move(subscription);
    return {};
}

void LifecycleManager_::close() {
    StoreCore_& core = store_.core;
    store_.subscription = nullptr;
    if (!store_.isOpen.exchange(false) && !store_.lockFile.isHeld()) {
        resetState_();
        return;
    }
    {
        const ZnMutexLocker locker(core.mutex);
        core.closing = true;
        core.workerCondition.notify_all();
    }
    if (!core.options.readOnly && store_.lockFile.isHeld()) {
        if (const ZnEmbeddedDbStatus status = store_.commits.sync(true); !status.isOk())
            ZN_LOG_ERROR(kCategory, "ZnEmbeddedDb::close") << core.paths.rootPath << ": " << status.message();
        store_.commits.stopCommitWorker();
        store_.commits.failPendingWrites();
        store_.flushes.flushAllSync([this] { store_.commits.closeLog(); });
        waitForBackgroundWork_();
    }
    core.notifier = nullptr;
    store_.lockFile.release();
    const ZnMutexLocker refreshing(store_.refreshLock); // one that runs needs paths and options
    resetState_();
}

/// Work that has not ended in time finds that it has to when it looks again, and does not touch the store any more.
/// Only a manifest that is being written must be waited for: it is in force as soon as it has its name.
void LifecycleManager_::waitForBackgroundWork_() {
    if (!store_.threadPool.waitForDone(ZnThreadPool::Deadline::inMs(store_.closeWaitMs)))
        ZN_LOG_WARNING(kCategory, "ZnEmbeddedDb::close") << store_.core.paths.rootPath << ": background work goes on";
    const ZnMutexLocker locker(store_.core.mutex);
    store_.core.awaitManifest();
}

void LifecycleManager_::resetState_() {
    StoreCore_& core = store_.core;
    const ZnMutexLocker locker(core.mutex);
    core.reset();
    store_.flushes.assumeLocked();
    store_.flushes.reset();
    store_.maintenance.assumeLocked();
    store_.maintenance.reset();
    store_.hasIndexes.store(false);
}

} // namespace znEmbeddedDbDetail
