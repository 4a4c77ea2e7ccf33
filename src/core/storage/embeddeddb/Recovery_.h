#pragma once

#include "core/storage/embeddeddb/StoreCore_.h"
#include "core/storage/embeddeddb/WalReader_.h"

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace znEmbeddedDbDetail {

/// The bare names of what lies in the directories of a store; a directory that is not there has none. Thread: a value.
struct StoreListing_ {
    std::vector<ZnString> root;
    std::vector<ZnString> wal;
    std::vector<ZnString> tables;
    std::vector<ZnString> blobs;
    std::vector<ZnString> temporary;

    ZnEmbeddedDbStatus read(ZnStorageFiles& files, const StorePaths_& paths);
};

/// Reads a store from the disk: the manifest in force, the tables that it names, and what the logs hold beyond them.
///
/// Code 7 for what cannot have been written like that; the message names the file. What a crash may leave is none of
/// it. Thread: one. Owner: open, as a local.
class Recovery_ {
public:
    Recovery_(ZnStorageFiles& files, const StorePaths_& paths, const ZnEmbeddedDbOptions& options)
        : files_(files), paths_(paths), options_(options) {}

    /// For a store that is opened to read, before run(): tables that are open already, and stay as they are in the
    /// manifest, are taken from `tables`, and blob files that are open from `blobs` (not null).
    void shareOpenFiles(TableHandles_ tables, std::shared_ptr<BlobFiles_> blobs) {
        knownTables_ = std::move(tables);
        knownBlobs_ = std::move(blobs);
    }

    /// Changes nothing on the disk. `*store` is complete when this is Ok.
    ZnEmbeddedDbStatus run(RecoveredStore_* store);
    /// Removes what a crash left behind. Only when the manifest of this opening is in force; `tables` are those that it
    /// names. Names that are no file of a store are left alone.
    void clean(const ManifestState_& manifest, const TableHandles_& tables);

private:
    ZnEmbeddedDbStatus runOnce_(RecoveredStore_* store, std::uint64_t manifestId);
    ZnEmbeddedDbStatus openTables_(RecoveredStore_* store);
    std::vector<std::size_t> shareTables_(const std::vector<TableMeta_>& metas,
                                          std::vector<std::shared_ptr<const TableHandle_>>* tables) const;
    ZnEmbeddedDbStatus pinListedBlobFiles_(RecoveredStore_* store, std::uint64_t manifestId);
    ZnEmbeddedDbStatus pinUsedBlobFiles_(RecoveredStore_* store);
    ZnEmbeddedDbStatus findLogs_(const RecoveredStore_& store);
    void raiseIds_(RecoveredStore_* store) const;
    ZnEmbeddedDbStatus replayLogs_(RecoveredStore_* store);
    ZnEmbeddedDbStatus dropUnfinished_(const RecoveredStore_& store);
    ZnEmbeddedDbStatus replayLog_(RecoveredStore_* store, std::size_t logIndex, bool* isEnd);
    ZnEmbeddedDbStatus checkHeader_(const RecoveredStore_& store, std::size_t logIndex, const WalReader_& reader,
                                    bool* isEnd);
    ZnEmbeddedDbStatus endOfLog_(std::size_t logIndex, WalReader_* reader, WalReader_::Tail tail, bool* isEnd);
    ZnEmbeddedDbStatus applyFrame_(RecoveredStore_* store, std::uint64_t walId, const WalReader_& reader);
    ZnEmbeddedDbStatus damage_(std::size_t logIndex, std::uint64_t offset, const char* what, bool* isEnd);
    bool nextLogNeedsNothingOf_(std::size_t logIndex) const;
    void removeUnknown_(const ZnString& directory, const std::vector<ZnString>& names, const std::set<ZnString>& known,
                        std::string_view suffix) const;

    ZnStorageFiles& files_;
    const StorePaths_& paths_;
    const ZnEmbeddedDbOptions& options_;
    TableHandles_ knownTables_;
    std::shared_ptr<BlobFiles_> knownBlobs_; // null when the store is opened to be written to
    StoreListing_ listing_;
    std::vector<std::uint64_t> logs_;     // ids of those to be replayed, ascending
    std::uint64_t tableSequence_ = 0;     // everything at or below it is in tables
    std::uint64_t lastFrameSequence_ = 0; // of the frames read so far
    bool lacksBlobFile_ = false;          // that is all that was wrong
};

/// Makes a directory and those above it, and their names last. Of one that is there, its name.
ZnEmbeddedDbStatus makeDirectory(ZnStorageFiles& files, const ZnString& path);

/// Of a directory without CURRENT: code 7 when it holds what only a store with content can have left.
ZnEmbeddedDbStatus checkNoStore(ZnStorageFiles& files, const StorePaths_& paths);

/// Makes an empty store where none is: directories, first log, first manifest, CURRENT, in this order. Code 7 when
/// there are files of a store already.
ZnEmbeddedDbStatus createStore(ZnStorageFiles& files, const StorePaths_& paths);

} // namespace znEmbeddedDbDetail
