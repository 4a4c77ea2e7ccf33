#pragma once

#include "core/storage/embeddeddb/Manifest_.h"
#include "core/storage/embeddeddb/ReadView_.h"
#include "core/storage/embeddeddb/StorePaths_.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

// Values of a store's state, on their way between its parts. Thread: values.

namespace znEmbeddedDbDetail {

/// A memtable that takes no more writes and waits to become tables.
struct SealedMemtable_ {
    std::shared_ptr<SharedMemtable_> memtable;
    bool isFull = false;     // else a snapshot sealed it: it may wait for a full one
    bool isFlushing = false; // its place in the line must not change
};

/// By file name.
using TableHandles_ = std::unordered_map<std::string, std::shared_ptr<const TableHandle_>>;

/// What recovery found, and what an open store goes on from.
struct RecoveredStore_ {
    ManifestState_ manifest; // manifestId: of the next one
    TableHandles_ tableHandles;
    std::deque<SealedMemtable_> memtables; // oldest first; what the logs hold beyond the tables
    std::uint64_t lastSequence = 0;
    std::shared_ptr<BlobFiles_> blobs; // of a store that is only read: with the files that it needs open; else null
};

/// A change of the set of tables.
struct TableChange_ {
    std::vector<std::shared_ptr<const TableHandle_>> added;
    std::vector<TableMeta_> removed;
    std::uint64_t maxSequence = 0;        // of what was added
    std::size_t flushedMemtableCount = 0; // of the oldest sealed memtables: they are in `added`
    bool endsBlobEpoch = false;           // blob files go out of force with it
};

/// "WAL-7.log" of the store's log directory, and so on.
ZnString walPath(const StorePaths_& paths, std::uint64_t walId);
ZnString blobPath(const StorePaths_& paths, std::uint64_t blobFileId);

/// The order in which tables of one kind are asked for a key: the newest of the newest level first.
bool isNewerTable(const TableMeta_& left, const TableMeta_& right);

/// Deletes all manifests but the last `keptCount` up to the one in force, `currentId`.
void removeOldManifests(ZnStorageFiles& files, const ZnString& rootPath, std::uint64_t currentId,
                        std::uint32_t keptCount);

} // namespace znEmbeddedDbDetail
