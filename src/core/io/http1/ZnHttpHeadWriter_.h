#pragma once

#include "core/types/ZnString.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

/// Writes the head of one message.
///
///   first SP second SP third CRLF  *( name ": " value CRLF )  CRLF
///
/// Thread: a value.
class ZnHttpHeadWriter_ {
public:
    /// The text gets room for `expectedBytes` at once.
    explicit ZnHttpHeadWriter_(std::size_t expectedBytes) { text_.reserve(expectedBytes); }

    /// None of the three may have a CR, LF or NUL: the caller has checked what comes from outside.
    void startLine(std::string_view first, std::string_view second, std::string_view third);
    /// False, with nothing written, for a name that is no token and for a value with a CR, LF or NUL: they could add
    /// headers, or a whole message, of their own.
    bool header(std::string_view name, std::string_view value);
    /// The head with its empty line. The writer is used up.
    ZnString finish();

private:
    std::string text_;
};
