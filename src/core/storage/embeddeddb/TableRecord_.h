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
inline bool readRecord(ByteReader_* reader, RecordView_* record) noexcept {
    // Every search and scan goes through here, record by record: inline, and one comparison for all fixed fields.
    const std::string_view bytes = reader->rest();
    if (bytes.size() < kRecordFixedBytes)
        return false;
    const std::size_t room = bytes.size() - kRecordFixedBytes;
    const std::size_t keyBytes = loadLe<std::uint32_t>(bytes.data());
    if (keyBytes > room)
        return false;
    const char* behindKey = bytes.data() + 4 + keyBytes;
    const auto type = loadLe<std::uint32_t>(behindKey + 8);
    const std::size_t valueBytes = loadLe<std::uint32_t>(behindKey + 12);
    if (valueBytes > room - keyBytes || type > kBlobRecord || (type == kTombstoneRecord && valueBytes != 0))
        return false;
    *record = {{bytes.data() + 4, keyBytes}, loadLe<std::uint64_t>(behindKey), type, {behindKey + 16, valueBytes}};
    reader->skip(kRecordFixedBytes + keyBytes + valueBytes);
    return true;
}

} // namespace znEmbeddedDbDetail
