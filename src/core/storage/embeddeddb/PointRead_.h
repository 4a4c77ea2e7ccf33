#pragma once

#include "core/storage/embeddeddb/ReadView_.h"
#include "core/types/ZnVector.h"

#include <optional>
#include <string_view>

namespace znEmbeddedDbDetail {

/// Reads the record of one key: its value and its secondary keys, each only when asked for (the pointer is
/// not null). Code 1, with the outputs as they were, when the view has no such key.
ZnEmbeddedDbStatus readRecord(const ReadView_& view, std::string_view key, ZnByteArray* value,
                              IndexKeys_* indexKeys = nullptr);
/// The values of as many keys, all of one moment, nothing for a key that is not there. After a failure `*values` is as
/// it was.
ZnEmbeddedDbStatus readRecords(const ReadView_& view, const ZnVector<ZnByteArray>& keys,
                               ZnVector<std::optional<ZnByteArray>>* values);

/// A record where it lies, in a sealed memtable or in a table. Thread: a value; good as long as the view.
struct FoundRecord_ {
    RecordView_ record;                    // the value of a memtable's is the user's, of a table's the stored one
    const MemtableEntry_* entry = nullptr; // of the memtable; null: it lies in `table`
    const TableHandle_* table = nullptr;
};

/// The newest record of a key, tombstones included, in all but the active memtable. `record.key` is as good as `key`.
/// With Unreadable, `found->table` is the one that is.
TableHandle_::Find findRecord(const ReadView_& view, std::string_view key, FoundRecord_* found);
/// As findRecord(), in the index that has that name, and for an index key. Records of an index have no value, and
/// `found->entry` is always null.
TableHandle_::Find findIndexRecord(const ReadView_& view, const ZnString& indexName, std::string_view indexKey,
                                   FoundRecord_* found);

/// What is told of a block that could be read when its table was opened, and now cannot.
ZnEmbeddedDbStatus unreadableTable(const TableHandle_& table);
/// What is told of a record whose stored value does not parse.
ZnEmbeddedDbStatus unreadableValue(const TableHandle_& table, const RecordView_& record);

} // namespace znEmbeddedDbDetail
