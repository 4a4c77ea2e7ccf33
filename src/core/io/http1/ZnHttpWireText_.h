#pragma once

#include "core/types/ZnString.h"

#include <string_view>

/// The texts of HTTP/1 that client and server read and write by the same rules. ASCII only, whatever the locale says.
/// Thread: any.
namespace zn::http::wire {

inline constexpr std::string_view kLineEnd = "\r\n";

/// One or more token characters of the HTTP grammar: a method or the name of a header.
bool isToken(std::string_view text) noexcept;
/// No CR, LF or NUL, with which a text could end its line and begin another one, or another message.
bool isSafeLineText(std::string_view text) noexcept;

char lowerOf(char c) noexcept;
ZnString lowerText(std::string_view text);
ZnString upperText(std::string_view text);
/// For both, `lowerCase` is in lower case already.
bool equalsLower(std::string_view text, std::string_view lowerCase) noexcept;
bool containsLower(std::string_view text, std::string_view lowerCase) noexcept;
/// The value of a hexadecimal digit of either case; -1: it is none.
int hexDigit(char c) noexcept;

/// Splits a header line at its first colon and trims both sides. False, with nothing set: it has no colon.
bool splitHeaderLine(std::string_view line, std::string_view* name, std::string_view* value) noexcept;
/// Cuts the first piece, up to `separator` or the end, off the front of `*rest`.
std::string_view cutPiece(std::string_view* rest, std::string_view separator) noexcept;

} // namespace zn::http::wire
