#pragma once

#include "core/storage/embeddeddb/BloomFilter_.h"
#include "core/storage/embeddeddb/RandomAccessFile_.h"
#include "core/storage/embeddeddb/TableMeta_.h"
#include "core/storage/embeddeddb/TableRecord_.h"
#include "core/storage/embeddeddb/ZnEmbeddedDbStatus.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace znEmbeddedDbDetail {

/// Writes one table, record by record.
///
/// It keeps one block, 16 bytes a key for the filter and one key a block in memory, whatever the size of the table. The
/// file has a temporary name until all of it is on stable storage; a writer that failed, or was dropped before
/// finish(), leaves nothing behind.
/// Thread: one at a time. Owner: whoever writes the table, as a local.
/// Invariant: keys come in strictly ascending order.
class TableWriter_ {
public:
    /// `meta` tells kind, level, fileId, blobFileId and indexName. The directories are those of the store's temporary
    /// files and of its tables.
    TableWriter_(ZnStorageFiles& files, const ZnString& tempDir, const ZnString& tablesDir, TableMeta_ meta);
    ~TableWriter_();
    TableWriter_(const TableWriter_&) = delete;
    TableWriter_& operator=(const TableWriter_&) = delete;

    ZnEmbeddedDbStatus open();
    /// After a failure only dropping the writer makes sense.
    ZnEmbeddedDbStatus add(const RecordView_& record);
    /// Takes a sequence into the table's range whose record is not written, as a newer one stands for it.
    void noteSequence(std::uint64_t sequence);
    /// Code 4 for a table without records. `*syncErrorOut` as in replaceFileDurable.
    ZnEmbeddedDbStatus finish(ZnString* syncErrorOut = nullptr);
    /// With sequences, record count and file name, once it is finished.
    const TableMeta_& meta() const noexcept { return meta_; }
    /// Length of the file so far.
    std::uint64_t writtenBytes() const noexcept { return nextOffset_ + block_.size(); }

private:
    bool flushBlock_(ZnString* errorOut);
    bool writeRest_(ZnString* errorOut);
    std::string header_() const;
    void appendBloom_(std::string* out) const;
    void appendFooter_(std::string* out, std::uint64_t bloomOffset) const;

    ZnStorageFiles& files_;
    TableMeta_ meta_;
    const ZnString temporaryPath_;
    const ZnString finalPath_;
    RandomAccessFile_ file_;
    std::uint64_t nextOffset_ = 0;    // where the next block goes
    std::uint64_t writtenBackTo_ = 0; // the disk has begun on what stands in front
    std::string block_;               // room for the block's header, then its records
    std::string blockFirstKey_;
    std::string lastKey_;
    std::vector<BloomFilter_::Hash> hashes_; // of all keys: the filter's size follows from their number
    std::string sparseEntries_;
    std::uint32_t blockCount_ = 0;
};

/// Writes `records`, which are sorted, as one table. Fills in the sequences, the record count and the file name of
/// `*meta`.
ZnEmbeddedDbStatus writeTable(ZnStorageFiles& files, const ZnString& tempDir, const ZnString& tablesDir,
                              TableMeta_* meta, const std::vector<TableRecord_>& records,
                              ZnString* syncErrorOut = nullptr);

} // namespace znEmbeddedDbDetail
