#pragma once

#include "core/io/http/ZnHttpServer.h"

#include <algorithm>
#include <vector>

namespace zn::http {

/// Shows `request` to the filters in their order. True: one of them has answered, in `*response`. They may throw.
inline bool runFilters(const std::vector<ZnHttpServer::RequestFilter>& filters, const ZnHttpRequest& request,
                       ZnHttpResponse* response) {
    return std::any_of(filters.begin(), filters.end(),
                       [&](const ZnHttpServer::RequestFilter& filter) { return filter(request, *response); });
}

} // namespace zn::http
