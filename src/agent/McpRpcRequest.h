#pragma once

#include "agent/McpForwardCall.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnJsonDocument.h"

/// What a "bridge.rpc" asks to be sent, made from the client's message, which is given up by it.
///
/// Thread: a value; build() may run on another thread than the rest, since a large message takes long.
class McpRpcRequest {
public:
    /// `message`: a "tools/call" with an object "request" among its arguments, read from `text`. The service wants it
    /// `inReading`; with `isOther` that is not how the message was read.
    McpRpcRequest(ZnJsonDocument message, ZnByteArray text, JsonReading inReading, bool isOther)
        : message_(std::move(message)), text_(std::move(text)), reading_(inReading), isOther_(isOther) {}

    /// Once.
    void build();
    /// Why it cannot be sent; null when it can.
    const char* refusal() const noexcept { return refusal_; }
    McpForwardRequest take() { return std::move(request_); }

private:
    ZnJsonDocument message_;
    ZnByteArray text_;
    JsonReading reading_;
    bool isOther_;
    const char* refusal_ = nullptr;
    McpForwardRequest request_;
};
