#pragma once

#include "core/storage/embeddeddb/BlobFile_.h"
#include "core/storage/embeddeddb/PointRead_.h"
#include "core/storage/embeddeddb/StoreCore_.h"
#include "core/storage/embeddeddb/TableWriter_.h"

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace znEmbeddedDbDetail {

/// Writes the live records anew, into one table and one blob file, when a blob file has 30 percent of dead bytes.
///
/// A run of the background begins in an idle store, and its work is void when anything was written meanwhile. One that
/// was demanded takes the tables as they are; tables that flushes add meanwhile stand in front of the new one, and keep
/// their blob files. Index tables are not touched. Reads and writes block by block, values one at a time.
/// Thread: one of the store's pool; the mutex is held to take the tables and to commit. Owner: the task, as a local.
class BlobGcManager_ {
public:
    BlobGcManager_(StoreCore_& core, std::uint64_t generation, bool isDemanded)
        : core_(core), generation_(generation), isDemanded_(isDemanded) {}

    /// Ok also when there was nothing to do; code 5 when the store closes, or the work was void. After a failure the
    /// files in force are those of before.
    ZnEmbeddedDbStatus runBlobGc();

private:
    struct BlobFileUse_ {
        std::uint64_t blobFileId;
        std::uint64_t fileBytes;
    };

    bool begin_();
    void findBlobFiles_();
    template <typename Visit, typename See>
    ZnEmbeddedDbStatus forEachLive_(Visit visit, See see);
    ZnEmbeddedDbStatus countLiveBytes_();
    bool isWorthwhile_() const;
    ZnEmbeddedDbStatus rewrite_();
    ZnEmbeddedDbStatus beginTable_(std::unique_ptr<TableWriter_>* writer);
    ZnEmbeddedDbStatus addRecord_(TableWriter_* writer, const FoundRecord_& found);
    ZnEmbeddedDbStatus externalize_(std::string_view value, BlobRef_* blob);
    ZnEmbeddedDbStatus finishTable_(TableWriter_* writer);
    bool isVoid_() ZN_REQUIRES(core_.mutex);
    ZnEmbeddedDbStatus commit_();
    ZnEmbeddedDbStatus commitTables_() ZN_REQUIRES(core_.mutex);
    void endEpoch_() ZN_REQUIRES(core_.mutex);
    std::shared_ptr<HeldBlobFile_> heldBlobFile_(std::uint64_t blobFileId) ZN_REQUIRES(core_.mutex);
    std::vector<ZnString> oldTablePaths_() const;
    void removeNewFiles_() const;
    bool isEnding_() const;

    StoreCore_& core_;
    const std::uint64_t generation_;
    const bool isDemanded_;
    StorePaths_ paths_; // these, as the store may close meanwhile
    std::shared_ptr<StoreCounters_> counters_;
    std::shared_ptr<BlobFiles_> blobs_;
    std::shared_ptr<BlobEpoch_> epoch_; // that ends with this run
    std::uint64_t blobThresholdBytes_ = 0;
    bool verifiesFilters_ = true;

    std::uint64_t observedSequence_ = 0;
    std::uint64_t observedManifestId_ = 0;
    std::uint64_t firstUnknownFileId_ = 0; // files from here on belong to work that is not over
    TableList_ oldTables_;                 // newest first
    std::set<std::uint64_t> retired_;      // blob files that are there for older views alone
    std::vector<BlobFileUse_> blobFiles_;
    std::map<std::uint64_t, std::uint64_t> liveBytes_; // by blob file id; 0 for one that only replaced records refer to

    BlobWriter_ blobWriter_{core_.files};
    std::uint64_t newBlobId_ = 0;
    std::shared_ptr<const TableHandle_> newTable_; // null: there are no live records
    ZnString newTablePath_;                        // once there is a file of that name
    std::string storedValue_;                      // of the record being written
    ZnByteArray blobValue_;                        // the same, when it lies in a blob file
};

} // namespace znEmbeddedDbDetail
