#include "core/storage/embeddeddb/TableHandle_.h"

#include "core/fs/ZnPath.h"
#include "core/storage/embeddeddb/KeyWord_.h"
#include "core/storage/embeddeddb/TableCheck_.h"
#include "core/storage/embeddeddb/TableFormat_.h"

#include <algorithm>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

/// Has the memory that a search is about to walk over brought in at once: each record tells only where the next one
/// begins, so the walk would wait for one after the other.
void fetchFront(std::string_view records) noexcept {
    constexpr std::size_t kLineBytes = 64;
    constexpr std::size_t kFetchedBytes = 16 * kLineBytes;
    for (std::size_t offset = kLineBytes; offset < std::min(records.size(), kFetchedBytes); offset += kLineBytes)
        __builtin_prefetch(records.data() + offset);
}

} // namespace

bool TableHandle_::open(ZnStorageFiles& files, const ZnString& rootPath, const TableMeta_& meta,
                        const TableOpenOptions_& options, ZnEmbeddedDbStatus* status) {
    close();
    const ZnString path = joinPath(joinPath(rootPath, kTablesDirectory), meta.fileName);
    ZnString error;
    MappedFile_ mapped;
    RandomAccessFile_ file(files);
    if (!mapped.open(files, path, &error) || !file.open(path, RandomAccessFile_::Mode::ReadOnly, &error)) {
        *status = {ZnEmbeddedDbStatus::IoError, std::move(error)};
        return false;
    }
    TableCheck_ check(file, meta, options);
    *status = check.run();
    if (status->isOk() && mapped.size() != file.size()) // two files: it was replaced in between
        *status = {ZnEmbeddedDbStatus::Corruption, "table changed while it was opened"};
    if (!status->isOk())
        return false;
    meta_ = meta;
    file_ = std::move(mapped);
    sparseIndex_ = std::move(check.sparseIndex);
    bloom_ = std::move(check.bloom);
    if (options.verifyFilters)
        samples_ = std::move(check.samples);
    if (!sparseIndex_.empty())
        firstKey_ = sparseIndex_.front().firstKey;
    lastKey_ = std::move(check.lastKey);
    blobUses_ = std::move(check.blobUses);
    knowsBlobUses_ = options.verifyFilters;
    takeBlockWords_();
    return true;
}

void TableHandle_::close() {
    *this = TableHandle_();
}

void TableHandle_::takeBlockWords_() {
    sharedBytes_ = commonBytes(firstKey_.view(), lastKey_.view());
    blockWords_.reserve(sparseIndex_.size());
    for (const SparseEntry_& entry : sparseIndex_)
        blockWords_.push_back(keyWord(entry.firstKey.view(), sharedBytes_));
}

std::size_t TableHandle_::blockIndexFor(std::string_view key) const noexcept {
    if (sparseIndex_.empty() || key <= firstKey_.view())
        return 0;
    if (lastKey_.view() <= key) // so that words tell about all others
        return sparseIndex_.size() - 1;
    const auto equal = std::equal_range(blockWords_.begin(), blockWords_.end(), keyWord(key, sharedBytes_));
    const auto behind =
        std::upper_bound(sparseIndex_.begin() + (equal.first - blockWords_.begin()),
                         sparseIndex_.begin() + (equal.second - blockWords_.begin()), key,
                         [](std::string_view left, const SparseEntry_& right) { return left < right.firstKey.view(); });
    return static_cast<std::size_t>(behind - sparseIndex_.begin()) - 1;
}

ZnString TableHandle_::placeOf(std::string_view bytes) const {
    return file_.path() + " at " + ZnString::number(static_cast<std::uint64_t>(bytes.data() - file_.bytes().data()));
}

TableHandle_::Find TableHandle_::find(std::string_view key, RecordView_* record) const {
    FilterCounts_ counts;
    return find(key, BloomFilter_::hashOf(key), record, &counts);
}

TableHandle_::Find TableHandle_::find(std::string_view key, BloomFilter_::Hash hash, RecordView_* record,
                                      FilterCounts_* counts) const {
    if (sparseIndex_.empty() || key < firstKey_.view() || lastKey_.view() < key)
        return Find::Absent;
    if (!bloom_.mayContain(hash)) {
        ++counts->negativeCount;
        return Find::Absent;
    }
    const Find found = findInBlock_(key, record);
    counts->falsePositiveCount += found == Find::Absent ? 1 : 0;
    return found;
}

TableHandle_::Find TableHandle_::findInBlock_(std::string_view key, RecordView_* record) const {
    const std::size_t blockIndex = blockIndexFor(key);
    std::string_view payload;
    if (!blockPayload(sparseIndex_[blockIndex], &payload))
        return Find::Unreadable;
    ByteReader_ reader(payload.substr(searchOffset(key, blockIndex, payload)));
    fetchFront(reader.rest());
    for (RecordView_ found; !reader.isAtEnd();) {
        if (!readRecord(&reader, &found))
            return Find::Unreadable;
        const int order = found.key.compare(key);
        if (order > 0)
            break;
        if (order == 0) {
            *record = found;
            return Find::Found;
        }
    }
    return Find::Absent;
}

bool TableHandle_::blockPayload(const SparseEntry_& entry, std::string_view* payload) const noexcept {
    const std::string_view bytes = file_.bytes();
    if (entry.offset > bytes.size() || entry.size > bytes.size() - entry.offset || entry.size < kBlockHeaderBytes)
        return false;
    const std::string_view block = bytes.substr(static_cast<std::size_t>(entry.offset), entry.size);
    const std::size_t payloadBytes = loadLe<std::uint32_t>(block.data());
    if (payloadBytes > block.size() - kBlockHeaderBytes)
        return false;
    *payload = block.substr(kBlockHeaderBytes, payloadBytes);
    return true;
}

bool TableHandle_::decodeBlock(const SparseEntry_& entry, std::vector<TableRecord_>* out) const {
    std::string_view payload;
    if (!blockPayload(entry, &payload))
        return false;
    const std::size_t countBefore = out->size();
    ByteReader_ reader(payload);
    for (RecordView_ record; !reader.isAtEnd();) {
        if (!readRecord(&reader, &record)) {
            out->resize(countBefore);
            return false;
        }
        out->push_back(TableRecord_::of(record));
    }
    return true;
}

bool TableHandle_::readAllRecords(std::vector<TableRecord_>* out) const {
    const std::size_t countBefore = out->size();
    for (const SparseEntry_& entry : sparseIndex_) {
        if (!decodeBlock(entry, out)) {
            out->resize(countBefore);
            return false;
        }
    }
    return true;
}

} // namespace znEmbeddedDbDetail
