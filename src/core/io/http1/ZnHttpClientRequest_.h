#pragma once

#include "core/io/http1/ZnHttpUrl_.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <string_view>

/// One request of a ZnHttpClient.
///
/// Thread: a value, that of its client.
struct ZnHttpClientRequest_ {
    /// The request line and the headers with the empty line, as they go out. What the caller's headers lack is added.
    ZnString head() const;
    bool hasHeader(std::string_view name) const; // among those of the caller

    int method = 0; // a ZnHttpClient::Method; any other value goes out as GET
    ZnHttpUrl_ url;
    ZnMap<ZnString, ZnString> headers; // names as the caller wrote them; the next request has them, too
    ZnByteArray body;
    ZnString contentType;         // empty: the default one; without CR, LF and NUL
    bool keepsConnection = false; // the server is not asked to close it
    bool isRepeated = false;      // `body` is all of it, as it was written before
};
