#pragma once

#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <optional>
#include <string>
#include <string_view>

namespace znEmbeddedDbDetail {

/// The keys from `lower` (included) to `upper` (excluded; none: to the last key). Thread: a value.
struct KeyBounds_ {
    std::string lower;
    std::optional<std::string> upper;

    bool isEmpty() const noexcept { return upper.has_value() && *upper <= lower; }
    /// Leaves the keys that begin with `prefix`.
    void narrowToPrefix(std::string_view prefix);
    /// Leaves the keys below `end`.
    void narrowBelow(std::string end);
};

/// The keys that a range asks for.
KeyBounds_ boundsOf(const ZnEmbeddedDbRange& range);
/// The index keys of the secondary keys that a range asks for, and those of one secondary key.
KeyBounds_ indexBoundsOf(const ZnEmbeddedDbRange& secondaryKeys);
KeyBounds_ indexBoundsOf(std::string_view secondaryKey);

} // namespace znEmbeddedDbDetail
