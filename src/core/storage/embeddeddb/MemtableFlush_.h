#pragma once

#include "core/storage/embeddeddb/BlobFile_.h"
#include "core/storage/embeddeddb/SharedMemtable_.h"
#include "core/storage/embeddeddb/StoreCounters_.h"
#include "core/storage/embeddeddb/StorePaths_.h"
#include "core/storage/embeddeddb/TableHandle_.h"
#include "core/storage/embeddeddb/TableWriter_.h"

#include <functional>
#include <memory>
#include <vector>

namespace znEmbeddedDbDetail {

/// Writes what sealed memtables hold as tables of one level, and the large values as a blob file.
///
/// Of a key that several have, the record with the largest sequence is written. The new files are on stable storage and
/// have been checked when run() is Ok; nothing refers to them yet.
/// Thread: one. Owner: whoever flushes, as a local.
class MemtableFlush_ {
public:
    struct Settings {
        std::int32_t level = 0;
        std::uint64_t blobThresholdBytes = 0;
        TableOpenOptions_ tableOptions;
        std::function<std::uint64_t()> nextTableId; // gives out a new one with each call
    };
    using MemtablePtr = std::shared_ptr<SharedMemtable_>;

    /// `memtables` oldest first.
    MemtableFlush_(ZnStorageFiles& files, const StorePaths_& paths, StoreCounters_& counters, Settings settings,
                   const std::vector<MemtablePtr>& memtables);

    ZnEmbeddedDbStatus run();
    const std::vector<std::shared_ptr<const TableHandle_>>& tables() const noexcept { return tables_; }
    std::uint64_t maxSequence() const noexcept { return maxSequence_; }
    /// Takes back the files of this attempt.
    void removeFiles();

private:
    ZnEmbeddedDbStatus writePrimary_();
    ZnEmbeddedDbStatus addPrimary_(TableWriter_* writer, std::string_view key, const MemtableEntry_& entry);
    ZnEmbeddedDbStatus externalizeBlobValueToFile_(const MemtableEntry_& entry, BlobRef_* blob);
    ZnEmbeddedDbStatus writeIndex_(const ZnString& indexName);
    TableMeta_ newMeta_(std::int32_t kind, const ZnString& indexName);
    ZnEmbeddedDbStatus finish_(TableWriter_* writer, std::uint64_t blobFileId);

    ZnStorageFiles& files_;
    const StorePaths_& paths_;
    StoreCounters_& counters_;
    const Settings settings_;
    std::vector<const Memtable_*> memtables_;
    std::uint64_t maxSequence_ = 0;
    BlobWriter_ blobWriter_;
    std::uint64_t blobFileId_ = 0; // 0: no value was moved
    std::vector<ZnString> finishedPaths_;
    std::vector<std::shared_ptr<const TableHandle_>> tables_;
    std::string storedValue_; // of the record being written
};

} // namespace znEmbeddedDbDetail
