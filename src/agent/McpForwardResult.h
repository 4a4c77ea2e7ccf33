#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnString.h"

#include <cstdint>

/// The outcome of one upstream call.
struct McpForwardResult {
    bool transportOk = false;    // a complete HTTP response arrived, whatever its status
    std::int32_t errorCode = 0;  // 0 with transportOk; else a code of ZnHttpClient or McpForwardCall
    std::int32_t statusCode = 0; // 0 without a response
    ZnString reason;
    ZnString mcpSessionId;       // header of the response
    ZnJsonValue body;            // the parsed body; Null when there is none or it does not parse
    ZnJsonArray notifications;   // what an event stream brought besides `body`
    ZnByteArray rawBody;         // the body itself, while `body` is Null
};

/// The record that a client sees, with exactly one of "body" and "rawBody", and "notifications" if there are any.
ZnJsonObject forwardResultToJson_(McpForwardResult result);
