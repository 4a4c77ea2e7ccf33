#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

/// One response to a ZnHttpClient.
///
/// Thread: a value.
struct ZnHttpClientResponse_ {
    int statusCode = 0; // 0: none, or no number
    ZnString reasonPhrase;
    ZnString rawHeaders;               // status line and headers as received, with the empty line
    ZnMap<ZnString, ZnString> headers; // names in lower case; a repeated one has its last value
    ZnByteArray body;                  // decoded
};
