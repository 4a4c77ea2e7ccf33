#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/types/ZnMutex.h"

#include <atomic>
#include <memory>
#include <vector>

namespace znEmbeddedDbDetail {

/// The files of a store, watched for failed syncs.
///
/// After a failed sync the system may have dropped what it could not write, and the next sync would report success. So
/// the first failure, wherever in the store it happens, is noted here, and the store stops writing.
/// Thread: any. Owner: the store.
class SyncWatch_ final : public ZnStorageFiles {
public:
    explicit SyncWatch_(ZnStorageFiles& files) noexcept : files_(files) {}

    bool hasFailed() const noexcept { return hasFailed_.load(std::memory_order_acquire); } // pairs with noteSync()
    /// What failed first; empty while nothing did.
    ZnString failure() const;
    void forget();
    /// Passes `error` on.
    int noteSync(int error, const ZnString& path);

    int open(const ZnString& path, Access access, std::unique_ptr<ZnStorageFile>* file, bool* isNew) override;
    int map(const ZnString& path, std::unique_ptr<ZnStorageMapping>* mapping, std::uint64_t* sizeBytes) override {
        return files_.map(path, mapping, sizeBytes);
    }
    int rename(const ZnString& from, const ZnString& to) override { return files_.rename(from, to); }
    int remove(const ZnString& path) override { return files_.remove(path); }
    int makePath(const ZnString& path) override { return files_.makePath(path); }
    int syncDirectory(const ZnString& path) override { return noteSync(files_.syncDirectory(path), path); }
    int list(const ZnString& path, std::vector<ZnString>* names) override { return files_.list(path, names); }
    int lock(const ZnString& path, std::unique_ptr<ZnStorageLock>* lock) override { return files_.lock(path, lock); }

private:
    ZnStorageFiles& files_;
    std::atomic<bool> hasFailed_{false};
    mutable ZnMutex lock_; // leaf
    ZnString failure_ ZN_GUARDED_BY(lock_);
};

} // namespace znEmbeddedDbDetail
