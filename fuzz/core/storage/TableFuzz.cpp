#include "core/storage/MemoryFiles.h"
#include "core/storage/embeddeddb/Crc32_.h"
#include "core/storage/embeddeddb/TableCursor_.h"
#include "core/storage/embeddeddb/TableFormat_.h"
#include "core/storage/embeddeddb/TableWriter_.h"
#include "core/types/ZnAssert.h"

#include <cstdint>
#include <memory>

using namespace znEmbeddedDbDetail;

namespace {

/// What a manifest would have to say for this header to be believed.
TableMeta_ metaOf(const std::string& bytes) {
    TableMeta_ meta;
    meta.fileName = "L0-0.sst";
    if (bytes.size() < kTableHeaderBytes)
        return meta;
    meta.kind = static_cast<std::int32_t>(loadLe<std::uint32_t>(bytes.data() + 12));
    meta.minSequence = loadLe<std::uint64_t>(bytes.data() + 16);
    meta.maxSequence = loadLe<std::uint64_t>(bytes.data() + 24);
    meta.recordCount = loadLe<std::uint64_t>(bytes.data() + 32);
    const auto nameBytes = loadLe<std::uint32_t>(bytes.data() + 40);
    meta.indexName = ZnString(std::string_view(bytes).substr(kTableHeaderBytes, nameBytes));
    return meta;
}

/// Makes the checksum of the first block right, which a fuzzer does not find by itself.
void repairChecksum(std::string* bytes, std::size_t blockOffset) {
    if (bytes->size() < kBlockHeaderBytes || blockOffset > bytes->size() - kBlockHeaderBytes)
        return;
    const std::string_view payload = std::string_view(*bytes).substr(blockOffset + kBlockHeaderBytes);
    const std::size_t payloadBytes = loadLe<std::uint32_t>(bytes->data() + blockOffset);
    if (payloadBytes <= payload.size())
        storeLe(bytes->data() + blockOffset + 4, crc32(payload.substr(0, payloadBytes)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    std::string bytes(reinterpret_cast<const char*>(data), byteCount);
    TableMeta_ meta = metaOf(bytes);
    repairChecksum(&bytes, kTableHeaderBytes + meta.indexName.size());
    MemoryFiles files;
    files.put("/s/tables/L0-0.sst", bytes);
    for (const bool verifies : {false, true}) {
        ZnEmbeddedDbStatus status;
        const auto table = std::make_shared<TableHandle_>();
        const bool isOpen = table->open(files, "/s", meta, {verifies}, &status);
        ZN_ASSERT(isOpen == status.isOk());
        std::vector<TableRecord_> records;
        const bool isReadable = isOpen && table->readAllRecords(&records);
        TableCursor_ cursor(table);
        std::size_t forwardCount = 0;
        for (cursor.seekToFirst(); cursor.isValid(); cursor.next())
            ++forwardCount;
        ZN_ASSERT(!isOpen || isReadable == !cursor.isBroken());
        for (cursor.seekToLast(); cursor.isValid(); cursor.previous())
            --forwardCount;
        ZN_ASSERT(!isReadable || forwardCount == 0);
        if (!isOpen || !verifies)
            continue;
        // A verified table holds what it says, every record can be found, and written again it is the same.
        ZN_ASSERT(isReadable && records.size() == meta.recordCount);
        for (const TableRecord_& record : records) {
            RecordView_ found;
            ZN_ASSERT(table->find(record.key.view(), &found) == TableHandle_::Find::Found);
            ZN_ASSERT(found.sequence == record.sequence);
        }
        TableMeta_ again = meta;
        ZN_ASSERT(records.empty() == !writeTable(files, "/t/tmp", "/t/tables", &again, records).isOk());
        ZN_ASSERT(records.empty() || table->open(files, "/t", again, {true}, &status));
    }
    return 0;
}
