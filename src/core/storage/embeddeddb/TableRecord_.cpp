#include "core/storage/embeddeddb/TableRecord_.h"

namespace znEmbeddedDbDetail {

TableRecord_ TableRecord_::of(const RecordView_& record) {
    return {ZnByteArray(record.key), record.sequence, record.type, ZnByteArray(record.value)};
}

void appendRecord(std::string* out, const RecordView_& record) {
    char fixed[16];
    appendSized(out, record.key);
    storeLe(fixed, record.sequence);
    storeLe(fixed + 8, record.type);
    storeLe(fixed + 12, static_cast<std::uint32_t>(record.value.size()));
    out->append(fixed, sizeof(fixed));
    out->append(record.value);
}

bool readRecord(ByteReader_* reader, RecordView_* record) noexcept {
    // Every search and scan goes through here, record by record: one comparison for all fixed fields.
    const std::string_view bytes = reader->rest();
    if (bytes.size() < kRecordFixedBytes)
        return false;
    const std::size_t room = bytes.size() - kRecordFixedBytes;
    const std::size_t keyBytes = loadLe<std::uint32_t>(bytes.data());
    if (keyBytes > room)
        return false;
    const char* behindKey = bytes.data() + 4 + keyBytes;
    const auto type = loadLe<std::uint32_t>(behindKey + 8);
    const std::size_t valueBytes = loadLe<std::uint32_t>(behindKey + 12);
    if (valueBytes > room - keyBytes || type > kBlobRecord || (type == kTombstoneRecord && valueBytes != 0))
        return false;
    *record = {{bytes.data() + 4, keyBytes}, loadLe<std::uint64_t>(behindKey), type, {behindKey + 16, valueBytes}};
    reader->skip(kRecordFixedBytes + keyBytes + valueBytes);
    return true;
}

} // namespace znEmbeddedDbDetail
