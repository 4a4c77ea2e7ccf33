#pragma once

#include "core/storage/embeddeddb/LittleEndian_.h"
#include "core/storage/embeddeddb/StoredValue_.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnString.h"
#include "core/types/ZnVector.h"

#include <cstdint>
#include <string>
#include <string_view>

// A write-ahead log "WAL-<id>.log": a header, then frames at multiples of 8. One frame is one batch, which is there as
// a whole or not at all. Integers are little-endian.
//
//   header, 48 bytes                                  frame
//    0  "ZNDBWAL1"                                     0  "ZNFR"
//    8  version 1          4                           4  crc32             4  of the salt's 8 bytes, then of the frame
//   12  header length 48   4                                                   from offset 8 to its end
//   16  walId              8                           8  payloadLength     4  a multiple of 8
//   24  previousSequence   8                          12  operationCount    4  at least 1
//   32  salt               8  random per file         16  firstSequence     8  operation i has firstSequence + i
//   40  flags 0            4                          24  durableSequence   8  when the frame was written
//   44  crc32 of 0 to 43   4                          32  payload: operations back to back, then 0 to 7 zero bytes
//
//   operation:  type 1 (0 put, 1 remove) | keyLength 4 | key | for a put: valueLength 4 | stored value
//               | retiredCount 4 | per retired index key: nameLength 4 | index name | keyLength 4 | secondary key
namespace znEmbeddedDbDetail {

inline constexpr std::size_t kWalHeaderBytes = 48;
inline constexpr std::size_t kWalFrameHeaderBytes = 32;
inline constexpr std::size_t kWalAlignment = 8;

struct WalHeader_ {
    std::uint64_t walId = 0;
    std::uint64_t previousSequence = 0; // the last one that was committed when the log was made
    std::uint64_t salt = 0;             // keeps frames of other files, or written as values, from passing for frames

    bool operator==(const WalHeader_& other) const = default;
};

std::string encodeWalHeader(const WalHeader_& header);
/// False, with the output as it was, for anything but a whole valid header.
bool decodeWalHeader(std::string_view bytes, WalHeader_* header) noexcept;

/// A secondary key that the record before had and that this operation takes away.
struct RetiredKey_ {
    ZnString indexName;
    ZnByteArray key;

    bool operator==(const RetiredKey_& other) const = default;
};
using RetiredKeys_ = ZnVector<RetiredKey_>;

/// The fixed part of a frame.
struct WalFrameHeader_ {
    std::uint32_t crc = 0;
    std::uint32_t payloadLength = 0;
    std::uint32_t operationCount = 0;
    std::uint64_t firstSequence = 0;
    std::uint64_t durableSequence = 0;

    std::uint64_t lastSequence() const noexcept { return firstSequence + operationCount - 1; }
    std::uint64_t frameBytes() const noexcept { return kWalFrameHeaderBytes + std::uint64_t(payloadLength); }
};

/// Whether the first bytes can be those of a frame; says nothing about what follows them.
bool parseWalFrameHeader(std::string_view bytes, WalFrameHeader_* header) noexcept;
/// `frame` is a whole frame.
std::uint32_t walFrameCrc(std::uint64_t salt, std::string_view frame) noexcept;

/// One operation, as a view of the frame.
struct WalOperation_ {
    bool isRemove = false;
    std::string_view key;
    std::string_view storedValue; // of a put
    std::uint32_t retiredCount = 0;
    std::string_view retired; // decodeRetiredKeys reads it
};

/// Goes through the operations of a payload.
class WalOperationReader_ {
public:
    WalOperationReader_(std::string_view payload, std::uint32_t operationCount) noexcept
        : reader_(payload), left_(operationCount) {}

    /// False when none is left, or what stands there is none.
    bool next(WalOperation_* operation) noexcept;
    /// Whether all operations were read and nothing but the padding stands behind them.
    bool isComplete() const noexcept;

private:
    ByteReader_ reader_;
    std::uint32_t left_;
};

/// The operations of one batch, on their way into the log.
///
/// Filled by a writer without knowing the sequences; sealed when these are known. Thread: one at a time.
class WalBatch_ {
public:
    /// `indexKeys`: the secondary keys of the record.
    void put(std::string_view key, std::string_view value, const IndexKeys_& indexKeys = {},
             const RetiredKeys_& retired = {});
    void remove(std::string_view key, const RetiredKeys_& retired = {});
    std::uint32_t operationCount() const noexcept { return operationCount_; }
    WalOperationReader_ operations() const noexcept;
    /// Length of the frame.
    std::size_t frameBytes() const noexcept;
    /// The frame. Nothing may be added any more; sealing again with other numbers is fine.
    std::string_view seal(std::uint64_t salt, std::uint64_t firstSequence, std::uint64_t durableSequence);

private:
    void beginOperation_(std::uint8_t type, std::string_view key, std::size_t roomBytes);
    void finishOperation_(const RetiredKeys_& retired);

    std::string bytes_; // room for the header, then the operations
    std::uint32_t operationCount_ = 0;
};

bool decodeRetiredKeys(const WalOperation_& operation, RetiredKeys_* keys);

} // namespace znEmbeddedDbDetail
