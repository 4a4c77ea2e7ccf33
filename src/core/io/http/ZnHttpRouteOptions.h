#pragma once

#include "core/types/ZnString.h"

#include <cstdint>

/// What a route of a ZnHttpApp has besides its handler.
///
/// Thread: a value.
struct ZnHttpRouteOptions {
    ZnString name;               // for ZnHttpRouter::namedPattern; may be empty
    std::int32_t timeoutMs = 0;  // below 1: none. A handler that took longer, uninterrupted, is told of in a header,
    bool enforceTimeout = false; // and with this its answer is replaced by a 504
};
