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

} // namespace znEmbeddedDbDetail
