#pragma once

#include "core/storage/embeddeddb/BloomFilter_.h"
#include "core/storage/embeddeddb/MappedFile_.h"
#include "core/storage/embeddeddb/RecordSamples_.h"
#include "core/storage/embeddeddb/TableMeta_.h"
#include "core/storage/embeddeddb/TableRecord_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"
#include "core/types/ZnByteArray.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string_view>
#include <vector>

namespace znEmbeddedDbDetail {

/// One block of a table, as its sparse index tells of it.
struct SparseEntry_ {
    ZnByteArray firstKey;
    std::uint64_t offset = 0; // of the block's header
    std::uint32_t size = 0;   // with the block's header
};

struct TableOpenOptions_ {
    /// Reads every record once on opening. Filter and sparse index have no checksum, and a bit lost there would hide a
    /// key: without this, only a damage that shows from outside is found. It is also what makes searches in a block
    /// short.
    bool verifyFilters = true;
    /// Told the size of every block that has been read.
    std::function<void(std::uint64_t blockBytes)> onBlock = {};
};

/// What the filters of tables did for lookups. Thread: a value.
struct FilterCounts_ {
    std::uint64_t negativeCount = 0;      // keys that a filter ruled out
    std::uint64_t falsePositiveCount = 0; // keys that a filter let pass although they are not there
};

/// One open table, every block of which has been checked.
///
/// Thread: opened by one; then it does not change, and any may read. Views point into its mapping.
/// Owner: a shared pointer: it can be read as long as anybody holds it, also when no manifest names it any more.
/// Invariant: while open, the blocks adjoin from the header to the sparse index, and their first keys ascend.
class TableHandle_ {
public:
    enum class Find { Found, Absent, Unreadable };

    /// On false, which leaves it closed, `*status` holds the reason: code 6 for what cannot be read, code 7 for a table
    /// that is damaged or not the one that `meta` describes. Content is checked through reads, so that a disk error is
    /// a status and not a signal; later faults on the mapping are the risk that all mapped files share.
    bool open(ZnStorageFiles& files, const ZnString& rootPath, const TableMeta_& meta, const TableOpenOptions_& options,
              ZnEmbeddedDbStatus* status);
    void close();

    const TableMeta_& meta() const noexcept { return meta_; }
    const std::vector<SparseEntry_>& sparseIndex() const noexcept { return sparseIndex_; }
    const BloomFilter_& bloom() const noexcept { return bloom_; }
    /// Null for a table without blocks.
    const ZnByteArray& firstKey() const noexcept { return firstKey_; }
    const ZnByteArray& lastKey() const noexcept { return lastKey_; }
    std::uint64_t fileBytes() const noexcept { return file_.size(); }
    const ZnString& path() const noexcept { return file_.path(); }
    /// For people: the path, and where in the file `bytes` lie, which are a view that this table gave.
    ZnString placeOf(std::string_view bytes) const;

    /// Whether blobUses() is known, which takes reading all records on opening.
    bool knowsBlobUses() const noexcept { return knowsBlobUses_; }
    /// The blob files that records refer to, with the bytes that they refer to.
    const std::map<std::uint64_t, std::uint64_t>& blobUses() const noexcept { return blobUses_; }

    /// The record of a key, without a copy.
    Find find(std::string_view key, RecordView_* record) const;
    /// The same for a key whose hash is known already, raising the counts.
    Find find(std::string_view key, BloomFilter_::Hash hash, RecordView_* record, FilterCounts_* counts) const;
    /// Index of the only block that can hold `key`; 0 also for a key in front of all.
    std::size_t blockIndexFor(std::string_view key) const noexcept;
    /// Where to begin looking for `key` in the payload of the block that blockIndexFor() gave: at a record that does
    /// not stand behind it, or at 0.
    std::size_t searchOffset(std::string_view key, std::size_t blockIndex, std::string_view payload) const noexcept {
        return key <= sparseIndex_[blockIndex].firstKey.view() ? 0 : samples_.offsetFor(blockIndex, payload, key);
    }
    /// The bytes of a block's records. False when entry and block do not fit each other.
    bool blockPayload(const SparseEntry_& entry, std::string_view* payload) const noexcept;
    /// Copies of the records of one block, or of all, behind what `*out` holds. False, with `*out` as it was, for a
    /// block that does not decode.
    bool decodeBlock(const SparseEntry_& entry, std::vector<TableRecord_>* out) const;
    bool readAllRecords(std::vector<TableRecord_>* out) const;

private:
    void takeBlockWords_();
    Find findInBlock_(std::string_view key, RecordView_* record) const;

    TableMeta_ meta_;
    MappedFile_ file_;
    std::vector<SparseEntry_> sparseIndex_;
    BloomFilter_ bloom_;
    RecordSamples_ samples_; // of no block, unless all records were read
    ZnByteArray firstKey_;
    ZnByteArray lastKey_;
    std::size_t sharedBytes_ = 0;           // that all keys begin with
    std::vector<std::uint64_t> blockWords_; // of the blocks' first keys, behind the shared bytes
    std::map<std::uint64_t, std::uint64_t> blobUses_;
    bool knowsBlobUses_ = false;
};

} // namespace znEmbeddedDbDetail
