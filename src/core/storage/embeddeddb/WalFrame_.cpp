#include "core/storage/embeddeddb/WalFrame_.h"

#include "core/storage/embeddeddb/Crc32_.h"
#include "core/types/ZnAssert.h"

#include <limits>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr std::string_view kWalMagic = "ZNDBWAL1";
constexpr std::string_view kFrameMagic = "ZNFR";
constexpr std::uint32_t kWalVersion = 1;
constexpr std::uint8_t kPut = 0;
constexpr std::uint8_t kRemove = 1;
constexpr std::size_t kLeastOperationBytes = 9; // type, length of an empty key, number of retired keys
constexpr std::size_t kPutFixedBytes = 40;      // of a put without secondary keys, with what pads the frame
constexpr std::uint64_t kLastSequence = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

constexpr std::size_t paddingBehind(std::size_t byteCount) {
    return (kWalAlignment - byteCount % kWalAlignment) % kWalAlignment;
}

bool skipRetiredKeys(ByteReader_* reader, std::uint32_t count) noexcept {
    std::string_view part;
    for (; count > 0; --count)
        if (!reader->readSized(&part) || !reader->readSized(&part))
            return false;
    return true;
}

} // namespace

std::string encodeWalHeader(const WalHeader_& header) {
    std::string bytes(kWalMagic);
    appendLe(&bytes, kWalVersion);
    appendLe(&bytes, static_cast<std::uint32_t>(kWalHeaderBytes));
    appendLe(&bytes, header.walId);
    appendLe(&bytes, header.previousSequence);
    appendLe(&bytes, header.salt);
    appendLe(&bytes, std::uint32_t(0));
    appendLe(&bytes, crc32(bytes));
    return bytes;
}

bool decodeWalHeader(std::string_view bytes, WalHeader_* header) noexcept {
    if (bytes.size() < kWalHeaderBytes)
        return false;
    ByteReader_ reader(bytes.substr(0, kWalHeaderBytes));
    std::string_view magic;
    std::uint32_t version = 0;
    std::uint32_t headerBytes = 0;
    std::uint32_t flags = 0;
    std::uint32_t crc = 0;
    WalHeader_ found;
    const bool isWhole = reader.readBytes(kWalMagic.size(), &magic) && reader.read(&version) &&
                         reader.read(&headerBytes) && reader.read(&found.walId) &&
                         reader.read(&found.previousSequence) && reader.read(&found.salt) && reader.read(&flags) &&
                         reader.read(&crc);
    if (!isWhole || magic != kWalMagic || version != kWalVersion || headerBytes != kWalHeaderBytes || flags != 0 ||
        crc != crc32(bytes.substr(0, kWalHeaderBytes - sizeof(crc))))
        return false;
    *header = found;
    return true;
}

void WalBatch_::beginOperation_(std::uint8_t type, std::string_view key, std::size_t roomBytes) {
    if (bytes_.empty()) { // most batches have one operation: one allocation
        bytes_.reserve(kWalFrameHeaderBytes + kPutFixedBytes + key.size() + roomBytes);
        bytes_.resize(kWalFrameHeaderBytes);
    }
    appendLe(&bytes_, type);
    appendSized(&bytes_, key);
}

void WalBatch_::put(std::string_view key, std::string_view value, const IndexKeys_& indexKeys,
                    const RetiredKeys_& retired) {
    beginOperation_(kPut, key, value.size());
    const std::size_t lengthAt = bytes_.size();
    appendLe(&bytes_, std::uint32_t(0)); // known below
    encodeInlineValue(value, indexKeys, &bytes_);
    const std::size_t storedBytes = bytes_.size() - lengthAt - sizeof(std::uint32_t);
    storeLe(bytes_.data() + lengthAt, static_cast<std::uint32_t>(storedBytes));
    finishOperation_(retired);
}

WalOperationReader_ WalBatch_::operations() const noexcept {
    return {std::string_view(bytes_).substr(kWalFrameHeaderBytes), operationCount_};
}

void WalBatch_::remove(std::string_view key, const RetiredKeys_& retired) {
    beginOperation_(kRemove, key, 0);
    finishOperation_(retired);
}

void WalBatch_::finishOperation_(const RetiredKeys_& retired) {
    appendLe(&bytes_, static_cast<std::uint32_t>(retired.size()));
    for (const RetiredKey_& key : retired) {
        appendSized(&bytes_, key.indexName.view());
        appendSized(&bytes_, key.key.view());
    }
    ++operationCount_;
}

std::size_t WalBatch_::frameBytes() const noexcept {
    return bytes_.size() + paddingBehind(bytes_.size());
}

std::string_view WalBatch_::seal(std::uint64_t salt, std::uint64_t firstSequence, std::uint64_t durableSequence) {
    ZN_ASSERT(operationCount_ > 0);
    ZN_ASSERT(durableSequence < firstSequence);
    ZN_ASSERT(frameBytes() - kWalFrameHeaderBytes <= std::numeric_limits<std::uint32_t>::max());
    bytes_.resize(frameBytes());
    char* frame = bytes_.data();
    kFrameMagic.copy(frame, kFrameMagic.size());
    storeLe(frame + 8, static_cast<std::uint32_t>(bytes_.size() - kWalFrameHeaderBytes));
    storeLe(frame + 12, operationCount_);
    storeLe(frame + 16, firstSequence);
    storeLe(frame + 24, durableSequence);
    storeLe(frame + 4, walFrameCrc(salt, bytes_));
    return bytes_;
}

bool parseWalFrameHeader(std::string_view bytes, WalFrameHeader_* header) noexcept {
    ByteReader_ reader(bytes);
    std::string_view magic;
    WalFrameHeader_ found;
    if (!reader.readBytes(kFrameMagic.size(), &magic) || magic != kFrameMagic || !reader.read(&found.crc) ||
        !reader.read(&found.payloadLength) || !reader.read(&found.operationCount) ||
        !reader.read(&found.firstSequence) || !reader.read(&found.durableSequence))
        return false;
    if (found.payloadLength % kWalAlignment != 0 || found.operationCount == 0 ||
        found.operationCount > found.payloadLength / kLeastOperationBytes ||
        found.durableSequence >= found.firstSequence || found.firstSequence > kLastSequence - found.operationCount)
        return false;
    *header = found;
    return true;
}

std::uint32_t walFrameCrc(std::uint64_t salt, std::string_view frame) noexcept {
    char saltBytes[sizeof(salt)];
    storeLe(saltBytes, salt);
    return crc32(frame.substr(8), crc32({saltBytes, sizeof(saltBytes)}));
}

bool WalOperationReader_::next(WalOperation_* operation) noexcept {
    ByteReader_ ahead = reader_;
    std::uint8_t type = 0;
    WalOperation_ found;
    if (left_ == 0 || !ahead.read(&type) || type > kRemove || !ahead.readSized(&found.key))
        return false;
    found.isRemove = type == kRemove;
    if ((!found.isRemove && !ahead.readSized(&found.storedValue)) || !ahead.read(&found.retiredCount))
        return false;
    ByteReader_ retired = ahead;
    if (!skipRetiredKeys(&ahead, found.retiredCount) ||
        !retired.readBytes(retired.remaining() - ahead.remaining(), &found.retired))
        return false;
    --left_;
    reader_ = ahead;
    *operation = found;
    return true;
}

bool WalOperationReader_::isComplete() const noexcept {
    ByteReader_ rest = reader_;
    std::string_view padding;
    return left_ == 0 && rest.remaining() < kWalAlignment && rest.readBytes(rest.remaining(), &padding) &&
           padding.find_first_not_of('\0') == std::string_view::npos;
}

bool decodeRetiredKeys(const WalOperation_& operation, RetiredKeys_* keys) {
    ByteReader_ reader(operation.retired);
    RetiredKeys_ found;
    for (std::uint32_t index = 0; index < operation.retiredCount; ++index) {
        std::string_view name;
        std::string_view key;
        if (!reader.readSized(&name) || !reader.readSized(&key))
            return false;
        found.append({ZnString(name), ZnByteArray(key)});
    }
    *keys = std::move(found);
    return reader.isAtEnd();
}

} // namespace znEmbeddedDbDetail
