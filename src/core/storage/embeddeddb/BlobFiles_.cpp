#include "core/storage/embeddeddb/BlobFiles_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/FileNames_.h"

#include <utility>

namespace znEmbeddedDbDetail {

BlobFiles_::BlobFiles_(ZnStorageFiles& files, ZnString blobsDir, std::size_t openLimit,
                       std::shared_ptr<StoreCounters_> counters)
    : files_(files), blobsDir_(std::move(blobsDir)), openLimit_(openLimit), counters_(std::move(counters)) {}

ZnEmbeddedDbStatus BlobFiles_::read(const BlobRef_& blob, ZnByteArray* value) {
    FilePtr_ file = find_(blob.blobFileId);
    if (file == nullptr) {
        if (ZnEmbeddedDbStatus status = open_(blob.blobFileId, &file); !status.isOk())
            return status;
        keep_(blob.blobFileId, file);
    }
    ZnEmbeddedDbStatus status = readBlob(*file, blob, value);
    if (status.isOk())
        counters_->blobBytesRead.add(blob.size);
    return status;
}

std::shared_ptr<BlobFiles_> BlobFiles_::emptyCopy() const {
    return std::make_shared<BlobFiles_>(files_, blobsDir_, openLimit_, counters_);
}

ZnEmbeddedDbStatus BlobFiles_::pin(std::uint64_t blobFileId, BlobFiles_* known) {
    FilePtr_ file = known == nullptr ? nullptr : known->find_(blobFileId);
    if (file == nullptr)
        if (ZnEmbeddedDbStatus status = open_(blobFileId, &file); !status.isOk())
            return status;
    const ZnMutexLocker locker(lock_);
    byId_.insert_or_assign(blobFileId, Open_{std::move(file), uses_.end()});
    return {};
}

ZnEmbeddedDbStatus BlobFiles_::open_(std::uint64_t blobFileId, FilePtr_* file) const {
    const ZnString path = joinPath(blobsDir_, blobFileName(blobFileId));
    ZnString error;
    *file = std::make_shared<RandomAccessFile_>(files_);
    if ((*file)->open(path, RandomAccessFile_::Mode::ReadOnly, &error))
        return {};
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(error)).at(path);
}

void BlobFiles_::forget(std::uint64_t blobFileId) {
    FilePtr_ closed; // with the lock released
    const ZnMutexLocker locker(lock_);
    const auto at = byId_.find(blobFileId);
    if (at == byId_.end())
        return;
    if (at->second.use != uses_.end())
        uses_.erase(at->second.use);
    closed = std::move(at->second.file);
    byId_.erase(at);
}

BlobFiles_::FilePtr_ BlobFiles_::find_(std::uint64_t blobFileId) {
    const ZnMutexLocker locker(lock_);
    const auto at = byId_.find(blobFileId);
    if (at == byId_.end())
        return nullptr;
    if (at->second.use != uses_.end())
        uses_.splice(uses_.begin(), uses_, at->second.use);
    return at->second.file;
}

void BlobFiles_::keep_(std::uint64_t blobFileId, FilePtr_ file) {
    if (openLimit_ == 0)
        return;
    FilePtr_ closed; // with the lock released
    const ZnMutexLocker locker(lock_);
    if (byId_.count(blobFileId) != 0) // another reader was quicker
        return;
    uses_.push_front(blobFileId);
    byId_.emplace(blobFileId, Open_{std::move(file), uses_.begin()});
    if (uses_.size() <= openLimit_)
        return;
    const auto oldest = byId_.find(uses_.back());
    closed = std::move(oldest->second.file);
    byId_.erase(oldest);
    uses_.pop_back();
}

} // namespace znEmbeddedDbDetail
