#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"
#include "core/types/ZnVector.h"

#include <cstdint>
#include <string>
#include <string_view>

// The value field of a record of a primary table, and of a put in the log, little-endian:
//
//   +---------+----------------+----------+
//   | storage | metadataLength | metadata |   then for storage 0 (inline):    valueLength 4, value
//   | 1       | 4              |          |   and for storage 1 (external):   blobFileId 8, offset 8, size 4,
//   +---------+----------------+----------+                                   crc32 4, flags 4
//
// Metadata: indexCount 4; per index, in ascending order of the names: nameLength 4, name, keyCount 4, and per key
// keyLength 4, key. Nothing stands behind either of them.
namespace znEmbeddedDbDetail {

/// Where a large value lies. Thread: a value.
struct BlobRef_ {
    bool valid = false;
    std::uint64_t blobFileId = 0;
    std::uint64_t offset = 0;
    std::uint32_t size = 0;
    std::uint32_t crc32 = 0; // of the value
    std::uint32_t flags = 0; // always written as 0

    bool operator==(const BlobRef_& other) const = default;
};

/// The secondary keys of one record, by index name.
using IndexKeys_ = ZnMap<ZnString, ZnVector<ZnByteArray>>;

/// A primary record in memory. Thread: a value.
struct ValueEntry_ {
    bool tombstone = false;
    std::uint64_t sequence = 0;
    bool inlineValue = false; // `value` is the value; else `blob` tells where it lies
    ZnByteArray value;
    BlobRef_ blob;
    IndexKeys_ indexKeys;
};

/// The parts of a stored value, as views of its bytes. The metadata has not been looked into.
struct StoredValueView_ {
    bool isInline = false;
    std::string_view metadata;
    std::string_view value; // empty when it is not inline
    BlobRef_ blob;          // not valid when it is inline
};

/// All of these give false, with the output as it was, for bytes that do not parse or do not end where they must.
bool parseStoredValue(std::string_view bytes, StoredValueView_* view) noexcept;
bool decodeIndexKeys(std::string_view metadata, IndexKeys_* keys);
/// Whether decodeIndexKeys() would give true.
bool checkIndexKeys(std::string_view metadata) noexcept;
/// Whether the metadata decodes and has that key under that index.
bool hasIndexKey(std::string_view metadata, std::string_view indexName, std::string_view key) noexcept;
/// Leaves `tombstone` and `sequence` alone, which are not in the stored value.
bool decodeStoredValue(const char* bytes, std::size_t byteCount, ValueEntry_* entry);

/// Appends. The entry must not be a tombstone.
void encodeStoredValue(const ValueEntry_& entry, std::string* out);
/// Appends the stored value of an inline value.
void encodeInlineValue(std::string_view value, const IndexKeys_& indexKeys, std::string* out);
/// The same with secondary keys as they stand in another stored value.
void encodeInlineValueWith(std::string_view metadata, std::string_view value, std::string* out);
void encodeBlobValueWith(std::string_view metadata, const BlobRef_& blob, std::string* out);
/// Appends the stored value of a value in a blob file.
void encodeBlobValue(const BlobRef_& blob, const IndexKeys_& indexKeys, std::string* out);

} // namespace znEmbeddedDbDetail
