#include "core/storage/embeddeddb/IndexKey_.h"

#include <algorithm>
#include <utility>

namespace znEmbeddedDbDetail {

namespace {

constexpr char kEscapedZero = '\xFF';
constexpr char kEnd = '\x01';

} // namespace

void appendIndexPrefix(std::string* out, std::string_view secondary) {
    while (!secondary.empty()) {
        const std::size_t zero = std::min(secondary.find('\0'), secondary.size());
        out->append(secondary.substr(0, zero));
        secondary.remove_prefix(zero);
        if (secondary.empty())
            break;
        out->push_back('\0');
        out->push_back(kEscapedZero);
        secondary.remove_prefix(1);
    }
    out->push_back('\0');
    out->push_back(kEnd);
}

void appendIndexKey(std::string* out, std::string_view secondary, std::string_view primary) {
    appendIndexPrefix(out, secondary);
    out->append(primary);
}

bool splitIndexKey(std::string_view indexKey, std::string* secondary, std::string_view* primary) {
    std::string found;
    for (;;) {
        const std::size_t zero = indexKey.find('\0');
        if (zero == std::string_view::npos || zero + 1 == indexKey.size())
            return false;
        const char behind = indexKey[zero + 1];
        if (behind != kEnd && behind != kEscapedZero)
            return false;
        found.append(indexKey.substr(0, behind == kEnd ? zero : zero + 1));
        indexKey.remove_prefix(zero + 2);
        if (behind == kEnd)
            break;
    }
    *secondary = std::move(found);
    *primary = indexKey;
    return true;
}

} // namespace znEmbeddedDbDetail
