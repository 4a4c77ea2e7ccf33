#include "core/io/http1/ZnHttpHeadWriter_.h"

#include "core/io/http1/ZnHttpWireText_.h"
#include "core/types/ZnAssert.h"

namespace wire = zn::http::wire;

void ZnHttpHeadWriter_::startLine(std::string_view first, std::string_view second, std::string_view third) {
    const std::size_t begin = text_.size();
    text_.append(first).append(" ").append(second).append(" ").append(third);
    ZN_ASSERT(wire::isSafeLineText(std::string_view(text_).substr(begin)));
    text_.append(wire::kLineEnd);
}

bool ZnHttpHeadWriter_::header(std::string_view name, std::string_view value) {
    if (!wire::isToken(name) || !wire::isSafeLineText(value))
        return false;
    text_.append(name).append(": ").append(value).append(wire::kLineEnd);
    return true;
}

ZnString ZnHttpHeadWriter_::finish() {
    text_.append(wire::kLineEnd);
    return ZnString(std::move(text_));
}
