#pragma once

#include "core/storage/embeddeddb/StoredValue_.h"
#include "core/storage/embeddeddb/TableRecord_.h"

namespace znEmbeddedDbDetail {

/// Whether that is a stored value, inline and without secondary keys: what most are, told by a few comparisons.
inline bool isPlainValue(std::string_view stored) noexcept {
    constexpr std::string_view kBegin("\0\4\0\0\0\0\0\0\0", 9); // storage, length of the metadata, no index
    constexpr std::size_t kFixedBytes = kBegin.size() + sizeof(std::uint32_t);
    return stored.size() >= kFixedBytes && stored.starts_with(kBegin) &&
           loadLe<std::uint32_t>(stored.data() + kBegin.size()) == stored.size() - kFixedBytes;
}

/// Parses the value of a record of a primary table that is no tombstone. False, with the output as it was, when it does
/// not parse, secondary keys included, or does not lie where the record's type says.
inline bool parseRecordValue(const RecordView_& record, StoredValueView_* view) noexcept {
    if (record.type == kInlineRecord && isPlainValue(record.value)) {
        view->isInline = true;
        view->metadata = record.value.substr(5, 4);
        view->value = record.value.substr(13);
        view->blob = {};
        return true;
    }
    StoredValueView_ found;
    if (!parseStoredValue(record.value, &found) || found.isInline != (record.type == kInlineRecord) ||
        !checkIndexKeys(found.metadata))
        return false;
    *view = found;
    return true;
}

} // namespace znEmbeddedDbDetail
