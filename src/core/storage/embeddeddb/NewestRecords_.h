#pragma once

#include "core/storage/embeddeddb/PointRead_.h"
#include "core/storage/embeddeddb/RecordMerge_.h"

#include <utility>
#include <vector>

namespace znEmbeddedDbDetail {

/// Goes through the keys of tables in their order, and gives of each key the record with the largest sequence.
///
/// That decides, never the order of the tables. Thread: one at a time. Owner: background work, as a local; the tables
/// outlive it, and records that it gave stay good.
class NewestRecords_ {
public:
    explicit NewestRecords_(const TableList_& tables) : merge_(sourcesOf_(tables), {}, false) {}

    /// False past the last key, and when a table could not be read, which status() tells.
    bool isValid() const noexcept { return merge_.isValid(); }
    ZnEmbeddedDbStatus status() const {
        return merge_.broken() == nullptr ? ZnEmbeddedDbStatus() : unreadableTable(*merge_.broken()->table());
    }
    /// The record of the key at which it stands, which is one step ahead of the record; only while isValid().
    /// `visit(record)` sees all records of the key.
    template <typename Visit>
    FoundRecord_ take(Visit visit) {
        FoundRecord_ newest{merge_.record(), nullptr, merge_.source().table()};
        const std::string_view key = newest.record.key; // of the mapping: good beyond the step
        for (; merge_.isValid() && merge_.record().key == key; merge_.advance()) {
            visit(merge_.record());
            if (merge_.record().sequence > newest.record.sequence)
                newest = {merge_.record(), nullptr, merge_.source().table()};
        }
        return newest;
    }

private:
    static std::vector<MergeSource_> sourcesOf_(const TableList_& tables) {
        std::vector<MergeSource_> sources;
        for (const auto& table : tables)
            sources.emplace_back(table);
        return sources;
    }

    RecordMerge_ merge_;
};

} // namespace znEmbeddedDbDetail
