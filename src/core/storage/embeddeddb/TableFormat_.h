#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// A table file: five sections, in this order, without gaps. Integers are little-endian.
//
//   header        0  "ZNDBSST1"            data block, one or more    sparse index, at sparseOffset
//                 8  version 1        4      payloadLength  4            entryCount  4
//                12  kind             4      crc32 of it    4            per block:
//                16  minSequence      8      payload: records              keyLength  4
//                24  maxSequence      8                                    first key
//                32  recordCount      8    bloom section, at bloomOffset    offset in the file  8
//                40  indexNameLength  4      hashCount      4              size with its header  4
//                44  65536            4      byteLength     4
//                48  indexName               bits                       footer, the last 44 bytes
//                                                                         0  "ZNDBFTR1"
//                                                                         8  sparseOffset  8
//                                                                        16  bloomOffset   8
//                                                                        24  maxSequence   8   as in the header,
//                                                                        32  recordCount   8   and so are these
//                                                                        40  kind          4
namespace znEmbeddedDbDetail {

inline constexpr std::string_view kTableMagic = "ZNDBSST1";
inline constexpr std::string_view kTableFooterMagic = "ZNDBFTR1";
inline constexpr std::uint32_t kTableVersion = 1;
inline constexpr std::size_t kTableHeaderBytes = 48; // without the index name
inline constexpr std::size_t kTableFooterBytes = 44;
inline constexpr std::size_t kBlockHeaderBytes = 8;
inline constexpr std::size_t kBlockTargetBytes = 65536; // of payload; only a record that is larger makes a block larger
inline constexpr std::size_t kSparseFixedBytes = 16;    // of an entry, without its key
inline constexpr const char* kTablesDirectory = "tables";

} // namespace znEmbeddedDbDetail
