#pragma once

#include <cstdint>
#include <optional>

/// The time-outs of a session in milliseconds; a value below 1 switches one off.
///
/// Thread: a value, copied into every session when the connection is made.
struct ZnHttpTimeouts {
    std::int32_t headerTimeoutMs = 10000;    // from the start of a request to the end of its headers
    std::int32_t bodyTimeoutMs = 30000;      // from the start of a request to its end
    std::int32_t keepAliveTimeoutMs = 15000; // silence between two requests
    std::int32_t writeTimeoutMs = 30000;     // since the peer has last taken anything of a response
    std::optional<std::int32_t> handlerTimeoutMs = std::nullopt; // until a handler's answer; not set: bodyTimeoutMs
    /// While a handler has a request: how often to look whether its client is still there. One that has closed its
    /// sending side gets the interim response 102 once (HTTP/1.1), since only a write tells whether it still listens.
    std::int32_t peerLookMs = 0;
};
