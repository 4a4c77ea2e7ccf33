#include "core/storage/embeddeddb/StoredValue_.h"
#include "core/types/ZnAssert.h"

#include <cstdint>
#include <string>

using namespace znEmbeddedDbDetail;

/// There is one way to write a stored value: what can be read is what would be written.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t byteCount) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), byteCount);
    ValueEntry_ entry;
    if (!decodeStoredValue(bytes.data(), bytes.size(), &entry))
        return 0;
    std::string again;
    encodeStoredValue(entry, &again);
    ZN_ASSERT(again == bytes);
    return 0;
}
