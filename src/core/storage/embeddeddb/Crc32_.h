#pragma once

#include <cstdint>
#include <string_view>

namespace znEmbeddedDbDetail {

/// The CRC-32 of IEEE 802.3: reflected polynomial 0xEDB88320, initial value all ones, complemented at the end. `before`
/// is the CRC of the bytes that stand in front; that of no bytes is 0.
std::uint32_t crc32(std::string_view bytes, std::uint32_t before = 0) noexcept;

} // namespace znEmbeddedDbDetail
