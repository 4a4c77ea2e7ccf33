#pragma once

#include "core/storage/embeddeddb/RandomAccessFile_.h"
#include "core/storage/embeddeddb/WalFrame_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <cstdint>
#include <string>
#include <vector>

namespace znEmbeddedDbDetail {

/// Writes one log: a group of batches with one append, and syncs it when told to.
///
/// Thread: one at a time.
/// Invariant: a failed append has left nothing behind, or no later one succeeds; after a failed sync none does.
class WalWriter_ {
public:
    explicit WalWriter_(ZnStorageFiles& files) : file_(files) {}

    /// Makes the log, which must not be there yet. Header and name are on stable storage when this is Ok.
    ZnEmbeddedDbStatus create(const ZnString& walDir, const WalHeader_& header);
    /// The two halves of create(): an empty file under the log's name, which is no log yet, and the header.
    ZnEmbeddedDbStatus prepare(const ZnString& walDir, std::uint64_t walId);
    ZnEmbeddedDbStatus begin(const WalHeader_& header);
    bool isOpen() const noexcept { return file_.isOpen(); }
    void close() noexcept { file_.close(); }

    /// Appends the batches as frames, numbering their operations from `firstSequence` on. Code 6 for a failure: while
    /// canAppend() holds nothing was written, and a later call may succeed.
    ZnEmbeddedDbStatus append(const std::vector<WalBatch_*>& group, std::uint64_t firstSequence,
                              std::uint64_t durableSequence);
    bool canAppend() const noexcept { return file_.canAppend(); }
    /// Brings all frames to stable storage. After a failure it is not known which of them are there, and every
    /// later append and sync fails too.
    ZnEmbeddedDbStatus sync();
    std::uint64_t fileBytes() const noexcept { return file_.size(); }

private:
    ZnEmbeddedDbStatus failed_(ZnString message) const;

    RandomAccessFile_ file_;
    std::uint64_t salt_ = 0;
    std::uint64_t writtenBackTo_ = 0; // what stands in front of it is on its way to the disk
    std::string frames_;              // of a group; kept for its capacity
};

} // namespace znEmbeddedDbDetail
