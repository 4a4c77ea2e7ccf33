#pragma once

#include "core/storage/embeddeddb/BlobFile_.h"
#include "core/storage/embeddeddb/StoreCounters_.h"
#include "core/types/ZnMutex.h"

#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>

namespace znEmbeddedDbDetail {

/// The blob files of a store, for reading: the latest that were used stay open.
///
/// Thread: any. Owner: shared by the store and the views of it.
class BlobFiles_ {
public:
    /// At most `openLimit` files are kept open, those that are pinned aside.
    BlobFiles_(ZnStorageFiles& files, ZnString blobsDir, std::size_t openLimit,
               std::shared_ptr<StoreCounters_> counters);

    /// Reads and checks one value. Code 6 when the disk fails or the file is not there, code 7 when the file
    /// does not hold the value; the message names file and offset.
    ZnEmbeddedDbStatus read(const BlobRef_& blob, ZnByteArray* value);
    /// Another one of the same directory, with no file open.
    std::shared_ptr<BlobFiles_> emptyCopy() const;
    /// Opens the file for as long as this object lives, so that nobody can take its content away; shares the descriptor
    /// of `known` (may be null), if that has the file open.
    ZnEmbeddedDbStatus pin(std::uint64_t blobFileId, BlobFiles_* known);
    /// Closes the file when its last reader is done; it is not going to be asked for any more.
    void forget(std::uint64_t blobFileId);

private:
    using FilePtr_ = std::shared_ptr<RandomAccessFile_>;
    struct Open_ {
        FilePtr_ file;
        std::list<std::uint64_t>::iterator use; // end() of uses_: pinned
    };
    ZnEmbeddedDbStatus open_(std::uint64_t blobFileId, FilePtr_* file) const;
    FilePtr_ find_(std::uint64_t blobFileId);
    void keep_(std::uint64_t blobFileId, FilePtr_ file);

    ZnStorageFiles& files_;
    const ZnString blobsDir_;
    const std::size_t openLimit_;
    const std::shared_ptr<StoreCounters_> counters_;
    ZnMutex lock_; // leaf; nothing is opened or read while it is held
    std::unordered_map<std::uint64_t, Open_> byId_ ZN_GUARDED_BY(lock_);
    std::list<std::uint64_t> uses_ ZN_GUARDED_BY(lock_); // of files that are not pinned, latest first
};

} // namespace znEmbeddedDbDetail
