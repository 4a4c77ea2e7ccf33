#pragma once

#include "agent/McpForwardResult.h"
#include "core/types/ZnJsonDocument.h"

#include <cstddef>

/// The JSON-RPC response to a "bridge.rpc", as text, made from what the service has answered.
///
/// Thread: a value; build() may run on another thread than the rest. Reading and writing a large answer takes long, which
/// is why it is apart from everything that belongs to the loop.
/// Memory: the text is at most three times the bound of an answer, and making it needs no more than as much again; an
/// answer that grows beyond that becomes the failure of one that is too large.
class McpRpcAnswer {
public:
    static constexpr std::size_t kLargeBytes = 262144; // from here on it is too much for the loop

    /// `id`: of the client's request. `maxBytes`: of a service's answer.
    McpRpcAnswer(ZnJsonValue id, McpForwardResult result, JsonReading reading, std::size_t maxBytes)
        : id_(std::move(id)), result_(std::move(result)), reading_(reading), maxBytes_(maxBytes) {}

    bool isLarge() const noexcept { return result_.rawBody.size() >= kLargeBytes; }
    /// Once.
    void build();
    ZnByteArray takeText() { return std::move(text_); }

private:
    void repairTexts_();
    void readBody_();
    ZnString payload_();
    void writeText_(ZnString payload);

    ZnJsonValue id_;
    McpForwardResult result_;
    JsonReading reading_;
    std::size_t maxBytes_;
    ZnByteArray text_;
};
