#pragma once

#include "core/io/http/ZnHttpRequest.h"
#include "core/io/http/ZnHttpResponse.h"
#include "core/types/ZnString.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

/// One piece of a route's pattern between two slashes.
struct ZnHttpRouteSegment {
    enum class Kind : std::int32_t { Literal = 0, Parameter = 1, Wildcard = 2 };
    enum class ParamType : std::int32_t { None = 0, Int = 1, Alpha = 2, Alnum = 3, Hex = 4, Slug = 5, Uuid = 6 };

    Kind kind = Kind::Literal;
    ZnString literal;
    ZnString paramName; // of a parameter and of a wildcard
    ParamType paramType = ParamType::None;
};

/// What answers requests of one method and one pattern.
///
/// Thread: made once and not changed after it was added. Owner: shared by the router and by every frame that runs
/// the handler, so that a handler outlives the server it was registered with.
struct ZnHttpRoute {
    using Handler = std::function<ZnHttpResponse(const ZnHttpRequest&)>;
    /// Answers through the callback, now or later. It may keep the request.
    using AsyncHandler = std::function<void(const std::shared_ptr<const ZnHttpRequest>&, ZnHttpResponseCallback)>;

    ZnString method;  // upper case, "*" for any
    ZnString pattern; // normalized
    std::vector<ZnHttpRouteSegment> segments;
    std::int32_t score = 0; // the higher, the more specific
    bool hasParams = false;
    Handler handler;
    AsyncHandler asyncHandler;
};
