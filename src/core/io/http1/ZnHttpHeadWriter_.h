#pragma once

#include "core/io/http1/ZnHttpWireText_.h"
#include "core/types/ZnAssert.h"
#include "core/types/ZnString.h"

#include <algorithm>
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
    void startLine(std::string_view first, std::string_view second, std::string_view third) {
        text_.append(first).append(" ").append(second).append(" ").append(third);
        ZN_DEBUG_ASSERT(zn::http::wire::isSafeLineText(text_));
        text_.append("\r\n");
    }

    /// False, with nothing written, for a name that is no token and for a value with a CR, LF or NUL: they could add
    /// headers, or a whole message, of their own.
    bool header(std::string_view name, std::string_view value) {
        if (!zn::http::wire::isToken(name) || !zn::http::wire::isSafeLineText(value))
            return false;
        ownHeader(name, value);
        return true;
    }

    /// The same for a name and a value of the caller's own making, which are not looked at.
    void ownHeader(std::string_view name, std::string_view value) {
        // One growth and plain copies: four appends take half as long again.
        const std::size_t begin = text_.size();
        text_.resize(begin + name.size() + value.size() + 4);
        char* at = text_.data() + begin;
        at = std::copy(name.begin(), name.end(), at);
        *at++ = ':';
        *at++ = ' ';
        at = std::copy(value.begin(), value.end(), at);
        *at++ = '\r';
        *at = '\n';
    }

    /// The head with its empty line. The writer is used up.
    ZnString finish() {
        text_.append("\r\n");
        return ZnString(std::move(text_));
    }

private:
    std::string text_;
};
