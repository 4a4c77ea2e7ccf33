#include "core/types/ZnJsonCounts.h"

#include "core/types/ZnJsonArena.h"
#include "core/types/ZnJsonScan.h"

#include <algorithm>

namespace {

/// The index behind the closing quote of the string that begins at `at`, or the place of what is wrong with it.
std::size_t stringEnd(std::string_view text, std::size_t at) {
    for (;;) {
        at = zn::detail::plainRunEnd(text, at);
        if (at >= text.size() || text[at] != '\\')
            return at < text.size() && text[at] == '"' ? at + 1 : text.size();
        at = std::min(at + 2, text.size());
    }
}

/// Whether a child, and no comma, stands in front of a closing bracket. A container's text up to there.
bool endsWithChild(std::string_view text) {
    std::size_t last = text.size() - 1;
    while (zn::detail::isSpace(text[last]))
        --last; // not past the opening bracket
    return text[last] != ',' && text[last] != '[' && text[last] != '{';
}

/// Without its quotes.
std::size_t roomForText(std::size_t byteCount) {
    const bool isInSlab = byteCount > ZnJsonCell_::kMaxShortBytes && byteCount <= ZnJsonSlab_::kMaxBlockBytes;
    return isInSlab ? byteCount : 0;
}

} // namespace

void ZnJsonCounts_::count(std::string_view text) {
    Levels_ open; // the first `depth` are set
    std::size_t depth = 0;
    for (std::size_t at = 0; at < text.size();) {
        switch (text[at++]) {
        case '"': {
            const std::size_t end = stringEnd(text, at);
            slabBytes_ += roomForText(end - at - 1);
            at = end;
            break;
        }
        case '[':
        case '{':
            if (depth == open.size())
                return finish_(open, depth); // the parser gets no further either
            open[depth++] = {counts_.size(), 0};
            counts_.push_back(0);
            break;
        case ',':
            if (depth > 0)
                ++open[depth - 1].commaCount;
            break;
        case ']':
        case '}':
            if (depth == 0)
                return finish_(open, depth);
            --depth;
            store_(open[depth], open[depth].commaCount + (endsWithChild(text.substr(0, at - 1)) ? 1 : 0),
                   text[at - 1] == '}');
            break;
        case ':':
        case ' ':
        case '\t':
        case '\n':
        case '\v':
        case '\f':
        case '\r': break;
        default: at = zn::detail::tokenEnd(text, at);
        }
    }
    finish_(open, depth);
}

/// The first `depth` containers have no end.
void ZnJsonCounts_::finish_(const Levels_& open, std::size_t depth) {
    while (depth > 0) {
        --depth;
        store_(open[depth], open[depth].commaCount + 1, true);
    }
    std::sort(large_.begin(), large_.end(),
              [](const Large_& left, const Large_& right) { return left.index < right.index; });
}

void ZnJsonCounts_::store_(const Open_& container, std::uint32_t count, bool isObject) {
    if (count < kIsLarge_) {
        counts_[container.index] = static_cast<char>(count);
    } else {
        counts_[container.index] = static_cast<char>(kIsLarge_);
        large_.push_back({container.index, count});
    }
    const std::size_t blockBytes = std::size_t{count} * (isObject ? 2 : 1) * sizeof(ZnJsonCell_);
    if (count > 0 && blockBytes <= ZnJsonSlab_::kMaxBlockBytes)
        slabBytes_ += blockBytes + alignof(ZnJsonCell_) - 1;
}

std::size_t ZnJsonCounts_::next() noexcept {
    if (nextIndex_ == counts_.size())
        return 0;
    const auto count = static_cast<unsigned char>(counts_[nextIndex_++]);
    return count < kIsLarge_ ? count : large_[nextLargeIndex_++].count;
}
