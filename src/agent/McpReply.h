#pragma once

#include "agent/McpJson.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnString.h"

#include <functional>
#include <memory>
#include <utility>
#include <vector>

class McpCaller;

/// The answer to a message or to a request, on its way up to the front that sends it.
///
/// Thread: a value.
struct McpReply {
    struct Header {
        const char* name; // in lower case
        ZnString value;
    };

    static McpReply json(ZnByteArray text) {
        McpReply reply;
        reply.text = std::move(text);
        return reply;
    }
    static McpReply json(const ZnString& text) { return json(ZnByteArray(text)); }
    static McpReply ofStatus(int status) {
        McpReply reply;
        reply.status = status;
        return reply;
    }
    /// With {"error": message}.
    static McpReply error(int status, const char* message) {
        McpReply reply = error(status, mcp::errorBody_(message));
        reply.problem = message;
        return reply;
    }
    static McpReply error(int status, ZnJsonObject body) {
        McpReply reply = json(ZnJsonValue(std::move(body)).toJson());
        reply.status = status;
        return reply;
    }

    /// Set: there is no answer yet. The front begins a stream and calls this once, on a fiber, which parks, with a
    /// caller that takes messages; what it gives is the answer.
    std::function<McpReply(McpCaller&)> later;
    int status = 200; // of HTTP
    std::vector<Header> headers;
    ZnByteArray text; // JSON; empty: there is no body
    // Of a message that was refused, for fronts that know no status.
    const char* problem = "";
    ZnString idText; // as JSON, "null" when it cannot be told; empty: the message wants no answer
    std::shared_ptr<const void> keptUntilSent; // destroyed when the text has left, or will never leave
};
