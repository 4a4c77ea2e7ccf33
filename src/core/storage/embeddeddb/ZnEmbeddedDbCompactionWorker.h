#pragma once

#include "core/storage/embeddeddb/PointRead_.h"
#include "core/storage/embeddeddb/StoreCore_.h"
#include "core/storage/embeddeddb/TableWriter_.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace znEmbeddedDbDetail {

/// Tables of one kind that are to become one table of level 1.
struct CompactionGroup_ {
    std::int32_t kind = kPrimaryTable;
    ZnString indexName; // empty for primary tables
    std::vector<TableMeta_> inputs;
    bool isWhole = false; // all tables of the kind: nothing older is left that a tombstone would have to hide
};
using CompactionGroups_ =
    std::vector<CompactionGroup_>; // primary tables first, then indexes in the order of their names

/// Merges tables, each group into one, and puts the results in force in one commit.
///
/// Of records with one key the one with the largest sequence stays, whatever the order of the tables. Values in blob
/// files are not touched. Of a group that is whole, tombstones are dropped, and index entries that no record has any
/// more. Reads and writes block by block: it needs 16 bytes a key besides.
/// Thread: one of the store's pool; the mutex is held to take the inputs and to commit. Owner: the task, as a local.
class CompactionManager_ {
public:
    CompactionManager_(StoreCore_& core, std::uint64_t generation) : core_(core), generation_(generation) {}

    /// Code 5 when the store closes. After a failure the tables in force are those of before.
    ZnEmbeddedDbStatus runL0Compaction(const CompactionGroups_& groups);

private:
    struct PinnedGroup_ {
        const CompactionGroup_* group;
        TableList_ tables;    // newest first; no longer those that are out of force already
        bool isWhole = false; // as the group's, and none is missing
    };

    bool pin_(const CompactionGroups_& groups);
    ZnEmbeddedDbStatus writeOutputs_();
    ZnEmbeddedDbStatus merge_(const PinnedGroup_& pinned);
    bool isKept_(const PinnedGroup_& pinned, const FoundRecord_& found, ZnEmbeddedDbStatus* status) const;
    bool isStale_(const ZnString& indexName, std::string_view indexKey, ZnEmbeddedDbStatus* status) const;
    ZnEmbeddedDbStatus beginTable_(const CompactionGroup_& group, std::unique_ptr<TableWriter_>* writer);
    ZnEmbeddedDbStatus finishTable_(TableWriter_* writer);
    ZnEmbeddedDbStatus openOutputs_();
    ZnEmbeddedDbStatus commit_();
    std::vector<ZnString> obsoletePaths_() const;
    bool isEnding_() const;
    void removeOutputs_() const;

    StoreCore_& core_;
    const std::uint64_t generation_;
    StorePaths_ paths_; // these three, as the store may close meanwhile
    std::shared_ptr<StoreCounters_> counters_;
    bool verifiesFilters_ = true;
    std::vector<PinnedGroup_> pinned_;
    ReadView_ primaries_; // the primary tables of the moment when the inputs were taken
    std::vector<TableMeta_> obsolete_;
    std::vector<TableMeta_> outputMetas_;
    std::vector<ZnString> outputPaths_;
    TableList_ outputs_;
};

} // namespace znEmbeddedDbDetail
