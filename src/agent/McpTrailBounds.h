#pragma once

#include "core/storage/embeddeddb/ZnEmbeddedDb.h"

#include <cstdint>
#include <functional>

/// Keeps the trail of calls within its bounds: removes the oldest calls, and lets the store give their room back.
///
/// Thread: one at a time, of its own, as this reads and writes much. Others use the store meanwhile.
class McpTrailBounds {
public:
    /// The trail keeps calls of today and of `maxDays - 1` days before, in `maxBytes` bytes of the disk.
    McpTrailBounds(int maxDays, std::int64_t maxBytes)
        : maxDays_(maxDays), maxBytes_(static_cast<std::uint64_t>(maxBytes)) {}

    /// Stops early, with Ok, when `mayGoOn` says so.
    ZnEmbeddedDbStatus enforce(ZnEmbeddedDb& store, long long nowUs, const std::function<bool()>& mayGoOn) const;
    bool isExceeded(const ZnEmbeddedDb& store) const { return bytesOf_(store) > maxBytes_; }
    /// Calls come faster than they can be removed.
    bool isOutOfHand(const ZnEmbeddedDb& store) const { return bytesOf_(store) / 2 > maxBytes_; }

private:
    static std::uint64_t bytesOf_(const ZnEmbeddedDb& store);

    const int maxDays_;
    const std::uint64_t maxBytes_;
};
