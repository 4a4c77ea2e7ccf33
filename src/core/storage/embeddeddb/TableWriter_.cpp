#include "core/storage/embeddeddb/TableWriter_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/Crc32_.h"
#include "core/storage/embeddeddb/DurableFiles_.h"
#include "core/storage/embeddeddb/FileNames_.h"
#include "core/storage/embeddeddb/TableFormat_.h"
#include "core/types/ZnAssert.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

/// The disk works while the rest is being written: a sync at the end of all of it would hold up the log's.
constexpr std::uint64_t kWritebackBytes = 1024 * 1024;

TableMeta_ namedMeta(TableMeta_ meta) {
    meta.minSequence = 0;
    meta.maxSequence = 0;
    meta.recordCount = 0;
    meta.fileName = tableFileName(meta.level, meta.fileId);
    return meta;
}

ZnEmbeddedDbStatus ioStatus(ZnString message, const ZnString& path) {
    return ZnEmbeddedDbStatus(ZnEmbeddedDbStatus::IoError, std::move(message)).at(path);
}

} // namespace

TableWriter_::TableWriter_(ZnStorageFiles& files, const ZnString& tempDir, const ZnString& tablesDir, TableMeta_ meta)
    : files_(files),
      meta_(namedMeta(std::move(meta))),
      temporaryPath_(joinPath(tempDir, meta_.fileName + ".tmp")),
      finalPath_(joinPath(tablesDir, meta_.fileName)),
      file_(files) {}

TableWriter_::~TableWriter_() {
    if (!file_.isOpen())
        return;
    file_.close();
    files_.remove(temporaryPath_);
}

ZnEmbeddedDbStatus TableWriter_::open() {
    ZnString error;
    if (!file_.open(temporaryPath_, RandomAccessFile_::Mode::Truncate, &error)) {
        files_.remove(temporaryPath_); // it may have been made before the failure
        return ioStatus(std::move(error), temporaryPath_);
    }
    // The header is written last, when what it says is known.
    nextOffset_ = kTableHeaderBytes + meta_.indexName.size();
    block_.assign(kBlockHeaderBytes, '\0');
    return {};
}

ZnEmbeddedDbStatus TableWriter_::add(const RecordView_& record) {
    ZN_ASSERT(file_.isOpen());
    ZN_ASSERT(meta_.recordCount == 0 || std::string_view(lastKey_) < record.key);
    ZN_ASSERT(record.key.size() + record.value.size() < std::numeric_limits<std::uint32_t>::max() - kRecordFixedBytes);
    const std::size_t recordBytes = kRecordFixedBytes + record.key.size() + record.value.size();
    const std::size_t payloadBytes = block_.size() - kBlockHeaderBytes;
    ZnString error;
    if (payloadBytes > 0 && payloadBytes + recordBytes > kBlockTargetBytes && !flushBlock_(&error))
        return ioStatus(std::move(error), temporaryPath_);
    if (block_.size() == kBlockHeaderBytes)
        blockFirstKey_.assign(record.key);
    appendRecord(&block_, record);
    lastKey_.assign(record.key);
    hashes_.push_back(BloomFilter_::hashOf(record.key));
    noteSequence(record.sequence);
    ++meta_.recordCount;
    return {};
}

void TableWriter_::noteSequence(std::uint64_t sequence) {
    if (sequence != 0)
        meta_.minSequence = meta_.minSequence == 0 ? sequence : std::min(meta_.minSequence, sequence);
    meta_.maxSequence = std::max(meta_.maxSequence, sequence);
}

bool TableWriter_::flushBlock_(ZnString* errorOut) {
    const std::string_view payload = std::string_view(block_).substr(kBlockHeaderBytes);
    storeLe(block_.data(), static_cast<std::uint32_t>(payload.size()));
    storeLe(block_.data() + 4, crc32(payload));
    if (!file_.writeAt(nextOffset_, block_.data(), block_.size(), errorOut))
        return false;
    appendSized(&sparseEntries_, blockFirstKey_);
    appendLe(&sparseEntries_, nextOffset_);
    appendLe(&sparseEntries_, static_cast<std::uint32_t>(block_.size()));
    ++blockCount_;
    nextOffset_ += block_.size();
    block_.resize(kBlockHeaderBytes);
    if (nextOffset_ - writtenBackTo_ >= kWritebackBytes) {
        file_.startWriteback(writtenBackTo_, nextOffset_ - writtenBackTo_);
        writtenBackTo_ = nextOffset_;
    }
    return true;
}

ZnEmbeddedDbStatus TableWriter_::finish(ZnString* syncErrorOut) {
    ZN_ASSERT(file_.isOpen());
    if (meta_.recordCount == 0)
        return {ZnEmbeddedDbStatus::InvalidArgument, "cannot write empty table"};
    ZnString error;
    if (!flushBlock_(&error) || !writeRest_(&error) || !file_.flush(&error))
        return ioStatus(std::move(error), temporaryPath_);
    file_.close();
    if (replaceFileDurable(files_, temporaryPath_, finalPath_, &error, syncErrorOut))
        return {};
    files_.remove(temporaryPath_);
    return ioStatus(std::move(error), finalPath_);
}

/// Everything behind the blocks, then the header.
bool TableWriter_::writeRest_(ZnString* errorOut) {
    std::string rest;
    appendLe(&rest, blockCount_);
    rest += sparseEntries_;
    const std::uint64_t bloomOffset = nextOffset_ + rest.size();
    appendBloom_(&rest);
    appendFooter_(&rest, bloomOffset);
    const std::string header = header_();
    return file_.writeAt(nextOffset_, rest.data(), rest.size(), errorOut) &&
           file_.writeAt(0, header.data(), header.size(), errorOut) &&
           file_.truncate(nextOffset_ + rest.size(), errorOut);
}

std::string TableWriter_::header_() const {
    std::string header(kTableMagic);
    appendLe(&header, kTableVersion);
    appendLe(&header, static_cast<std::uint32_t>(meta_.kind));
    appendLe(&header, meta_.minSequence);
    appendLe(&header, meta_.maxSequence);
    appendLe(&header, meta_.recordCount);
    appendLe(&header, static_cast<std::uint32_t>(meta_.indexName.size()));
    appendLe(&header, static_cast<std::uint32_t>(kBlockTargetBytes));
    header += meta_.indexName.view();
    return header;
}

void TableWriter_::appendBloom_(std::string* out) const {
    BloomFilter_ filter;
    filter.bits = ZnByteArray(std::string(BloomFilter_::byteLengthFor(hashes_.size()), '\0'));
    for (const BloomFilter_::Hash& hash : hashes_)
        filter.add(hash);
    appendLe(out, filter.hashCount);
    appendSized(out, filter.bits.view());
}

void TableWriter_::appendFooter_(std::string* out, std::uint64_t bloomOffset) const {
    *out += kTableFooterMagic;
    appendLe(out, nextOffset_);
    appendLe(out, bloomOffset);
    appendLe(out, meta_.maxSequence);
    appendLe(out, meta_.recordCount);
    appendLe(out, static_cast<std::uint32_t>(meta_.kind));
}

ZnEmbeddedDbStatus writeTable(ZnStorageFiles& files, const ZnString& tempDir, const ZnString& tablesDir,
                              TableMeta_* meta, const std::vector<TableRecord_>& records, ZnString* syncErrorOut) {
    if (records.empty())
        return {ZnEmbeddedDbStatus::InvalidArgument, "cannot write empty table"};
    TableWriter_ writer(files, tempDir, tablesDir, *meta);
    ZnEmbeddedDbStatus status = writer.open();
    for (auto record = records.begin(); status.isOk() && record != records.end(); ++record)
        status = writer.add(record->view());
    if (status.isOk())
        status = writer.finish(syncErrorOut);
    if (status.isOk())
        *meta = writer.meta();
    return status;
}

} // namespace znEmbeddedDbDetail
