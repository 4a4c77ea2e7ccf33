#pragma once

#include "core/storage/embeddeddb/StoredValue_.h"
#include "core/storage/embeddeddb/TableRecord_.h"

namespace znEmbeddedDbDetail {

/// Parses the value of a record of a primary table that is no tombstone. False, with the output as it was, when it does
/// not parse, secondary keys included, or does not lie where the record's type says.
inline bool parseRecordValue(const RecordView_& record, StoredValueView_* view) noexcept {
    StoredValueView_ found;
    if (!parseStoredValue(record.value, &found) || found.isInline != (record.type == kInlineRecord) ||
        !checkIndexKeys(found.metadata))
        return false;
    *view = found;
    return true;
}

} // namespace znEmbeddedDbDetail
