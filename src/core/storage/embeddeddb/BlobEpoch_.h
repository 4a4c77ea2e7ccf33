#pragma once

#include "core/platform/ZnStorageFiles.h"
#include "core/storage/embeddeddb/BlobFiles_.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace znEmbeddedDbDetail {

/// A blob file that views of an epoch that has ended may need. Once it has been retired, it is removed when the last of
/// those epochs has ended; else it is in force, and stays.
///
/// Thread: any; retire() once, by who holds it. Owner: shared by epochs, and by the store as long as it is in force.
class HeldBlobFile_ {
public:
    /// `files` must outlive it, and with it every view.
    HeldBlobFile_(ZnStorageFiles& files, std::shared_ptr<BlobFiles_> blobs, std::uint64_t blobFileId, ZnString path)
        : files_(files), blobs_(std::move(blobs)), blobFileId_(blobFileId), path_(std::move(path)) {}
    ~HeldBlobFile_() {
        if (!isRetired())
            return;
        blobs_->forget(blobFileId_); // an open descriptor would keep the space
        files_.remove(path_);
    }
    HeldBlobFile_(const HeldBlobFile_&) = delete;
    HeldBlobFile_& operator=(const HeldBlobFile_&) = delete;

    void retire() { isRetired_.store(true, std::memory_order_relaxed); } // the last owner's end comes after it anyway
    bool isRetired() const { return isRetired_.load(std::memory_order_relaxed); }

private:
    ZnStorageFiles& files_;
    const std::shared_ptr<BlobFiles_> blobs_;
    const std::uint64_t blobFileId_;
    const ZnString path_;
    std::atomic<bool> isRetired_{false};
};

/// The time between two garbage collections, as its views see it: keeps the blob files that they may need.
///
/// A garbage collection ends the epoch and hands it the files that views made until then may need. Those of them that
/// it takes out of force are removed when the last view of the epochs before has ended, on that view's thread; after a
/// crash they are orphans. Thread: any; hold() once, by who ended it and still holds it. Owner: shared by the store and
/// its views.
class BlobEpoch_ {
public:
    using Held = std::vector<std::shared_ptr<HeldBlobFile_>>;

    void hold(Held files) { files_ = std::move(files); }

private:
    Held files_;
};

} // namespace znEmbeddedDbDetail
