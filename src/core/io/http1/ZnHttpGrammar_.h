#pragma once

#include <string_view>

/// The grammar of requests to the letter (RFC 9110 and 9112), for a reader that is strict.
///
/// Two readers of one connection that understand a message differently can be played off against each other: what one
/// takes for a body is a request to the other. These functions refuse whatever others are known to read in another way.
/// Lines come without their CRLF; one that holds a CR or LF nevertheless passes none of them.
/// Thread: any.
namespace zn::http::grammar {

/// Upper case, too: the grammar tells "get" from "GET", but nothing here answers the one and not the other.
bool isMethod(std::string_view text) noexcept;
/// A path, an absolute "http" or "https" address, or with OPTIONS "*"; no controls, no blanks.
bool isTarget(std::string_view method, std::string_view text) noexcept;
/// HTTP/1.0 or HTTP/1.1.
bool isVersion(std::string_view text) noexcept;
/// A name, directly a colon, a value without controls. Nothing that goes on from the line before.
bool isFieldLine(std::string_view line) noexcept;
/// A host with or without a port; an empty one is allowed.
bool isHost(std::string_view text) noexcept;
/// Hexadecimal digits and well-formed extensions.
bool isChunkSizeLine(std::string_view line) noexcept;

} // namespace zn::http::grammar
