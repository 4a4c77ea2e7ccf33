#pragma once

#include "core/types/ZnString.h"

#include <string_view>

/// Words and character rules that all of the HTTP stack shares.
namespace zn::http {

inline constexpr std::string_view kPlainText = "text/plain; charset=utf-8";
inline constexpr std::string_view kJsonText = "application/json; charset=utf-8";

/// Whether `name` may stand as a header name: one or more token characters of the HTTP grammar.
bool isToken(std::string_view name) noexcept;

/// Whether `text` may stand in a header value or a reason phrase: no CR, LF or NUL, with which a value
/// taken from a request could end its line and add headers, or a whole response, of its own.
bool isSafeLineText(std::string_view text) noexcept;

/// A decoded path as it may stand in a "location": what has a meaning there or no place there is percent-encoded, and
/// so is "\", which browsers take for "/". It begins with exactly one "/": with two it would name a host.
ZnString encodedPath(std::string_view path);
/// A query as it was sent, with whatever has no place in one percent-encoded. Percent signs stay as they are.
ZnString encodedQuery(std::string_view query);

/// The reason that belongs to `status`; "HTTP Response" for a status without one.
const char* reasonPhrase(int status) noexcept;

} // namespace zn::http
