#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnString.h"

#include <string_view>
#include <vector>

// Texts for people.
namespace mcp {

/// A foreign text as it may be shown: control characters, quotes and bytes that are no UTF-8 escaped as \xNN, cut after
/// `maxBytes` bytes of it with "..." behind.
ZnString printable(std::string_view text, std::size_t maxBytes = 80);

/// With U+FFFD for each byte that belongs to no UTF-8 character; usually the text itself.
ZnString wellFormed(ZnString text);
ZnByteArray wellFormed(ZnByteArray bytes);

/// Lower-case digits, two for each byte.
ZnString hexText(const std::vector<unsigned char>& bytes);
/// The SHA-256 of a text, as hexText() has it.
ZnString sha256Text(std::string_view text);

/// `line N, service "id": `, the service only where there is one.
ZnString lineText(int line, const ZnString& serviceId);

/// The known name that a mistyped one most likely means, by letters changed, left out or added (case, "-" and "_" do
/// not count); empty when none is near.
std::string_view nearestName(std::string_view name, const std::vector<std::string_view>& known);

/// Why the file at `path` cannot be used: "PATH: no such file" and the like.
ZnString fileProblem(const ZnString& path);

} // namespace mcp
