#pragma once

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

/// The reason that belongs to `status`; "HTTP Response" for a status without one.
const char* reasonPhrase(int status) noexcept;

} // namespace zn::http
