#pragma once

#include "core/storage/embeddeddb/BlobFiles_.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace znEmbeddedDbDetail {

/// Keeps blob files on the disk that no table in force refers to any more, for the views of before.
///
/// Every view holds the epoch in which it was made. Garbage collection ends the epoch and hands it the files that it
/// took out of force; they go when its last view goes, on that view's thread. When some of its blob files stay in
/// force, it keeps the next epoch, which is to take those. After a crash they are orphans.
/// Thread: any; retire() once, by who ended it and still holds it. Owner: shared by the store and its views.
class BlobEpoch_ {
public:
    /// `files` must outlive it, and with it every view.
    BlobEpoch_(ZnStorageFiles& files, std::shared_ptr<BlobFiles_> blobs, ZnString blobsDir)
        : files_(files), blobs_(std::move(blobs)), blobsDir_(std::move(blobsDir)) {}
    ~BlobEpoch_();
    BlobEpoch_(const BlobEpoch_&) = delete;
    BlobEpoch_& operator=(const BlobEpoch_&) = delete;

    /// `next` is null when no file that views of this epoch may need stays in force.
    void retire(std::vector<std::uint64_t> blobFileIds, std::shared_ptr<BlobEpoch_> next) {
        retired_ = std::move(blobFileIds);
        next_ = std::move(next);
    }

private:
    ZnStorageFiles& files_;
    const std::shared_ptr<BlobFiles_> blobs_;
    const ZnString blobsDir_;
    std::vector<std::uint64_t> retired_;
    std::shared_ptr<BlobEpoch_> next_;
};

} // namespace znEmbeddedDbDetail
