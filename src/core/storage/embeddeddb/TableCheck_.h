#pragma once

#include "core/storage/embeddeddb/RandomAccessFile_.h"
#include "core/storage/embeddeddb/TableHandle_.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace znEmbeddedDbDetail {

/// Reads a table file from front to back and checks it against its format and its entry in the manifest.
///
/// No length or count from the file is used before it is known to fit into the file, and memory is taken for no more
/// than one block, the sparse index and the filter.
/// Thread: one. Owner: TableHandle_::open, as a local.
class TableCheck_ {
public:
    TableCheck_(const RandomAccessFile_& file, const TableMeta_& meta, const TableOpenOptions_& options)
        : file_(file), meta_(meta), options_(options), readsRecords_(options.verifyFilters) {}

    /// The parts below are complete after Ok alone.
    ZnEmbeddedDbStatus run();

    std::vector<SparseEntry_> sparseIndex;
    RecordSamples_ samples; // complete when records were read
    BloomFilter_ bloom;
    ZnByteArray lastKey;
    /// Bytes that records refer to, by blob file; complete when records were read.
    std::map<std::uint64_t, std::uint64_t> blobUses;

private:
    bool readHeader_();
    bool readFooter_();
    bool checkAgainstMeta_();
    bool readSparseIndex_();
    bool readBloom_();
    bool checkBlocks_();
    bool checkBlock_(const SparseEntry_& entry, bool isLast);
    bool checkRecords_(const SparseEntry_& entry, std::string_view payload);
    bool checkRecord_(const RecordView_& record);
    bool checkValue_(const RecordView_& record);
    bool read_(std::uint64_t offset, std::uint64_t byteCount, std::string* bytes);
    bool fail_(const char* message);

    const RandomAccessFile_& file_;
    const TableMeta_& meta_;
    const TableOpenOptions_& options_;
    const bool readsRecords_;
    ZnEmbeddedDbStatus status_;

    std::uint32_t kind_ = 0;
    std::uint64_t minSequence_ = 0;
    std::uint64_t maxSequence_ = 0;
    std::uint64_t recordCount_ = 0;
    std::string indexName_;
    std::uint64_t sparseOffset_ = 0;
    std::uint64_t bloomOffset_ = 0;
    std::uint64_t recordsSeen_ = 0;
    std::uint64_t* lastBlobUse_ = nullptr; // of lastBlobFileId_: values of one file stand together
    std::uint64_t lastBlobFileId_ = 0;
    std::string block_;
};

} // namespace znEmbeddedDbDetail
