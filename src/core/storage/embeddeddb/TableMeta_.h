#pragma once

#include "core/types/ZnString.h"

#include <cstdint>

namespace znEmbeddedDbDetail {

inline constexpr std::int32_t kPrimaryTable = 1; // keys of the user to values
inline constexpr std::int32_t kIndexTable = 2;   // keys of one secondary index

/// What the manifest knows of one table. Thread: a value.
struct TableMeta_ {
    std::int32_t kind = kPrimaryTable;
    std::int32_t level = 0; // 0 or 1
    std::uint64_t fileId = 0;
    std::uint64_t minSequence = 0; // smallest above 0 of the records
    std::uint64_t maxSequence = 0;
    std::uint64_t recordCount = 0;
    std::uint64_t blobFileId = 0; // where the table's first writer put large values; tells nothing about who uses them
    ZnString fileName;            // tableFileName(level, fileId)
    ZnString indexName;           // empty for a primary table

    bool operator==(const TableMeta_& other) const = default;
};

} // namespace znEmbeddedDbDetail
