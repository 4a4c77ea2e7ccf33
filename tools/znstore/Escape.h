#pragma once

#include "core/types/ZnString.h"

#include <string>
#include <string_view>

// The form in which keys and values stand in command lines and in text output: printable ASCII as itself, "\" as "\\",
// every other byte as "\x" and two hex digits. So a line feed or a tab of the output is never part of a key.
namespace znstore {

void appendEscaped(std::string* out, std::string_view bytes);
ZnString escaped(std::string_view bytes);
/// Reads the same; bytes beyond ASCII may stand as themselves, as a terminal sends them. False, with the reason, for
/// a "\" that begins no escape.
bool unescape(std::string_view text, std::string* bytes, ZnString* errorText);

void appendHex(std::string* out, std::string_view bytes);
/// False for what is no row of pairs of hex digits.
bool parseHex(std::string_view digits, std::string* bytes);

} // namespace znstore
