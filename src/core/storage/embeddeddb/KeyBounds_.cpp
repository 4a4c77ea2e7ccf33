#include "core/storage/embeddeddb/KeyBounds_.h"

#include "core/storage/embeddeddb/IndexKey_.h"

#include <algorithm>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

std::string indexPrefixOf(std::string_view secondary) {
    std::string prefix;
    appendIndexPrefix(&prefix, secondary);
    return prefix;
}

/// What the index keys of all secondary keys that begin with `prefix` begin with, and no others.
std::string openIndexPrefixOf(std::string_view prefix) {
    constexpr std::size_t kEndBytes = 2; // what ends a secondary key in an index key
    std::string bytes = indexPrefixOf(prefix);
    bytes.resize(bytes.size() - kEndBytes);
    return bytes;
}

} // namespace

void KeyBounds_::narrowToPrefix(std::string_view prefix) {
    lower = std::max<std::string_view>(lower, prefix);
    const std::size_t last = prefix.find_last_not_of('\xFF');
    if (last == std::string_view::npos)
        return; // nothing stands behind all keys with this prefix
    std::string end(prefix.substr(0, last + 1));
    end.back() = static_cast<char>(static_cast<unsigned char>(end.back()) + 1);
    narrowBelow(std::move(end));
}

void KeyBounds_::narrowBelow(std::string end) {
    if (!upper.has_value() || end < *upper)
        upper = std::move(end);
}

KeyBounds_ boundsOf(const ZnEmbeddedDbRange& range) {
    KeyBounds_ bounds;
    bounds.lower = range.start.view();
    if (!range.end.isEmpty())
        bounds.narrowBelow(std::string(range.end.view()));
    bounds.narrowToPrefix(range.prefix.view());
    return bounds;
}

KeyBounds_ indexBoundsOf(const ZnEmbeddedDbRange& secondaryKeys) {
    KeyBounds_ bounds;
    if (!secondaryKeys.start.isEmpty())
        bounds.lower = indexPrefixOf(secondaryKeys.start.view());
    if (!secondaryKeys.end.isEmpty())
        bounds.narrowBelow(indexPrefixOf(secondaryKeys.end.view()));
    bounds.narrowToPrefix(openIndexPrefixOf(secondaryKeys.prefix.view()));
    return bounds;
}

KeyBounds_ indexBoundsOf(std::string_view secondaryKey) {
    KeyBounds_ bounds;
    bounds.narrowToPrefix(indexPrefixOf(secondaryKey));
    return bounds;
}

} // namespace znEmbeddedDbDetail
