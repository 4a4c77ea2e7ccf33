#include "core/storage/embeddeddb/Crc32_.h"

#include <libdeflate.h>

namespace znEmbeddedDbDetail {

std::uint32_t crc32(std::string_view bytes, std::uint32_t before) noexcept {
    // A null pointer, which an empty view may have, makes the library answer 0, whatever stood in front.
    return bytes.empty() ? before : ::libdeflate_crc32(before, bytes.data(), bytes.size());
}

} // namespace znEmbeddedDbDetail
