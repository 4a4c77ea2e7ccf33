#pragma once

#include "core/storage/embeddeddb/LittleEndian_.h"
#include "core/types/ZnByteArray.h"

#include <cstdint>
#include <string>
#include <string_view>

// A record in a table, little-endian, back to back with the next one:
//
//   +-----------+-----------+----------+------+-------------+-------------+
//   | keyLength | key       | sequence | type | valueLength | value       |
//   | 4         | keyLength | 8        | 4    | 4           | valueLength |
//   +-----------+-----------+----------+------+-------------+-------------+
namespace znEmbeddedDbDetail {

inline constexpr std::size_t kRecordFixedBytes = 20;

enum RecordType_ : std::uint32_t {
    kInlineRecord = 0,    // a stored value; nothing in an index table
    kTombstoneRecord = 1, // no value
    kBlobRecord = 2       // a stored value that refers to a blob file
};

/// One record, as a view of the bytes that hold it.
struct RecordView_ {
    std::string_view key;
    std::uint64_t sequence = 0;
    std::uint32_t type = kInlineRecord;
    std::string_view value;
};

/// One record of its own. Thread: a value.
struct TableRecord_ {
    ZnByteArray key;
    std::uint64_t sequence = 0;
    std::uint32_t type = kInlineRecord;
    ZnByteArray value;

    RecordView_ view() const noexcept { return {key.view(), sequence, type, value.view()}; }
    static TableRecord_ of(const RecordView_& record);
};

void appendRecord(std::string* out, const RecordView_& record);
/// False, with reader and record as they were, for what is no record: a field that does not fit, a type that is none,
/// a tombstone with a value.
bool readRecord(ByteReader_* reader, RecordView_* record) noexcept;

} // namespace znEmbeddedDbDetail
