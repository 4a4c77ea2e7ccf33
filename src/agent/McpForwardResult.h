#pragma once

#include "core/types/ZnByteArray.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnJsonValue.h"
#include "core/types/ZnString.h"

#include <cstdint>

class McpWorkers;

/// The outcome of one upstream call.
struct McpForwardResult {
    /// What the service has sent; `errorCode` is one of ZnHttpClient, ZnSslSocket or McpForwardCall.
    static McpForwardResult failure(int errorCode) {
        McpForwardResult result;
        result.errorCode = errorCode;
        return result;
    }
    bool isSuccess() const noexcept { return transportOk && !lacksAnswer && statusCode >= 200 && statusCode <= 299; }

    bool transportOk = false;    // a complete HTTP response arrived, whatever its status
    bool isDecoded = false;      // body and notifications hold what an event stream has brought
    bool lacksAnswer = false;    // the event stream ended without it: whether the call took effect is not known
    std::int32_t errorCode = 0;  // 0 with transportOk
    std::int32_t statusCode = 0; // 0 without a response
    ZnString reason;
    ZnString mcpSessionId;     // header of the response
    ZnString message;          // for people and models: why the call has failed; not shown when empty
    ZnByteArray rawBody;       // as received
    ZnJsonValue body;          // the answer of a decoded event stream; Null without one
    ZnJsonArray notifications; // the stream's other messages
};

namespace mcp {

/// The message that a service has answered, read exactly and taken out of the result; Null when it is no JSON. Parks
/// while a large one is read.
ZnJsonValue readAnswer(McpForwardResult* result, McpWorkers& workers);

} // namespace mcp
