#include "core/storage/embeddeddb/TableCheck_.h"

#include "core/storage/embeddeddb/Crc32_.h"
#include "core/storage/embeddeddb/RecordValue_.h"
#include "core/storage/embeddeddb/TableFormat_.h"

#include <algorithm>
#include <utility>

namespace znEmbeddedDbDetail {

ZnEmbeddedDbStatus TableCheck_::run() {
    if (file_.size() < kTableFooterBytes)
        fail_("table too small");
    else if (readHeader_() && readFooter_() && checkAgainstMeta_() && readSparseIndex_() && readBloom_())
        checkBlocks_();
    return std::move(status_);
}

bool TableCheck_::fail_(const char* message) {
    status_ = {ZnEmbeddedDbStatus::Corruption, message};
    return false;
}

/// The range must lie in the file.
bool TableCheck_::read_(std::uint64_t offset, std::uint64_t byteCount, std::string* bytes) {
    ZnString error;
    bytes->resize(static_cast<std::size_t>(byteCount));
    if (file_.readAt(offset, bytes->data(), bytes->size(), &error))
        return true;
    status_ = {ZnEmbeddedDbStatus::IoError, std::move(error)};
    return false;
}

bool TableCheck_::readHeader_() {
    std::string bytes;
    std::string_view magic;
    std::uint32_t version = 0;
    std::uint32_t nameBytes = 0;
    if (!read_(0, std::min<std::uint64_t>(kTableHeaderBytes, file_.size()), &bytes))
        return false;
    ByteReader_ reader(bytes);
    if (!reader.readBytes(kTableMagic.size(), &magic) || magic != kTableMagic)
        return fail_("invalid table magic");
    if (!reader.read(&version) || version != kTableVersion || !reader.read(&kind_) || !reader.read(&minSequence_) ||
        !reader.read(&maxSequence_) || !reader.read(&recordCount_) || !reader.read(&nameBytes) ||
        bytes.size() < kTableHeaderBytes || nameBytes > file_.size() - kTableHeaderBytes)
        return fail_("invalid table header");
    return read_(kTableHeaderBytes, nameBytes, &indexName_);
}

bool TableCheck_::readFooter_() {
    std::string bytes;
    std::string_view magic;
    std::uint64_t maxSequence = 0;
    std::uint64_t recordCount = 0;
    std::uint32_t kind = 0;
    if (!read_(file_.size() - kTableFooterBytes, kTableFooterBytes, &bytes))
        return false;
    ByteReader_ reader(bytes);
    if (!reader.readBytes(kTableFooterMagic.size(), &magic) || magic != kTableFooterMagic ||
        !reader.read(&sparseOffset_) || !reader.read(&bloomOffset_))
        return fail_("invalid table footer");
    if (!reader.read(&maxSequence) || !reader.read(&recordCount) || !reader.read(&kind) ||
        maxSequence != maxSequence_ || recordCount != recordCount_ || kind != kind_)
        return fail_("table footer mismatch");
    return true;
}

bool TableCheck_::checkAgainstMeta_() {
    if (kind_ != static_cast<std::uint32_t>(meta_.kind) || minSequence_ != meta_.minSequence ||
        maxSequence_ != meta_.maxSequence || recordCount_ != meta_.recordCount || meta_.indexName.view() != indexName_)
        return fail_("table is not the one of the manifest");
    if (recordCount_ > file_.size() / kRecordFixedBytes) // the filter's length is computed from it
        return fail_("table record count mismatch");
    return true;
}

bool TableCheck_::readSparseIndex_() {
    const std::uint64_t end = file_.size() - kTableFooterBytes;
    if (sparseOffset_ < kTableHeaderBytes + indexName_.size() || sparseOffset_ > bloomOffset_ || bloomOffset_ > end)
        return fail_("invalid sparse index");
    std::string bytes;
    std::uint32_t entryCount = 0;
    if (!read_(sparseOffset_, bloomOffset_ - sparseOffset_, &bytes))
        return false;
    ByteReader_ reader(bytes);
    if (!reader.read(&entryCount))
        return fail_("invalid sparse index");
    if (entryCount > reader.remaining() / kSparseFixedBytes)
        return fail_("invalid sparse entry");
    sparseIndex.reserve(entryCount);
    for (std::uint32_t index = 0; index < entryCount; ++index) {
        SparseEntry_ entry;
        std::string_view key;
        if (!reader.readSized(&key) || !reader.read(&entry.offset) || !reader.read(&entry.size))
            return fail_("invalid sparse entry");
        if (index > 0 && key <= sparseIndex.back().firstKey.view())
            return fail_("table keys out of order");
        entry.firstKey = ZnByteArray(key);
        sparseIndex.push_back(std::move(entry));
    }
    return reader.isAtEnd() || fail_("invalid sparse index");
}

bool TableCheck_::readBloom_() {
    std::string bytes;
    std::string_view bits;
    if (!read_(bloomOffset_, file_.size() - kTableFooterBytes - bloomOffset_, &bytes))
        return false;
    ByteReader_ reader(bytes);
    if (!reader.read(&bloom.hashCount) || bloom.hashCount != BloomFilter_::kHashCount || !reader.readSized(&bits) ||
        !reader.isAtEnd() || bits.size() != BloomFilter_::byteLengthFor(recordCount_))
        return fail_("invalid bloom section");
    bloom.bits = ZnByteArray(bits);
    return true;
}

bool TableCheck_::checkBlocks_() {
    std::uint64_t offset = kTableHeaderBytes + indexName_.size();
    for (const SparseEntry_& entry : sparseIndex) {
        if (entry.offset != offset || entry.size < kBlockHeaderBytes || entry.size > sparseOffset_ - offset)
            return fail_("invalid table block header");
        if (!checkBlock_(entry, &entry == &sparseIndex.back()))
            return false;
        offset += entry.size;
        if (options_.onBlock)
            options_.onBlock(entry.size);
    }
    if (offset != sparseOffset_)
        return fail_("invalid table block header");
    if (readsRecords_ && recordsSeen_ != recordCount_)
        return fail_("table record count mismatch");
    return true;
}

bool TableCheck_::checkBlock_(const SparseEntry_& entry, bool isLast) {
    if (!read_(entry.offset, entry.size, &block_))
        return false;
    const std::string_view payload = std::string_view(block_).substr(kBlockHeaderBytes);
    if (loadLe<std::uint32_t>(block_.data()) != payload.size())
        return fail_("invalid table block header");
    if (loadLe<std::uint32_t>(block_.data() + 4) != crc32(payload))
        return fail_("table block checksum mismatch");
    if (readsRecords_ || isLast)
        return checkRecords_(entry, payload);
    ByteReader_ reader(payload);
    RecordView_ first;
    return (readRecord(&reader, &first) && first.key == entry.firstKey.view()) ||
           fail_("table block is not the one of the sparse index");
}

bool TableCheck_::checkRecords_(const SparseEntry_& entry, std::string_view payload) {
    const bool isLast = &entry == &sparseIndex.back();
    ByteReader_ reader(payload);
    RecordView_ record;
    std::string_view last = lastKey.view(); // of the block before
    samples.beginBlock(isLast ? 0 : commonBytes(entry.firstKey.view(), (&entry + 1)->firstKey.view()));
    do {
        const std::size_t offset = payload.size() - reader.remaining();
        const bool isFirst = offset == 0;
        if (!readRecord(&reader, &record))
            return fail_(isLast ? "failed to decode last table block" : "table block does not decode");
        if (isFirst && record.key != entry.firstKey.view())
            return fail_("table block is not the one of the sparse index");
        if (recordsSeen_ > 0 && record.key <= last)
            return fail_("table keys out of order");
        if (!checkRecord_(record))
            return false;
        samples.add(offset, record.key);
        last = record.key;
        ++recordsSeen_;
    } while (!reader.isAtEnd());
    lastKey = ZnByteArray(last); // the next block replaces the bytes that the view is of
    return true;
}

bool TableCheck_::checkRecord_(const RecordView_& record) {
    if (record.sequence > maxSequence_ || (record.sequence != 0 && record.sequence < minSequence_))
        return fail_("table sequence mismatch");
    if (!bloom.mayContain(record.key))
        return fail_("table filter lacks a key");
    return !readsRecords_ || meta_.kind != kPrimaryTable || record.type == kTombstoneRecord || checkValue_(record);
}

bool TableCheck_::checkValue_(const RecordView_& record) {
    StoredValueView_ stored;
    if (!parseRecordValue(record, &stored))
        return fail_("table has a stored value that does not parse");
    if (!stored.blob.valid)
        return true;
    if (lastBlobUse_ == nullptr || stored.blob.blobFileId != lastBlobFileId_) {
        lastBlobFileId_ = stored.blob.blobFileId;
        lastBlobUse_ = &blobUses[lastBlobFileId_];
    }
    *lastBlobUse_ += stored.blob.size;
    return true;
}

} // namespace znEmbeddedDbDetail
